#include "ctl/program.h"

#include <glib.h>
#include <sys/wait.h>

namespace ctl {

namespace {

/* What timeout(1) ends with when the limit has passed. */
constexpr int status_of_limit = 124;

} // namespace

ProgramAnswer ask_program(std::vector<std::string> words, int limit_s) {
    const char *path = g_getenv("PATH");
    const std::string folders = path != nullptr ? std::string(path) + ":" : "";
    words.insert(words.begin(),
                 {"timeout", "--kill-after=2", std::to_string(limit_s), "env", "LC_ALL=C.UTF-8",
                  "PATH=" + folders + "/usr/sbin:/sbin:/usr/bin:/bin"});
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    ProgramAnswer answer;
    g_autoptr(GError) error = nullptr;
    g_autofree char *out = nullptr;
    g_autofree char *err = nullptr;
    int status = 0;
    if (g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out,
                     &err, &status, &error) == FALSE) {
        answer.err = error->message;
        return answer;
    }
    answer.out = out;
    answer.err = g_strstrip(err);
    answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    answer.timed_out = answer.status == status_of_limit;
    return answer;
}

bool corosync_is_there() {
    constexpr int inactive = 3, no_such_unit = 4; /* systemctl(1); else it could not say */
    const int status = ask_program({"systemctl", "is-active", "corosync"}).status;
    return status != inactive && status != no_such_unit;
}

} // namespace ctl
