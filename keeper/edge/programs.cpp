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

namespace {

constexpr size_t longest_line = 200;
/* What timeout(1) and shells end with when a program could not be run. */
constexpr int cannot_run = 126;
constexpr int not_found = 127;

/* From the beginning of what was written to `fd`. */
std::string first_line(int fd) {
    std::array<char, longest_line> bytes{};
    const ssize_t count = pread(fd, bytes.data(), bytes.size(), 0);
    const std::string text(bytes.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return duskvale_utf8(text.substr(0, text.find('\n')).c_str());
}

/* timeout(1) makes the process group, and kills all of it, itself included. Null or what went
 * wrong. */
client::Error spawn(const std::string &path, Duration limit, int output, GPid *process) {
    const std::string seconds = std::to_string(static_cast<double>(limit.count()) / 1000.0);
    const std::array<const char *, 5> words{"timeout", "--signal=KILL", seconds.c_str(),
                                            path.c_str(), nullptr};
    GError *error = nullptr;
    constexpr auto flags =
        static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
    g_spawn_async_with_fds(nullptr, const_cast<gchar **>(words.data()), nullptr, flags, nullptr,
                           nullptr, process, -1, output, output, &error);
    return client::Error(error);
}

} // namespace

Programs::Programs(std::string directory_, Duration limit_, Told told_)
    : directory(std::move(directory_)), limit(limit_), told(std::move(told_)) {}

void Programs::run() {
    glob_t found{};
    glob((directory + "/*.watch").c_str(), 0, nullptr, &found);
    for (size_t index = 0; index < found.gl_pathc; index++) {
        const std::filesystem::path path = found.gl_pathv[index];
        Child &child = children.emplace_back(
            Child{this, path.filename(), memfd_create("output", MFD_CLOEXEC)});
        GPid process = 0;
        if (const client::Error error = spawn(path, limit, child.output, &process)) {
            round.results.push_back({child.name, false, error->message, true});
            close(child.output);
            children.pop_back();
        } else {
            g_child_watch_add(process, on_end, &child);
        }
    }
    globfree(&found);
    round_runs = true;
    call_on_main_loop([this] { end_round_if_over(); });
}

void Programs::on_end(GPid process, gint wait_status, gpointer user_data) noexcept {
    auto *child = static_cast<Child *>(user_data);
    Programs *self = child->owner;
    kill(-process, SIGKILL);
    self->report(*child, wait_status);
    close(child->output);
    self->children.remove_if([child](const Child &other) { return &other == child; });
    self->end_round_if_over();
}

void Programs::report(Child &child, int wait_status) {
    std::string reason;
    bool not_run = false;
    if (WIFSIGNALED(wait_status)) {
        const int signal = WTERMSIG(wait_status);
        reason = signal == SIGKILL ? "not done after " + std::to_string(limit.count()) + " ms"
                                   : "killed by signal " + std::to_string(signal);
    } else if (const int status = WEXITSTATUS(wait_status); status != 0) {
        not_run = status == cannot_run || status == not_found;
        reason = "status " + std::to_string(status);
    }
    const std::string said = first_line(child.output);
    if (!reason.empty() && !said.empty()) {
        reason += ": " + said;
    }
    round.results.push_back({child.name, reason.empty(), reason, not_run});
}

void Programs::end_round_if_over() {
    if (children.empty() && std::exchange(round_runs, false)) {
        told(std::exchange(round, {}));
    }
}

} // namespace keeper
