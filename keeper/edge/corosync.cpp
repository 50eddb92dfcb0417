#include "keeper/edge/corosync.h"

#include <corosync/cmap.h>
#include <corosync/quorum.h>
#include <poll.h>

#include <thread>

namespace keeper {

namespace {

constexpr auto retry_pause = std::chrono::milliseconds(500);
/* How soon a configuration that was read again is noticed, if it does not change the quorum. Each
   look costs some 30 wake-ups. */
constexpr int look_every_ms = 120'000;
/* corosync's own when the configuration names a device and no sync_timeout: votequorum(5). */
constexpr unsigned default_device_sync_ms = 30'000;

/* Reads keys of cmap; one that is not there, or of another type, reads as `otherwise`. */
struct Keys {
    cmap_handle_t cmap = 0;
    bool lost = false; /* the connection, and with it a value */

    bool found(cs_error_t result) {
        lost = lost ||
               (result != CS_OK && result != CS_ERR_NOT_EXIST && result != CS_ERR_INVALID_PARAM);
        return result == CS_OK;
    }
    unsigned number(const std::string &key, unsigned otherwise) {
        uint32_t value = 0;
        return found(cmap_get_uint32(cmap, key.c_str(), &value)) ? value : otherwise;
    }
    bool flag(const char *key) {
        uint8_t value = 0;
        return found(cmap_get_uint8(cmap, key, &value)) && value != 0;
    }
    std::string text(const std::string &key) {
        char *value = nullptr;
        if (!found(cmap_get_string(cmap, key.c_str(), &value))) {
            return ""; /* whatever `value` is, it is freed already */
        }
        g_autofree char *owned = value; /* g_free() is free() */
        return owned;
    }
};

void read_keys(Keys &keys, Corosync &read) {
    unsigned votes = 0;
    const auto node = [](unsigned position, const char *key) {
        return "nodelist.node." + std::to_string(position) + "." + key;
    };
    for (unsigned at = 0; !keys.text(node(at, "ring0_addr")).empty(); at++) {
        read.nodes.emplace(keys.number(node(at, "nodeid"), 0), keys.text(node(at, "name")));
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
    read.token = Duration(keys.number("runtime.config.totem.token", 1000));
    read.consensus = Duration(keys.number("runtime.config.totem.consensus", 1200));
}

/* One connection to both services. */
struct Session {
    Keys keys = {};
    quorum_handle_t quorum = 0;
    Corosync heard = {}; /* without the keys */

    ~Session() {
        quorum_finalize(quorum);
        cmap_finalize(keys.cmap);
    }
};

void on_quorum(quorum_handle_t handle, uint32_t quorate, uint64_t, uint32_t count,
               uint32_t *members) noexcept {
    const void *context = nullptr;
    quorum_context_get(handle, &context);
    auto *session = static_cast<Session *>(const_cast<void *>(context));
    session->heard = {
        .connected = true, .quorate = quorate != 0, .ring = {members, members + count}};
}

bool open(Session &session) {
    quorum_callbacks_t callbacks{on_quorum};
    uint32_t type = 0;
    return cmap_initialize(&session.keys.cmap) == CS_OK &&
           quorum_initialize(&session.quorum, &callbacks, &type) == CS_OK &&
           quorum_context_set(session.quorum, &session) == CS_OK &&
           quorum_trackstart(session.quorum, CS_TRACK_CURRENT | CS_TRACK_CHANGES) == CS_OK;
}

/* Waits for news, or until it is time to look; false when the connection is lost. */
bool wait(const Session &session) {
    pollfd watched{-1, POLLIN, 0};
    quorum_fd_get(session.quorum, &watched.fd);
    poll(&watched, 1, look_every_ms);
    return watched.revents == 0 || quorum_dispatch(session.quorum, CS_DISPATCH_ALL) == CS_OK;
}

void report(const Deliver &deliver, Corosync &last, const Corosync &news) {
    if (last != news) {
        last = news;
        call_on_main_loop([deliver, news] { deliver(news); });
    }
}

/* Returns when the connection is lost, or there is none. */
void follow(const Deliver &deliver, Corosync &last) {
    Session session;
    if (!open(session)) {
        return;
    }
    do {
        Corosync news = session.heard;
        /* While corosync reads its configuration again, the keys are neither the old nor the new
         * ones. */
        if (news.connected && !session.keys.flag("config.reload_in_progress")) {
            read_keys(session.keys, news);
            session.keys.lost ? void() : report(deliver, last, news);
        }
    } while (!session.keys.lost && wait(session));
}

} // namespace

void follow_corosync(const Deliver &deliver) {
    std::thread([deliver] {
        Corosync last{.connected = true}; /* so that the first failure is reported */
        for (;; std::this_thread::sleep_for(retry_pause)) {
            follow(deliver, last);
            Corosync lost = last;
            lost.connected = false;
            report(deliver, last, lost);
        }
    }).detach();
}

} // namespace keeper
