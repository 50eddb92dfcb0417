/* The connection on a main loop, on a scripted library with a descriptor of the kernel's. */
#include "base/log.h"
#include "cpg/duskvale-gcpg.h"
#include "fake-libcpg.h"
#include "support/capture.h"
#include "support/script.h"

#include <stdio_ext.h>

namespace {

struct Session {
    Session() { duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::cpg)); }
    ~Session() {
        g_clear_object(&object);
        /* The object leaves its connection open, and so the record that lib knows. */
        lib.results.clear();
        destroy();
        g_main_context_unref(context);
    }

    /* What the library was asked, what was logged and printed, and what the agents have heard. */
    std::string outcome() {
        EXPECT_EQ(__fpending(stdout), 0U) << "a list that waits for a full buffer";
        std::string text;
        for (const std::string &call : std::exchange(lib.calls, {})) {
            text += call + "\n";
        }
        return text + log.take() + list.take() + std::exchange(heard, {});
    }

    duskvale_cpg *record() const { return static_cast<duskvale_cpg *>(lib.context); }
    void destroy() {
        if (lib.context != nullptr) {
            duskvale_cpg_destroy(record());
        }
    }
    void join() {
        heard += dvcpg_glib_register(object, context) ? "registered\n" : "not registered\n";
    }
    /* "2:201:5": node, process, reason */
    static std::vector<cpg_address> addresses(const std::string &list) {
        std::vector<cpg_address> result;
        for (const std::string &address : list == "-" ? Words{} : split(list, ",")) {
            const Words parts = split(address, ":");
            result.push_back({number(parts[0]), number(parts[1]), number(parts[2])});
        }
        return result;
    }

    /* They answer -1, since the results of agents must not matter. */
    static int note(void *session, const std::string &line) {
        static_cast<Session *>(session)->heard += line + "\n";
        return -1;
    }
    static int joined(void *session, uint32_t node, size_t members) {
        return note(session, "joined " + std::to_string(node) + ", " + std::to_string(members));
    }
    static int left(void *session, uint32_t node, size_t members) {
        return note(session, "left " + std::to_string(node) + ", " + std::to_string(members));
    }
    static int got(void *session, uint32_t node, const void *message, size_t length) {
        auto *self = static_cast<Session *>(session);
        if (self->echo) {
            note(session,
                 "sent: " + std::to_string(dvcpg_glib_send_message(self->object, message, length)));
        }
        return note(session, std::to_string(node) + " sent " +
                                 std::string(static_cast<const char *>(message), length));
    }

    const DuskvaleGCpgAgents all = {.joined = joined, .left = left, .got_message = got};
    DuskvaleGCpgAgents agents = all;
    bool echo = false;
    std::string heard;
    FakeLibcpg lib;
    GMainContext *context = g_main_context_new();
    DuskvaleGCpg *object = dvcpg_glib_new("duskvale", &agents, this);
    Capture log, list{STDOUT_FILENO};
    Words w;

    const Commands commands = {
        {"register", [this] { join(); }},
        {"node", [this] { heard += std::to_string(duskvale_glib_local_nodeid(object)) + "\n"; }},
        {"descriptor", [this] { lib.fd = std::stoi(w[1]); }},
        /* What a function of the library returns from now on instead of CS_OK. */
        {"fail",
         [this] {
             lib.results = {{w[1], static_cast<cs_error_t>(number(w[2]))}};
         }},
        {"recover", [this] { lib.results.clear(); }},
        /* How many members there are now, who left, who joined. */
        {"change", [this] { lib.queue_change(number(w[1]), addresses(w[2]), addresses(w[3])); }},
        {"message", [this] { lib.queue_message(number(w[1]), rest(w, 2)); }},
        {"turn", [this] { heard += g_main_context_iteration(context, FALSE) ? "" : "idle\n"; }},
        {"dispatch", [this] { duskvale_cpg_dispatch(record()); }},
        {"destroy", [this] { destroy(); }},
        {"open", [this] { heard += lib.context != nullptr ? "open\n" : "not open\n"; }},
        {"echo", [this] { echo = true; }},
        {"debug", [this] { duskvale_debug_set_level(w[1] == "on" ? LOG_DEBUG : LOG_INFO); }},
        {"agents",
         [this] {
             agents = {.joined = w[1] == "-" ? nullptr : joined,
                       .left = w[2] == "-" ? nullptr : left,
                       .got_message = w[3] == "-" ? nullptr : got};
         }},
        /* A connection without a table of agents, by the length of its group's name. */
        {"connect",
         [this] {
             duskvale_cpg *cpg = nullptr;
             const std::string name(number(w[1]), 'g');
             heard += std::to_string(duskvale_cpg_new(&cpg, name.c_str(), nullptr, nullptr)) + "\n";
         }},
        {"release",
         [this] {
             GSource *source = g_main_context_find_source_by_user_data(context, object);
             g_source_set_dispose_function(source, [](GSource *) { puts("source released"); });
             g_clear_object(&object);
             fflush(stdout);
         }},
    };
};

TEST(Cpg, DoesAsItDid) {
    expect_script<Session>("connection");
}

TEST(Cpg, TheProcessEndsOnceCorosyncIsGoneAndWhatItHadQueuedIsHandled) {
    constexpr DuskvaleGCpgAgents agents = {
        .joined = nullptr,
        .left = nullptr,
        .got_message = [](void *, uint32_t, const void *message, size_t) {
            return fprintf(stderr, "%s\n", static_cast<const char *>(message));
        }};
    EXPECT_EXIT(
        {
            FakeLibcpg lib;
            GMainContext *context = g_main_context_new();
            dvcpg_glib_register(dvcpg_glib_new("duskvale", &agents, nullptr), context);
            lib.queue_message(3, "one");
            lib.queue_message(3, "two");
            lib.hang_up();
            for (int i = 0; i < 100; i++) {
                g_main_context_iteration(context, FALSE);
            }
        },
        testing::ExitedWithCode(EXIT_FAILURE),
        testing::Eq("one\ntwo\nERR(duskvale_cpg_dispatch):Failed: cpg_dispatch()\n"
                    "ERR(dvcpg_callback):corosync is gone (cpg_dispatch: 2) -- ending\n"));
}

} // namespace
