#include "keeper/edge/programs.h"

#include "base/utf8.h"

#include <glob.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>

namespace keeper {

constexpr size_t longest_line = 200;
/* What timeout(1) and shells end with when a program could not be run. */
constexpr int cannot_run = 126, not_found = 127;

/* From the beginning of what was written to `fd`. */
static std::string first_line(int fd) {
    std::array<char, longest_line> bytes{};
    const ssize_t count = pread(fd, bytes.data(), bytes.size(), 0);
    const std::string text(bytes.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return duskvale_utf8(text.substr(0, text.find('\n')).c_str());
}

void Programs::run() {
    glob_t found{};
    glob((directory + "/*.watch").c_str(), 0, nullptr, &found);
    const std::string seconds = std::to_string(static_cast<double>(limit.count()) / 1000.0);
    for (size_t index = 0; index < found.gl_pathc; index++) {
        const std::filesystem::path path = found.gl_pathv[index];
        Child &child = round.emplace_back(Child{this, {path.filename(), false, "", false}, -1});
        child.output = memfd_create("output", MFD_CLOEXEC);
        /* timeout(1) makes the process group, and kills all of it, itself included. */
        const std::array words{"timeout", "--signal=KILL", seconds.c_str(), path.c_str(),
                               static_cast<const char *>(nullptr)};
        constexpr auto flags =
            static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
        GPid process = 0;
        g_autoptr(GError) error = nullptr;
        if (g_spawn_async_with_fds(nullptr, const_cast<gchar **>(words.data()), nullptr, flags,
                                   nullptr, nullptr, &process, -1, child.output, child.output,
                                   &error)) {
            ++running;
            g_child_watch_add(process, on_end, &child);
        } else {
            child.result.reason = error->message;
            child.result.not_run = true;
        }
    }
    globfree(&found);
    if (running == 0) {
        call_on_main_loop([this] { end_round_if_over(); });
    }
}

void Programs::on_end(GPid process, gint wait_status, gpointer user_data) noexcept {
    auto *child = static_cast<Child *>(user_data);
    WatchRan::Result &result = child->result;
    kill(-process, SIGKILL);
    if (WIFSIGNALED(wait_status)) {
        const int signal = WTERMSIG(wait_status);
        result.reason = signal == SIGKILL ? "not done after " +
                                                std::to_string(child->owner->limit.count()) + " ms"
                                          : "killed by signal " + std::to_string(signal);
    } else if (const int status = WEXITSTATUS(wait_status); status != 0) {
        result.not_run = status == cannot_run || status == not_found;
        result.reason = "status " + std::to_string(status);
    }
    result.ok = result.reason.empty();
    const std::string said = first_line(child->output);
    result.reason += result.ok || said.empty() ? "" : ": " + said;
    --child->owner->running;
    child->owner->end_round_if_over();
}

void Programs::end_round_if_over() {
    if (running > 0) {
        return;
    }
    WatchRan ran;
    for (const Child &child : std::exchange(round, {})) {
        close(child.output);
        ran.results.push_back(child.result);
    }
    deliver(ran);
}

} // namespace keeper
