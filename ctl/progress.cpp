#include "ctl/progress.h"

#include "ctl/output.h"

#include <unistd.h>

#include <cstdio>

namespace ctl {

Progress::Progress() : terminal(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (line_open) {
        std::fputc('\n', stderr);
    }
}

void Progress::show(const Notice &notice, uint32_t local_node) {
    if (!terminal) {
        return;
    }
    /* The end of a step goes on the line that its beginning has opened. */
    if (notice.kind == NoticeKind::step_end && line_open) {
        const std::string result =
            notice.status == 0 ? "" : "FAILED: " + describe_wait_status(notice.status) + ", ";
        const std::chrono::microseconds took{notice.time - step_began};
        std::fprintf(stderr, " %s%s\n", result.c_str(), duration_text(took).c_str());
        line_open = false;
        return;
    }
    if (line_open) {
        std::fputc('\n', stderr);
        line_open = false;
    }
    if (notice.kind == NoticeKind::step_begin) {
        std::fprintf(stderr, "  %s %s ...", file_name(notice.text).c_str(),
                     printable(notice.action).c_str());
        std::fflush(stderr);
        line_open = true;
        step_began = notice.time;
    } else if (notice.kind == NoticeKind::step_end || notice.kind == NoticeKind::new_master ||
               notice.kind == NoticeKind::joined || notice.kind == NoticeKind::left) {
        std::fprintf(stderr, "  %s\n", describe(notice, local_node).c_str());
    }
}

} // namespace ctl
