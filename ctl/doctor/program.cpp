#include "ctl/doctor/program.h"

#include <gio/gio.h>

#include <utility>

namespace ctl {

namespace {

constexpr guint limit_ms = 5000;

struct Run {
    GSubprocess *process = nullptr;
    guint timer = 0;
    bool over = false;
    ProgramAnswer answer;
};

void on_over(GObject *source, GAsyncResult *result, gpointer data) noexcept {
    auto *run = static_cast<Run *>(data);
    g_autofree char *out = nullptr;
    g_autofree char *err = nullptr;
    g_autoptr(GError) error = nullptr;
    if (g_subprocess_communicate_utf8_finish(G_SUBPROCESS(source), result, &out, &err, &error)) {
        run->answer.out = out;
        run->answer.err = g_strstrip(err);
    } else {
        run->answer.err = error->message;
    }
    run->over = true;
}

gboolean on_limit(gpointer data) noexcept {
    auto *run = static_cast<Run *>(data);
    run->timer = 0;
    run->answer.end = ProgramAnswer::End::timed_out;
    g_subprocess_force_exit(run->process);
    return G_SOURCE_REMOVE;
}

std::string find_program(const std::string &name) {
    g_autofree char *found = g_find_program_in_path(name.c_str());
    return found != nullptr ? found : "/usr/sbin/" + name;
}

} // namespace

ProgramAnswer ask_program(std::vector<std::string> words) {
    words.front() = find_program(words.front());
    std::vector<const char *> argv;
    argv.reserve(words.size() + 1);
    for (const std::string &word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);

    Run run;
    g_autoptr(GError) error = nullptr;
    g_autoptr(GSubprocessLauncher) launcher =
        g_subprocess_launcher_new(static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | //
                                                                G_SUBPROCESS_FLAGS_STDERR_PIPE));
    g_subprocess_launcher_setenv(launcher, "LC_ALL", "C.UTF-8", TRUE);
    g_autoptr(GSubprocess) process = g_subprocess_launcher_spawnv(launcher, argv.data(), &error);
    if (process == nullptr) {
        run.answer.err = error->message;
        return std::move(run.answer);
    }
    run.process = process;
    run.answer.end = ProgramAnswer::End::exited;
    run.timer = g_timeout_add(limit_ms, on_limit, &run);
    g_subprocess_communicate_utf8_async(process, nullptr, nullptr, on_over, &run);
    while (!run.over) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (run.timer != 0) {
        g_source_remove(run.timer);
    }
    if (g_subprocess_wait(process, nullptr, nullptr) && g_subprocess_get_if_exited(process)) {
        run.answer.status = g_subprocess_get_exit_status(process);
    }
    return std::move(run.answer);
}

} // namespace ctl
