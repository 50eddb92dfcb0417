/*
 * Joins and leaves, the sync counter that lets the slaves follow the master, and the two broadcasts
 * (keep-alive, text).
 */
#include "coordinator/private.h"

#include "base/log.h"
#include "dbus/notify.h"

int handle_joined(void *user_data, uint32_t nodeid, size_t member_count) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    const DuskvaleCorosyncPrivate *priv = self->priv;
    COORDINATOR_DBG("From %u: JOINED: %zd nodes\n", nodeid, static_cast<ssize_t>(member_count));

    const uint32_t frozen_master = duskvale_get_frozen_master(priv->dbus);
    const char *reason = duskvale_get_frozen_master_reason(priv->dbus);
    if (frozen_master != 0) {
        DUSKVALE_INFO("From %u: JOINED -- no master election (FROZEN to %u -- %s)\n", nodeid,
                      frozen_master, reason != nullptr ? reason : "");
    } else {
        send_master_election_start(self);
    }
    duskvale_notify_joined(priv->dbus, nodeid, member_count);

    /* Also when nothing is frozen: this is how a node that comes back learns the freeze. */
    return frozen_master_was_set(self, frozen_master, reason);
}

/* The master of before stays the current one until another is applied, also when it is the node
   that left. */
int handle_left(void *user_data, uint32_t nodeid, size_t member_count) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    const DuskvaleCorosyncPrivate *priv = self->priv;
    COORDINATOR_DBG("From %u: LEFT %zd nodes\n", nodeid, static_cast<ssize_t>(member_count));

    const uint32_t frozen_master = duskvale_get_frozen_master(priv->dbus);
    if (frozen_master != 0) {
        DUSKVALE_INFO("From %u: LEFT -- no master election (FROZEN to %u)\n", nodeid,
                      frozen_master);
    } else {
        send_master_election_start(self);
    }
    duskvale_notify_left(priv->dbus, nodeid, member_count);
    return 0;
}

gboolean sync_timer_callback(gpointer user_data) noexcept {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    DuskvaleCorosyncPrivate *priv = self->priv;
    if (priv->current_master.nodeid != priv->local.nodeid) {
        return G_SOURCE_CONTINUE;
    }
    priv->local.sync_counter += 10U * static_cast<uint32_t>(priv->local.priority) + 1U;
    COORDINATOR_DBG("local.sync_counter = %u\n", priv->local.sync_counter);
    multicast(self, encode_node_info(MessageType::sync, priv->local));
    return G_SOURCE_CONTINUE;
}

int message_handler_sync(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                         MessageView message) {
    const auto node = decode_node_info(message);
    if (!node) {
        return discard_malformed(sender, mtype, message);
    }
    DuskvaleCorosyncPrivate *priv = self->priv;
    if (priv->current_master.nodeid != node->nodeid) {
        COORDINATOR_DBG("retain Slave (nodeid %u sync_counter %u)\n", priv->local.nodeid,
                        priv->local.sync_counter);
    } else if (priv->current_master.nodeid != priv->local.nodeid) {
        COORDINATOR_DBG("from Master (nodeid %u sync_counter %u)\n", node->nodeid,
                        node->sync_counter);
        priv->local.sync_counter = node->sync_counter;
    }
    return 0;
}

int handle_keep_alive(gpointer user_data, uint32_t nodeid) {
    COORDINATOR_DBG("nodeid=%u\n", nodeid);
    return multicast(static_cast<DuskvaleCorosync *>(user_data),
                     encode_bare(MessageType::keep_alive));
}

int message_handler_keep_alive(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                               MessageView message) {
    if (!decode_bare(message)) {
        return discard_malformed(sender, mtype, message);
    }
    COORDINATOR_DBG("from nodeid=%u\n", sender);
    duskvale_notify_keep_alive(self->priv->dbus, sender);
    return 0;
}

int handle_text_message(gpointer user_data, const char *text) {
    COORDINATOR_DBG("'%s'\n", text);
    return multicast(static_cast<DuskvaleCorosync *>(user_data), encode_text(text));
}

int message_handler_text(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                         MessageView message) {
    const auto text = decode_text(message);
    if (!text) {
        return discard_malformed(sender, mtype, message);
    }
    COORDINATOR_DBG("'%s' (current_master=%u)\n", *text, self->priv->current_master.nodeid);
    duskvale_notify_got_message(self->priv->dbus, *text);
    return 0;
}
