#include "fake-libcpg.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

static FakeLibcpg *current;

static constexpr cpg_handle_t HANDLE = 0x1122334455667788;

FakeLibcpg::FakeLibcpg() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("socketpair");
    }
    fd = own_end = ends[0];
    corosync_end = ends[1];
    current = this;
}

FakeLibcpg::~FakeLibcpg() {
    hang_up();
    close(own_end);
    current = nullptr;
}

void FakeLibcpg::queue(std::function<void()> event) {
    events.push_back(std::move(event));
    EXPECT_EQ(send(corosync_end, "", 1, 0), 1);
}

void FakeLibcpg::queue_message(uint32_t nodeid, std::string bytes) {
    queue([this, nodeid, bytes = std::move(bytes)]() mutable {
        message = bytes.data();
        model.cpg_deliver_fn(HANDLE, &group, nodeid, 1, bytes.data(), bytes.size());
    });
}

void FakeLibcpg::queue_change(size_t member_count, std::vector<cpg_address> left,
                              std::vector<cpg_address> joined) {
    queue([this, member_count, left = std::move(left), joined = std::move(joined)] {
        const std::vector<cpg_address> members(member_count, {99, 99, CPG_REASON_UNDEFINED});
        model.cpg_confchg_fn(HANDLE, &group, members.data(), members.size(), left.data(),
                             left.size(), joined.data(), joined.size());
    });
}

void FakeLibcpg::hang_up() {
    if (corosync_end >= 0) {
        /* close() alone would leave the copy of a forked process's parent. */
        shutdown(corosync_end, SHUT_RDWR);
        close(std::exchange(corosync_end, -1));
    }
}

size_t FakeLibcpg::count(std::string_view function) const {
    return static_cast<size_t>(std::ranges::count_if(
        calls, [function](const std::string &call) { return call.starts_with(function); }));
}

cs_error_t FakeLibcpg::called(std::string_view function, const std::string &arguments) {
    calls.push_back(std::string(function) + (arguments.empty() ? "" : " ") + arguments);
    const auto scripted = results.find(function);
    return scripted == results.end() ? CS_OK : scripted->second;
}

cs_error_t FakeLibcpg::dispatch_one() {
    char byte;
    if (recv(own_end, &byte, 1, MSG_DONTWAIT) != 1) {
        EXPECT_LT(corosync_end, 0) << "cpg_dispatch() without an event would block the daemon";
        return CS_ERR_LIBRARY;
    }
    const auto event = std::move(events.front());
    events.pop_front();
    event();
    return CS_OK;
}

cs_error_t cpg_model_initialize(cpg_handle_t *handle, cpg_model_t, cpg_model_data_t *model,
                                void *context) {
    memcpy(&current->model, model, sizeof current->model);
    current->context = context;
    *handle = HANDLE;
    return current->called(__func__, "flags=" + std::to_string(current->model.flags));
}

cs_error_t cpg_finalize(cpg_handle_t handle) {
    EXPECT_EQ(handle, HANDLE);
    return current->called(__func__);
}

cs_error_t cpg_context_get(cpg_handle_t handle, void **context) {
    EXPECT_EQ(handle, HANDLE);
    *context = current->context;
    return current->results.contains(__func__) ? current->results[__func__] : CS_OK;
}

cs_error_t cpg_local_get(cpg_handle_t, unsigned int *nodeid) {
    *nodeid = FakeLibcpg::NODEID;
    return current->called(__func__);
}

cs_error_t cpg_join(cpg_handle_t, const cpg_name *group) {
    /* Bytes behind a name's length mean nothing: a reader that does not mind the length shows them.
     */
    memset(current->group.value, '#', sizeof current->group.value);
    memcpy(current->group.value, group->value, group->length);
    current->group.length = group->length;
    return current->called(__func__, {group->value, group->length});
}

cs_error_t cpg_fd_get(cpg_handle_t, int *fd) {
    *fd = current->fd;
    return current->called(__func__);
}

cs_error_t cpg_mcast_joined(cpg_handle_t, cpg_guarantee_t guarantee, const iovec *iov,
                            unsigned int count) {
    std::string bytes = std::to_string(guarantee) + ":";
    for (unsigned int i = 0; i < count; i++) {
        bytes.append(static_cast<const char *>(iov[i].iov_base), iov[i].iov_len);
    }
    return current->called(__func__, bytes);
}

cs_error_t cpg_dispatch(cpg_handle_t, cs_dispatch_flags_t types) {
    EXPECT_EQ(types, CS_DISPATCH_ONE);
    const cs_error_t scripted = current->called(__func__);
    return scripted == CS_OK ? current->dispatch_one() : scripted;
}
