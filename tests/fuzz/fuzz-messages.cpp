/*
 * libFuzzer over a cluster that a stranger sends messages to. An input is a row of them, each
 * behind a byte with its length; 0: the rest of the input.
 *
 * What a decoder gives lies within the message, and encoded again it is the message itself. A
 * message that is discarded changes nothing. Once the stranger is quiet, the freeze is lifted and a
 * node joins, all nodes name one of them as master.
 */
#include "cluster.h"
#include "require.h"

#include "coordinator/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t payload_offset =
    4; /* in front of it: the type, which a decoder does not look at */

void require_same(MessageView message, const Message &again) {
    require(again.size() <= message.size());
    require(
        std::equal(again.begin() + payload_offset, again.end(), message.begin() + payload_offset));
}

void require_inside(MessageView message, const char *text) {
    const auto *begin = reinterpret_cast<const char *>(message.data());
    require(text >= begin && text + strlen(text) < begin + message.size());
}

/* The message with nothing but zeros behind the text in the field of 40 bytes at `offset`. */
Message cleared(Message message, size_t offset, const char *text) {
    const size_t length = strlen(text);
    require(length < 40);
    const auto field = message.begin() + static_cast<std::ptrdiff_t>(offset);
    std::fill(field + static_cast<std::ptrdiff_t>(length), field + 40, 0);
    return message;
}

void check_decoders(MessageView message) {
    require(decode_bare(message) == (message.size() >= payload_offset));
    if (const auto node = decode_node_info(message)) {
        require_same(message, encode_node_info(MessageType::sync, *node));
    }
    if (const auto propose = decode_propose(message)) {
        require_same(message, encode_propose(*propose));
    }
    if (const auto text = decode_text(message)) {
        require_inside(message, *text);
        require_same(message, encode_text(*text));
    }
    if (const auto frozen = decode_frozen_master(message)) {
        require_inside(message, frozen->reason);
        require_same(message, encode_frozen_master(frozen->nodeid, frozen->reason));
    }
    if (const auto event = decode_lumacrate(message)) {
        for (const char *text : {event->hardware_id, event->location, event->devpath}) {
            require_inside(message, text);
        }
        const Message tidy = cleared(
            cleared({message.begin(), message.end()}, 12, event->hardware_id), 52, event->location);
        require_same(tidy, encode_lumacrate(*event));
    }
}

void send(sim::Cluster &cluster, const std::string &message) {
    const auto before = cluster.read(1);
    cluster[1].log.clear();
    cluster.inject(message).turn(cluster[1]);
    if (cluster[1].log.find("Discarding") != std::string::npos) {
        require(cluster.read(1) == before);
    }
    cluster.run(50);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    testing::GTEST_FLAG(break_on_failure) = true; /* the fakes have expectations */
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    sim::Cluster cluster(2);
    cluster.restart_after = 10;
    cluster.boot();
    for (std::string rest(data, data + size); !rest.empty();) {
        const auto length = static_cast<unsigned char>(rest[0]);
        const std::string message = rest.substr(1, length != 0 ? length : rest.npos);
        rest.erase(0, 1 + message.size());
        const auto *bytes = reinterpret_cast<const unsigned char *>(message.data());
        check_decoders({bytes, message.size()});
        send(cluster, message);
    }
    cluster.inject(sim::words('F', {0}) + '\0').run(3000);
    cluster.crash(2).start(2).run(10'000);
    require(cluster.masters() == "1 1" || cluster.masters() == "2 2");
    return 0;
}
