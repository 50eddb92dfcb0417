/*
 * A libcpg whose events and failures a test writes, linked in place of the real one. The one
 * FakeLibcpg alive answers all calls. Its descriptor is a socket, so readiness and hang-up are the
 * kernel's own: one queued byte for each event, hung up as soon as corosync's end is closed.
 */
#pragma once

#include <corosync/cpg.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

class FakeLibcpg {
public:
    FakeLibcpg();
    ~FakeLibcpg();
    FakeLibcpg(const FakeLibcpg &) = delete;
    FakeLibcpg &operator=(const FakeLibcpg &) = delete;

    static constexpr uint32_t NODEID = 7;

    /* What a function, by its name, returns instead of CS_OK; it then does nothing. */
    std::map<std::string, cs_error_t, std::less<>> results;
    /* Every call but cpg_context_get(), with the arguments that matter. */
    std::vector<std::string> calls;
    /* What cpg_fd_get() gives out: the socket's end unless a test puts something else here. */
    int fd;
    /* The address of the message delivered last. */
    const void *message = nullptr;

    void queue_message(uint32_t nodeid, std::string bytes);
    void queue_change(size_t member_count, std::vector<cpg_address> left,
                      std::vector<cpg_address> joined);
    /* Corosync dies; what was queued can still be read. */
    void hang_up();

    /* How many calls of `function` there were. */
    size_t count(std::string_view function) const;

    /* For the library functions. */
    cs_error_t called(std::string_view function, const std::string &arguments = "");
    cs_error_t dispatch_one();
    cpg_model_v1_data_t model{};
    void *context = nullptr;
    cpg_name group{};

private:
    void queue(std::function<void()> event);

    std::deque<std::function<void()>> events;
    int own_end;
    int corosync_end;
};
