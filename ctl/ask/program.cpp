#include "ctl/ask/program.h"

#include "client/handle.h"

#include <gio/gio.h>

namespace ctl {

namespace {

/* What timeout(1) ends with when the limit has passed. */
constexpr int status_of_limit = 124;

} // namespace

ProgramAnswer ask_program(const std::vector<std::string> &words, int limit_s) {
    const std::string limit = std::to_string(limit_s);
    std::vector<const char *> argv{"timeout", "--kill-after=2", limit.c_str()};
    for (const std::string &word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);

    const client::Object<GSubprocessLauncher> launcher(
        g_subprocess_launcher_new(static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | //
                                                                G_SUBPROCESS_FLAGS_STDERR_PIPE)));
    const char *path = g_getenv("PATH");
    g_subprocess_launcher_setenv(
        launcher.get(), "PATH",
        ((path != nullptr ? std::string(path) + ":" : "") + "/usr/sbin:/sbin:/usr/bin:/bin")
            .c_str(),
        TRUE);
    g_subprocess_launcher_setenv(launcher.get(), "LC_ALL", "C.UTF-8", TRUE);

    ProgramAnswer answer;
    g_autoptr(GError) error = nullptr;
    g_autofree char *out = nullptr;
    g_autofree char *err = nullptr;
    const client::Object<GSubprocess> process(
        g_subprocess_launcher_spawnv(launcher.get(), argv.data(), &error));
    if (!process ||
        !g_subprocess_communicate_utf8(process.get(), nullptr, nullptr, &out, &err, &error)) {
        answer.err = error->message;
        return answer;
    }
    answer.out = out;
    answer.err = g_strstrip(err);
    if (g_subprocess_get_if_exited(process.get())) {
        answer.status = g_subprocess_get_exit_status(process.get());
        answer.timed_out = answer.status == status_of_limit;
    }
    return answer;
}

} // namespace ctl
