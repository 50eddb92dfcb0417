/* A process of its own: what it writes, and how it ends. */
#pragma once

#include "support/capture.h"
#include "support/loop.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

/* Exit status of `pid`, a child or an adopted orphan; 128 and the signal's number when one ended
   it; -1, and the process is killed, when it does not end within a generous limit. */
inline int end_of(pid_t pid) {
    int status = 0;
    if (!loop_until([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/* Turns this process into `program`, called by `words`; it ends with 127 where that fails. */
[[noreturn]] inline void become(const char *program, std::vector<std::string> words) {
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execvp(program, argv.data());
    _exit(127);
}

class Child {
public:
    /* Runs `body` in a copy of this process; it may become another program. A body that returns
     * exits with 0. */
    explicit Child(const std::function<void()> &body) {
        /* A daemon's parent ends at once: its child then becomes ours to wait for. */
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        fflush(nullptr);
        pid = fork();
        if (pid == 0) {
            dup2(out, STDOUT_FILENO);
            dup2(err, STDERR_FILENO);
            body();
            fflush(nullptr);
            _exit(0);
        }
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(out);
        close(err);
    }

    /* As end_of; the process is gone afterwards. */
    int end() {
        const int status = end_of(pid);
        pid = -1;
        return status;
    }

    pid_t id() const { return pid; }
    std::string stdout_text() const { return text_of(out); }
    std::string stderr_text() const { return text_of(err); }

    /* TRUE as soon as standard error holds `text`. */
    bool wrote(const std::string &text) const {
        return loop_until([&] { return stderr_text().find(text) != std::string::npos; });
    }

private:
    int out = memfd_create("stdout", MFD_CLOEXEC);
    int err = memfd_create("stderr", MFD_CLOEXEC);
    pid_t pid = -1;
};
