#include "ctl/ask/progress.h"

#include "ctl/history/sentence.h"
#include "ctl/print/text.h"

#include <unistd.h>

#include <cstdio>

namespace ctl {

Progress::Progress() : terminal(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (line_open) {
        std::fputc('\n', stderr);
    }
}

void Progress::show(const News &news, client::NodeId local_node) {
    const client::Announcement *announcement = news.announcement();
    if (!terminal || announcement == nullptr) {
        return;
    }
    const auto *begin = std::get_if<client::StepBegin>(announcement);
    const auto *end = std::get_if<client::StepEnd>(announcement);
    /* The end of a step goes on the line that its beginning has opened. */
    if (end != nullptr && line_open) {
        const std::string result =
            end->wait_status == 0 ? "" : "FAILED: " + wait_status_text(end->wait_status) + ", ";
        const std::chrono::microseconds took{news.time - step_began};
        std::fprintf(stderr, " %s%s\n", result.c_str(), duration_text(took).c_str());
        line_open = false;
        return;
    }
    if (line_open) {
        std::fputc('\n', stderr);
        line_open = false;
    }
    if (begin != nullptr) {
        std::fprintf(stderr, "  %s %s ...", file_name(begin->step).c_str(),
                     printable(begin->action).c_str());
        std::fflush(stderr);
        line_open = true;
        step_began = news.time;
    } else if (end != nullptr || std::holds_alternative<client::NewMaster>(*announcement) ||
               std::holds_alternative<client::Joined>(*announcement) ||
               std::holds_alternative<client::Left>(*announcement)) {
        std::fprintf(stderr, "  %s\n", wording(to_event(*announcement), local_node).text.c_str());
    }
}

} // namespace ctl
