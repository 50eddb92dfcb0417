#include "keeper/edge/programs.h"

#include "base/utf8.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <thread>

namespace keeper {

constexpr size_t longest_line = 200;
/* What timeout(1) and shells end with when a program could not be run. */
constexpr int cannot_run = 126, not_found = 127;

struct Child {
    GPid process = 0; /* 0: it could not be started */
    int output = -1;  /* a file in memory: nobody needs to read along for the program to go on */
    WatchRan::Result result;
};

/* From the beginning of what was written to `fd`. */
static std::string first_line(int fd) {
    std::array<char, longest_line> bytes{};
    const ssize_t count = pread(fd, bytes.data(), bytes.size(), 0);
    const std::string text(bytes.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return duskvale_utf8(text.substr(0, text.find('\n')).c_str());
}

static Child start(const std::filesystem::path &path, const std::string &seconds) {
    Child child{.output = memfd_create("output", MFD_CLOEXEC),
                .result = {.program = duskvale_utf8(path.filename().c_str())}};
    /* timeout(1) makes the process group, and kills all of it, itself included. */
    const std::array words{"timeout", "--signal=KILL", seconds.c_str(), path.c_str(),
                           static_cast<const char *>(nullptr)};
    constexpr auto flags =
        static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
    g_autoptr(GError) error = nullptr;
    if (!g_spawn_async_with_fds(nullptr, const_cast<gchar **>(words.data()), nullptr, flags,
                                nullptr, nullptr, &child.process, -1, child.output, child.output,
                                &error)) {
        child.result.reason = error->message;
        child.result.not_run = true;
    }
    return child;
}

static void wait_for(Child &child, const std::string &seconds) {
    int wait_status = 0;
    waitpid(child.process, &wait_status, 0);
    kill(-child.process, SIGKILL);
    std::string &reason = child.result.reason;
    if (WIFSIGNALED(wait_status)) {
        const int signal = WTERMSIG(wait_status);
        reason = signal == SIGKILL ? "not done after " + seconds + " s"
                                   : "killed by signal " + std::to_string(signal);
    } else if (const int status = WEXITSTATUS(wait_status); status != 0) {
        child.result.not_run = status == cannot_run || status == not_found;
        reason = "status " + std::to_string(status);
    }
    child.result.ok = reason.empty();
    const std::string said = first_line(child.output);
    reason += child.result.ok || said.empty() ? "" : ": " + said;
}

void run_programs(const std::string &directory, Duration limit, const Deliver &deliver) {
    g_autofree gchar *seconds = g_strdup_printf("%g", static_cast<double>(limit.count()) / 1000);
    std::thread([paths = paths(directory + "/*.watch"), time = std::string(seconds), deliver] {
        std::vector<Child> round;
        for (const std::string &path : paths) {
            round.push_back(start(path, time));
        }
        WatchRan ran;
        for (Child &child : round) {
            if (child.process != 0) {
                wait_for(child, time);
            }
            close(child.output);
            ran.results.push_back(child.result);
        }
        call_on_main_loop([=] { deliver(ran); });
    }).detach();
}

} // namespace keeper
