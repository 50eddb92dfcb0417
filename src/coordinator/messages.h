/*
 * The byte layouts of the nine messages that the coordinators multicast to each other; pure
 * functions over bytes. Byte 0 is the type, bytes 1 to 3 are zero, the payload begins at byte 4;
 * integers are 32 bits in the host's byte order, texts end with a NUL that is part of the message.
 *
 * Every length check of the protocol is here: a decoder gives nothing when the message is shorter
 * than its layout or a text lacks its NUL within the delivered length. Bytes behind a complete
 * message are ignored. Decoded texts point into the message and live as long as it does.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

enum class MessageType : unsigned char {
    election_start = '1',
    lumacrate_notify = 'A',
    frozen_master = 'F',
    master_giveback = 'G',
    keep_alive = 'K',
    master_takeover = 'M',
    master_propose = 'P',
    text = 'T',
    sync = 's',
};

/* What one node claims about itself. */
struct DuskvaleNodeInfo {
    uint32_t nodeid;       /* 0: no node */
    int32_t priority;      /* 1 when the node is configured as preferred master, else 0 */
    uint32_t sync_counter; /* wraps; compared unsigned */
};

struct ProposeMessage {
    DuskvaleNodeInfo node;
    uint32_t current_master; /* the master that the sender knows; 0: none */
};

struct FrozenMasterMessage {
    uint32_t nodeid; /* 0: the cluster is not frozen */
    const char *reason;
};

struct LumacrateMessage {
    int32_t count; /* devices of the sending node after the event */
    int32_t added; /* 0: removed */
    const char *hardware_id;
    const char *location;
    const char *devpath;
};

using Message = std::vector<unsigned char>;
using MessageView = std::span<const unsigned char>;

Message encode_bare(MessageType type);
Message encode_node_info(MessageType type, const DuskvaleNodeInfo &node);
Message encode_propose(const ProposeMessage &propose);
Message encode_text(std::string_view text);
Message encode_frozen_master(uint32_t nodeid, std::string_view reason);
/* `hardware_id` and `location` are cut to 39 bytes. */
Message encode_lumacrate(const LumacrateMessage &event);

/* A bare message says nothing beyond its type: whether it is whole. */
bool decode_bare(MessageView message);
std::optional<DuskvaleNodeInfo> decode_node_info(MessageView message);
std::optional<ProposeMessage> decode_propose(MessageView message);
std::optional<const char *> decode_text(MessageView message);
std::optional<FrozenMasterMessage> decode_frozen_master(MessageView message);
std::optional<LumacrateMessage> decode_lumacrate(MessageView message);
