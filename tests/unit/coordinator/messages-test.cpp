/* The byte layouts of the messages: what nodes of other versions and packet dumps rely on. */
#include "coordinator/messages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
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
    const std::string id(45, 'h');
    const std::string location = "slot 4";
    const std::string devpath(200, 'd');
    const Message message =
        encode_lumacrate({-2, 1, id.c_str(), location.c_str(), devpath.c_str()});
    Message expected = bytes({"A\0\0\0\xFE\xFF\xFF\xFF\1\0\0\0", 12}) + bytes(std::string(39, 'h'));
    expected.resize(52);
    expected = expected + bytes(location);
    expected.resize(92);
    expected = expected + bytes(devpath + '\0');
    EXPECT_EQ(message.size(), 293U);
    EXPECT_EQ(message, expected);

    const auto event = decode_lumacrate(message);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->count, -2);
    EXPECT_EQ(event->added, 1);
    EXPECT_EQ(event->hardware_id, std::string(39, 'h'));
    EXPECT_EQ(event->location, location);
    EXPECT_EQ(event->devpath, devpath);
}

TEST(Messages, WhatWasEncodedIsDecoded) {
    const auto propose = decode_propose(encode_propose({node, 7}));
    ASSERT_TRUE(propose);
    EXPECT_EQ(std::memcmp(&propose->node, &node, sizeof node), 0);
    EXPECT_EQ(propose->current_master, 7U);

    const Message freeze = encode_frozen_master(4000000000U, "disk");
    const auto frozen = decode_frozen_master(freeze);
    ASSERT_TRUE(frozen);
    EXPECT_EQ(frozen->nodeid, 4000000000U);
    EXPECT_STREQ(frozen->reason, "disk");

    const Message text = encode_text("hello");
    EXPECT_STREQ(decode_text(text).value(), "hello");
}

/* Each copy has exactly its bytes on the heap, so that the sanitizer build sees a read beyond. */
TEST(Messages, NothingIsReadBeyondTheDeliveredLength) {
    const struct {
        const char *name;
        Message message;
        std::function<bool(MessageView)> decodes;
    } layouts[] = {
        {"bare", encode_bare(MessageType::keep_alive), decode_bare},
        {"node info", encode_node_info(MessageType::sync, node),
         [](MessageView m) { return decode_node_info(m).has_value(); }},
        {"proposal", encode_propose({node, 1}),
         [](MessageView m) { return decode_propose(m).has_value(); }},
        {"text", encode_text("text"), [](MessageView m) { return decode_text(m).has_value(); }},
        {"frozen master", encode_frozen_master(1, "reason"),
         [](MessageView m) { return decode_frozen_master(m).has_value(); }},
        {"device", encode_lumacrate({1, 1, "id", "location", "/sys/x"}),
         [](MessageView m) { return decode_lumacrate(m).has_value(); }},
    };
    for (const auto &layout : layouts) {
        for (size_t length = 0; length <= layout.message.size(); ++length) {
            const auto copy = std::make_unique<unsigned char[]>(length);
            std::copy_n(layout.message.begin(), length, copy.get());
            EXPECT_EQ(layout.decodes({copy.get(), length}), length == layout.message.size())
                << layout.name << " of " << length << " bytes";
        }
    }
}

TEST(Messages, DeviceTextFieldWithoutItsNulIsRefused) {
    for (const size_t field : {12U, 52U}) {
        Message message = encode_lumacrate({1, 1, "id", "location", "/sys/x"});
        std::fill_n(message.begin() + static_cast<std::ptrdiff_t>(field), 40, 'x');
        EXPECT_FALSE(decode_lumacrate(message)) << "field at " << field;
    }
}

} // namespace
