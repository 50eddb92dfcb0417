#include "keeper/edge/corosync.h"

#include <corosync/cmap.h>
#include <corosync/quorum.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <thread>

namespace keeper {

namespace {

constexpr auto retry_pause = std::chrono::milliseconds(500);
/* corosync's own when the configuration names a device and no sync_timeout: votequorum(5). */
constexpr unsigned default_device_sync_ms = 30'000;

/* All keys that are read here begin with one of these. */
constexpr std::array prefixes{"nodelist.", "quorum.", "runtime.config.totem.",
                              "runtime.votequorum.", "config."};

/* The keys of cmap; one that is not there, or of another type, reads as the default. */
class Keys {
public:
    explicit Keys(cmap_handle_t handle_) : handle(handle_) {}

    unsigned number(const std::string &key, unsigned otherwise) const {
        uint32_t value = 0;
        return cmap_get_uint32(handle, key.c_str(), &value) == CS_OK ? value : otherwise;
    }
    bool flag(const char *key) const {
        uint8_t value = 0;
        return cmap_get_uint8(handle, key, &value) == CS_OK && value != 0;
    }
    std::string text(const std::string &key) const {
        char *value = nullptr;
        if (cmap_get_string(handle, key.c_str(), &value) != CS_OK) {
            return {};
        }
        const std::unique_ptr<char, client::Release<free>> owned(value);
        return value;
    }

private:
    cmap_handle_t handle;
};

CorosyncRead read_keys(const Keys &keys) {
    CorosyncRead read;
    unsigned votes = 0;
    const auto node = [](unsigned position, const char *key) {
        return "nodelist.node." + std::to_string(position) + "." + key;
    };
    for (unsigned at = 0; !keys.text(node(at, "ring0_addr")).empty(); at++) {
        read.nodes.push_back({keys.number(node(at, "nodeid"), 0), keys.text(node(at, "name"))});
        votes += keys.number(node(at, "quorum_votes"), 1);
    }
    const unsigned position = keys.number("nodelist.local_node_pos", UINT32_MAX);
    read.local = keys.number(node(position, "nodeid"), 0);
    read.votequorum = keys.text("quorum.provider") == "corosync_votequorum";
    read.two_node = keys.flag("runtime.votequorum.two_node");
    read.tie_breaker = keys.flag("quorum.auto_tie_breaker");
    read.votes = keys.number("quorum.expected_votes", votes);
    if (!keys.text("quorum.device.model").empty()) {
        read.votes += keys.number("quorum.device.votes", 1);
        read.device_sync =
            Duration(keys.number("quorum.device.sync_timeout", default_device_sync_ms));
    }
    const auto milliseconds = [&keys](const char *key, Duration otherwise) {
        return Duration(keys.number(key, static_cast<unsigned>(otherwise.count())));
    };
    read.token = milliseconds("runtime.config.totem.token", read.token);
    read.consensus = milliseconds("runtime.config.totem.consensus", read.consensus);
    return read;
}

/* One connection to both services. */
struct Session {
    cmap_handle_t cmap = 0;
    quorum_handle_t quorum = 0;
    bool keys_changed = true;
    std::optional<QuorumChanged> reported;

    Session() = default;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session() {
        quorum_finalize(quorum);
        cmap_finalize(cmap);
    }
};

void on_key(cmap_handle_t, cmap_track_handle_t, int32_t, const char *, cmap_notify_value,
            cmap_notify_value, void *session) noexcept {
    static_cast<Session *>(session)->keys_changed = true;
}

void on_quorum(quorum_handle_t handle, uint32_t quorate, uint64_t, uint32_t count,
               uint32_t *members) noexcept {
    const void *context = nullptr;
    quorum_context_get(handle, &context);
    auto *session = static_cast<Session *>(const_cast<void *>(context));
    session->reported = QuorumChanged{true, quorate != 0, {members, members + count}};
}

bool open(Session &session) {
    constexpr int32_t any =
        CMAP_TRACK_ADD | CMAP_TRACK_DELETE | CMAP_TRACK_MODIFY | CMAP_TRACK_PREFIX;
    quorum_callbacks_t callbacks{on_quorum};
    uint32_t type = 0;
    cmap_track_handle_t ignored = 0;
    return cmap_initialize(&session.cmap) == CS_OK &&
           std::ranges::all_of(prefixes,
                               [&](const char *prefix) {
                                   return cmap_track_add(session.cmap, prefix, any, on_key,
                                                         &session, &ignored) == CS_OK;
                               }) &&
           quorum_initialize(&session.quorum, &callbacks, &type) == CS_OK &&
           quorum_context_set(session.quorum, &session) == CS_OK &&
           quorum_trackstart(session.quorum, CS_TRACK_CURRENT | CS_TRACK_CHANGES) == CS_OK;
}

/* Waits for news and takes it in; false when the connection is lost. */
bool wait(Session &session) {
    std::array<pollfd, 2> watched{pollfd{-1, POLLIN, 0}, pollfd{-1, POLLIN, 0}};
    quorum_fd_get(session.quorum, &watched[0].fd);
    cmap_fd_get(session.cmap, &watched[1].fd);
    poll(watched.data(), watched.size(), -1);
    return (watched[0].revents == 0 || quorum_dispatch(session.quorum, CS_DISPATCH_ALL) == CS_OK) &&
           (watched[1].revents == 0 || cmap_dispatch(session.cmap, CS_DISPATCH_ALL) == CS_OK);
}

/* Returns when the connection is lost; false when there was none. */
bool follow(const Told &told) {
    Session session;
    if (!open(session)) {
        return false;
    }
    const Keys keys(session.cmap);
    std::optional<CorosyncRead> read;
    std::optional<QuorumChanged> reported;
    do {
        /* While corosync reads its configuration again, the keys are neither the old nor the new
         * ones. */
        if (session.keys_changed && !keys.flag("config.reload_in_progress")) {
            session.keys_changed = false;
            if (const CorosyncRead now_there = read_keys(keys); read != now_there) {
                read = now_there;
                call_on_main_loop([told, read] { told(*read); });
            }
        }
        if (reported != session.reported) {
            reported = session.reported;
            call_on_main_loop([told, reported] { told(*reported); });
        }
    } while (wait(session));
    return true;
}

} // namespace

void follow_corosync(Told told) {
    std::thread([told] {
        for (bool was_connected = true;; std::this_thread::sleep_for(retry_pause)) {
            const bool connected = follow(told);
            if (connected || was_connected) {
                call_on_main_loop([told] { told(QuorumChanged{}); });
            }
            was_connected = connected;
        }
    }).detach();
}

} // namespace keeper
