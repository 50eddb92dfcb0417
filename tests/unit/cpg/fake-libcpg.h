/*
 * A libcpg whose events and failures a test writes, linked in place of the real one. The one
 * FakeLibcpg alive answers all calls. Its descriptor is a socket, so readiness and hang-up are the
 * kernel's own: one queued byte for each event, hung up as soon as corosync's end is closed.
 */
#pragma once

#include <corosync/cpg.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

class FakeLibcpg {
public:
    static constexpr uint32_t local_node = 7;
    static constexpr cpg_handle_t the_handle = 0x1122334455667788;
    static inline FakeLibcpg *current;

    FakeLibcpg() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        fd = ends[0];
        current = this;
    }
    ~FakeLibcpg() {
        close(ends[0]);
        close(ends[1]);
    }
    FakeLibcpg(const FakeLibcpg &) = delete;
    FakeLibcpg &operator=(const FakeLibcpg &) = delete;

    /* What a function, by its name, returns instead of CS_OK; it then does nothing. */
    std::map<std::string, cs_error_t, std::less<>> results;
    /* Every call but cpg_context_get(), with the arguments that matter. */
    std::vector<std::string> calls;
    /* What cpg_fd_get() gives out: the socket's end unless a test puts something else here. */
    int fd;

    void queue_message(uint32_t nodeid, std::string bytes) {
        queue([this, nodeid, bytes = std::move(bytes)]() mutable {
            model.cpg_deliver_fn(the_handle, &group, nodeid, 1, bytes.data(), bytes.size());
        });
    }
    void queue_change(size_t member_count, std::vector<cpg_address> left,
                      std::vector<cpg_address> joined) {
        queue([this, member_count, left = std::move(left), joined = std::move(joined)] {
            const std::vector<cpg_address> members(member_count, {99, 99, CPG_REASON_UNDEFINED});
            model.cpg_confchg_fn(the_handle, &group, members.data(), members.size(), left.data(),
                                 left.size(), joined.data(), joined.size());
        });
    }
    /* Corosync dies; what was queued can still be read. Not close(): a forked process's parent has
       a copy. */
    void hang_up() { shutdown(ends[1], SHUT_RDWR); }

    /* For the library functions. */
    cs_error_t called(const std::string &function, const std::string &arguments = "") {
        calls.push_back(function + arguments);
        return results.contains(function) ? results[function] : CS_OK;
    }
    cs_error_t dispatch_one() {
        char byte;
        const ssize_t got = recv(ends[0], &byte, 1, MSG_DONTWAIT);
        EXPECT_GE(got, 0) << "cpg_dispatch() without an event would block the daemon";
        if (got != 1) {
            return CS_ERR_LIBRARY;
        }
        const auto event = std::move(events.front());
        events.pop_front();
        event();
        return CS_OK;
    }
    cpg_model_v1_data_t model{};
    void *context = nullptr; /* of the open connection; null when there is none */
    cpg_name group{};

private:
    void queue(std::function<void()> event) {
        events.push_back(std::move(event));
        EXPECT_EQ(send(ends[1], "", 1, 0), 1);
    }

    std::deque<std::function<void()>> events;
    int ends[2]; /* the connection's and corosync's */
};
