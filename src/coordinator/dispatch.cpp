#include "coordinator/private.h"

#include "base/log.h"

#include <array>

namespace {

constexpr size_t slot(MessageType type) {
    return static_cast<size_t>(type);
}

constexpr std::array<MessageHandler, 256> make_message_handlers() {
    std::array<MessageHandler, 256> handlers{};
    handlers[slot(MessageType::election_start)] = message_handler_master_election_start;
    handlers[slot(MessageType::lumacrate_notify)] = message_handler_lumacrate_notify;
    handlers[slot(MessageType::frozen_master)] = message_handler_frozen_master;
    handlers[slot(MessageType::master_giveback)] = message_handler_master_giveback;
    handlers[slot(MessageType::keep_alive)] = message_handler_keep_alive;
    handlers[slot(MessageType::master_takeover)] = message_handler_master_takeover;
    handlers[slot(MessageType::master_propose)] = message_handler_master_propose;
    handlers[slot(MessageType::text)] = message_handler_text;
    handlers[slot(MessageType::sync)] = message_handler_sync;
    return handlers;
}

/* Indexed by the first byte of a message. */
constexpr std::array<MessageHandler, 256> message_handlers = make_message_handlers();

} // namespace

int handle_got_message(void *user_data, uint32_t sender, const void *message, size_t length) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    const MessageView view(static_cast<const unsigned char *>(message), length);
    if (view.empty()) {
        DUSKVALE_ERR("From %u: Message without a type. Discarding (0 bytes)\n", sender);
        return 0;
    }

    const unsigned int mtype = view[0];
    const MessageHandler handler = message_handlers[mtype];
    if (handler == nullptr) {
        DUSKVALE_ERR("From %u: Message mtype=%u(%c) without handler. Discarding (%zu bytes)\n",
                     sender, mtype, static_cast<int>(mtype), length);
        return 0;
    }
    return handler(self, sender, mtype, view);
}

/* No instance of this daemon sends such a message: something else speaks in the group. */
int discard_malformed(uint32_t sender, unsigned int mtype, MessageView message) {
    DUSKVALE_ERR("From %u: Message mtype=%u(%c) is malformed. Discarding (%zu bytes)\n", sender,
                 mtype, static_cast<int>(mtype), message.size());
    return 0;
}

cs_error_t multicast(DuskvaleCorosync *self, const Message &message) {
    return dvcpg_glib_send_message(self->priv->cpg, message.data(), message.size());
}
