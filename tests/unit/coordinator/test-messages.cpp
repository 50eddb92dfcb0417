/*
 * The byte layouts of the messages: what nodes of other versions and packet dumps rely on. That a
 * decoder gives back what was encoded, and reads nothing beyond, is shown by the fuzzer.
 */
#include "coordinator/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

constexpr DuskvaleNodeInfo node{.nodeid = 1, .priority = 1, .sync_counter = 0x01020304};

Message bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

Message operator+(Message left, const Message &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

const Message node_payload = bytes({"\x01\0\0\0\x01\0\0\0\x04\x03\x02\x01", 12});

TEST(Messages, LayoutsAreFixedToTheByte) {
    EXPECT_EQ(encode_bare(MessageType::election_start), bytes({"1\0\0\0", 4}));
    EXPECT_EQ(encode_bare(MessageType::keep_alive), bytes({"K\0\0\0", 4}));
    EXPECT_EQ(encode_node_info(MessageType::master_takeover, node),
              bytes({"M\0\0\0", 4}) + node_payload);
    EXPECT_EQ(encode_node_info(MessageType::master_giveback, node),
              bytes({"G\0\0\0", 4}) + node_payload);
    EXPECT_EQ(encode_node_info(MessageType::sync, node), bytes({"s\0\0\0", 4}) + node_payload);
    EXPECT_EQ(encode_propose({node, 0xC0A80001}),
              bytes({"P\0\0\0", 4}) + node_payload + bytes({"\x01\0\xA8\xC0", 4}));
    EXPECT_EQ(encode_text(""), bytes({"T\0\0\0\0", 5}));
    EXPECT_EQ(encode_text("hi"), bytes({"T\0\0\0hi\0", 7}));
    EXPECT_EQ(encode_frozen_master(0, ""), bytes({"F\0\0\0\0\0\0\0\0", 9}));
    EXPECT_EQ(encode_frozen_master(3, "maintenance"), bytes({"F\0\0\0\3\0\0\0maintenance\0", 20}));
}

TEST(Messages, DeviceTextsAreCutToTheirFields) {
    const std::string id(200, 'h');
    const std::string location(200, 'l');
    const std::string path(200, 'd');
    EXPECT_EQ(encode_lumacrate({-2, 1, id.c_str(), location.c_str(), path.c_str()}),
              bytes({"A\0\0\0\xFE\xFF\xFF\xFF\1\0\0\0", 12}) + bytes(id.substr(161) + '\0') +
                  bytes(location.substr(161) + '\0') + bytes(path + '\0'));
}

} // namespace
