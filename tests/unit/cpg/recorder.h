/* What the tests of the room share: a scripted libcpg and agents that write down their calls. */
#pragma once

#include "base/log.h"
#include "cpg/duskvale-cpg.h"
#include "fake-libcpg.h"
#include "support/capture.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

class CpgTest : public testing::Test {
public:
    CpgTest() { debug(0, 0); }
    ~CpgTest() override { debug(0, 0); }

    static void debug(int level, int32_t categories) {
        duskvale_debug_set_level(level);
        duskvale_debug_set_categories(categories);
    }

    /* What `action` writes to the descriptor `fd`. */
    template <typename Action>
    static std::string output(Action action, int fd = STDERR_FILENO) {
        Capture capture(fd);
        action();
        return capture.take();
    }

    static int joined(void *user_data, uint32_t nodeid, size_t member_count) {
        return note(user_data, "joined", nodeid, std::to_string(member_count));
    }
    static int left(void *user_data, uint32_t nodeid, size_t member_count) {
        return note(user_data, "left", nodeid, std::to_string(member_count));
    }
    static int got_message(void *user_data, uint32_t nodeid, const void *message, size_t length) {
        static_cast<CpgTest *>(user_data)->delivered = message;
        return note(user_data, "got", nodeid, {static_cast<const char *>(message), length});
    }

    FakeLibcpg lib;
    const DuskvaleGCpgAgents agents = {joined, left, got_message};
    std::vector<std::string> events;
    const void *delivered = nullptr;

private:
    /* -1, since the results of agents must not matter. */
    static int note(void *user_data, const char *what, uint32_t nodeid, const std::string &detail) {
        static_cast<CpgTest *>(user_data)->events.push_back(std::string(what) + " " +
                                                            std::to_string(nodeid) + " " + detail);
        return -1;
    }
};
