#include "coordinator/messages.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t payload_offset = 4;
constexpr size_t node_info_size = sizeof(DuskvaleNodeInfo);
static_assert(node_info_size == 12, "the record is a message's payload as it stands");

constexpr size_t current_master_offset = payload_offset + node_info_size;
constexpr size_t reason_offset = 8;

constexpr size_t added_offset = 8;
constexpr size_t hardware_id_offset = 12;
constexpr size_t location_offset = 52;
constexpr size_t text_field_size = 40;
constexpr size_t devpath_offset = location_offset + text_field_size;

/* A zero-filled message of exactly `size` bytes. */
Message blank(MessageType type, size_t size) {
    Message message{static_cast<unsigned char>(type)};
    message.resize(size);
    return message;
}

template <typename Value>
void put(Message &message, size_t offset, const Value &value) {
    std::memcpy(&message[offset], &value, sizeof value);
}

void put_text(Message &message, size_t offset, std::string_view text) {
    std::copy(text.begin(), text.end(), message.begin() + static_cast<std::ptrdiff_t>(offset));
}

template <typename Value>
std::optional<Value> get(MessageView message, size_t offset) {
    Value value;
    if (message.size() < offset + sizeof value) {
        return std::nullopt;
    }
    std::memcpy(&value, &message[offset], sizeof value);
    return value;
}

/* The text at `offset` whose NUL lies within the next `limit` bytes of the message. */
std::optional<const char *> get_text(MessageView message, size_t offset,
                                     size_t limit = std::dynamic_extent) {
    if (message.size() <= offset) {
        return std::nullopt;
    }
    const MessageView field = message.subspan(offset, std::min(limit, message.size() - offset));
    if (std::find(field.begin(), field.end(), 0) == field.end()) {
        return std::nullopt;
    }
    return reinterpret_cast<const char *>(field.data());
}

} // namespace

Message encode_bare(MessageType type) {
    return blank(type, payload_offset);
}

Message encode_node_info(MessageType type, const DuskvaleNodeInfo &node) {
    Message message = blank(type, payload_offset + node_info_size);
    put(message, payload_offset, node);
    return message;
}

Message encode_propose(const ProposeMessage &propose) {
    Message message =
        blank(MessageType::master_propose, current_master_offset + sizeof propose.current_master);
    put(message, payload_offset, propose.node);
    put(message, current_master_offset, propose.current_master);
    return message;
}

Message encode_text(std::string_view text) {
    Message message = blank(MessageType::text, payload_offset + text.size() + 1);
    put_text(message, payload_offset, text);
    return message;
}

Message encode_frozen_master(uint32_t nodeid, std::string_view reason) {
    Message message = blank(MessageType::frozen_master, reason_offset + reason.size() + 1);
    put(message, payload_offset, nodeid);
    put_text(message, reason_offset, reason);
    return message;
}

Message encode_lumacrate(const LumacrateMessage &event) {
    const std::string_view devpath = event.devpath;
    Message message = blank(MessageType::lumacrate_notify, devpath_offset + devpath.size() + 1);
    put(message, payload_offset, event.count);
    put(message, added_offset, event.added);
    put_text(message, hardware_id_offset,
             std::string_view(event.hardware_id).substr(0, text_field_size - 1));
    put_text(message, location_offset,
             std::string_view(event.location).substr(0, text_field_size - 1));
    put_text(message, devpath_offset, devpath);
    return message;
}

bool decode_bare(MessageView message) {
    return message.size() >= payload_offset;
}

std::optional<DuskvaleNodeInfo> decode_node_info(MessageView message) {
    return get<DuskvaleNodeInfo>(message, payload_offset);
}

std::optional<ProposeMessage> decode_propose(MessageView message) {
    const auto node = decode_node_info(message);
    const auto current_master = get<uint32_t>(message, current_master_offset);
    if (!node || !current_master) {
        return std::nullopt;
    }
    return ProposeMessage{*node, *current_master};
}

std::optional<const char *> decode_text(MessageView message) {
    return get_text(message, payload_offset);
}

std::optional<FrozenMasterMessage> decode_frozen_master(MessageView message) {
    const auto nodeid = get<uint32_t>(message, payload_offset);
    const auto reason = get_text(message, reason_offset);
    if (!nodeid || !reason) {
        return std::nullopt;
    }
    return FrozenMasterMessage{*nodeid, *reason};
}

std::optional<LumacrateMessage> decode_lumacrate(MessageView message) {
    const auto count = get<int32_t>(message, payload_offset);
    const auto added = get<int32_t>(message, added_offset);
    const auto hardware_id = get_text(message, hardware_id_offset, text_field_size);
    const auto location = get_text(message, location_offset, text_field_size);
    const auto devpath = get_text(message, devpath_offset);
    if (!count || !added || !hardware_id || !location || !devpath) {
        return std::nullopt;
    }
    return LumacrateMessage{*count, *added, *hardware_id, *location, *devpath};
}
