/*
 * A bare member of a group of its own: what corosync takes by itself, next to which the daemon's
 * times are to be seen. Commands are lines on standard input:
 *
 *   ping   multicast a message and wait until it has come back
 *   die    end by SIGKILL
 *
 * Output is a line for each event: CLOCK_MONOTONIC in seconds, then "members COUNT", "left NODEID",
 * "ping MICROSECONDS" or "dies".
 */
#include <corosync/cpg.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

uint32_t own_nodeid;
bool came_back;

void print_time() {
    const std::chrono::duration<double> now = Clock::now().time_since_epoch();
    printf("%.6f ", now.count());
}

void require(cs_error_t result, const char *what) {
    if (result != CS_OK) {
        fprintf(stderr, "%s: %d\n", what, result);
        exit(EXIT_FAILURE);
    }
}

void delivered(cpg_handle_t, const cpg_name *, uint32_t nodeid, uint32_t, void *, size_t) noexcept {
    came_back = came_back || nodeid == own_nodeid;
}

void changed(cpg_handle_t, const cpg_name *, const cpg_address *, size_t members,
             const cpg_address *left, size_t left_count, const cpg_address *, size_t) noexcept {
    std::for_each(left, left + left_count, [](const cpg_address &member) {
        print_time();
        printf("left %u\n", member.nodeid);
    });
    print_time();
    printf("members %zu\n", members);
}

void ping(cpg_handle_t handle) {
    char text[] = "ping";
    const iovec message = {text, sizeof text};
    came_back = false;
    const auto start = Clock::now();
    require(cpg_mcast_joined(handle, CPG_TYPE_FIFO, &message, 1), "cpg_mcast_joined");
    while (!came_back) {
        require(cpg_dispatch(handle, CS_DISPATCH_ONE), "cpg_dispatch");
    }
    const std::chrono::duration<double, std::micro> taken = Clock::now() - start;
    print_time();
    printf("ping %.1f\n", taken.count());
}

/* False at the end of the input. */
bool obey(cpg_handle_t handle) {
    char line[64];
    if (fgets(line, sizeof line, stdin) == nullptr) {
        return false;
    }
    if (strcmp(line, "die\n") == 0) {
        print_time();
        puts("dies");
        raise(SIGKILL);
    }
    if (strcmp(line, "ping\n") == 0) {
        ping(handle);
    }
    return true;
}

} // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    /* So that poll() sees each line: none is read ahead. */
    setvbuf(stdin, nullptr, _IONBF, 0);

    cpg_handle_t handle;
    cpg_callbacks_t callbacks = {delivered, changed};
    require(cpg_initialize(&handle, &callbacks), "cpg_initialize");
    require(cpg_local_get(handle, &own_nodeid), "cpg_local_get");
    const cpg_name group = {5, "bench"};
    cs_error_t joined;
    while ((joined = cpg_join(handle, &group)) == CS_ERR_TRY_AGAIN) {
        usleep(10'000); /* The ring is changing. */
    }
    require(joined, "cpg_join");
    int fd;
    require(cpg_fd_get(handle, &fd), "cpg_fd_get");

    for (;;) {
        pollfd sources[] = {{fd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(sources, 2, -1) == -1) {
            perror("poll");
            return EXIT_FAILURE;
        }
        if (sources[0].revents != 0) {
            require(cpg_dispatch(handle, CS_DISPATCH_ALL), "cpg_dispatch");
        }
        if (sources[1].revents != 0 && !obey(handle)) {
            return EXIT_SUCCESS;
        }
    }
}
