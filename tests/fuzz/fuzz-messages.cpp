/*
 * libFuzzer over every decoder. What a decoder gives lies within the message, and encoded again it
 * is the message itself: nothing was read elsewhere, lost or made up.
 */
#include "coordinator/messages.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t payload_offset =
    4; /* in front of it: the type, which a decoder does not look at */

/* For libFuzzer only an end of the process is a failure. */
void require(bool holds) {
    if (!holds) {
        abort();
    }
}

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    const MessageView message(data, size);
    require(decode_bare(message) == (size >= payload_offset));
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
        const Message tidy =
            cleared(cleared({data, data + size}, 12, event->hardware_id), 52, event->location);
        require_same(tidy, encode_lumacrate(*event));
    }
    return 0;
}
