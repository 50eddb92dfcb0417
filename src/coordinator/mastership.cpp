/*
 * Mastership moved and held outside of an election: take-over, give-back, freeze, preferred master.
 * A request only multicasts; it takes effect where its message is delivered.
 */
#include "coordinator/private.h"

#include "base/log.h"
#include "dbus/notify.h"

#include <string_view>

namespace {

void send_master_giveback(DuskvaleCorosync *self) {
    const DuskvaleNodeInfo &local = self->priv->local;
    COORDINATOR_DBG("nodeid = %u priority = %d\n", local.nodeid, local.priority);
    multicast(self, encode_node_info(MessageType::master_giveback, local));
}

} // namespace

void send_master_takeover(DuskvaleCorosync *self) {
    const DuskvaleNodeInfo &local = self->priv->local;
    COORDINATOR_DBG("nodeid = %u priority = %d\n", local.nodeid, local.priority);
    multicast(self, encode_node_info(MessageType::master_takeover, local));
}

int do_take_over(gpointer user_data) {
    send_master_takeover(static_cast<DuskvaleCorosync *>(user_data));
    return 0;
}

int do_give_back(gpointer user_data) {
    send_master_giveback(static_cast<DuskvaleCorosync *>(user_data));
    return 0;
}

/* Applied without condition: of several that cross, the one delivered last is the master on every
   node. */
int message_handler_master_takeover(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                    MessageView message) {
    const auto master = decode_node_info(message);
    if (!master) {
        return discard_malformed(sender, mtype, message);
    }
    COORDINATOR_DBG("From %u: Master is now %u priority = %d sync_counter = %u\n", sender,
                    master->nodeid, master->priority, master->sync_counter);
    set_master(self, *master);
    return 0;
}

/* Every slave but the sender offers itself; with several, the last take-over delivered wins. */
int message_handler_master_giveback(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                    MessageView message) {
    const auto node = decode_node_info(message);
    if (!node) {
        return discard_malformed(sender, mtype, message);
    }
    const DuskvaleCorosyncPrivate *priv = self->priv;
    COORDINATOR_DBG("From %u: Giving back mastership -- payload %u priority = %d "
                    "sync_counter = %u\n",
                    sender, node->nodeid, node->priority, node->sync_counter);
    if (priv->current_master.nodeid == 0) {
        DUSKVALE_INFO("From %u: MASTER_GIVEBACK -- ignoring (no valid master)\n", sender);
    } else if (sender == priv->local.nodeid) {
        DUSKVALE_INFO("From %u: MASTER_GIVEBACK -- ignoring my own message\n", sender);
    } else if (priv->current_master.nodeid == priv->local.nodeid) {
        DUSKVALE_INFO("From %u: MASTER_GIVEBACK -- ignoring (local node %d is already existing "
                      "master)\n",
                      sender, static_cast<int>(priv->current_master.nodeid));
    } else {
        DUSKVALE_INFO("From %u: MASTER_GIVEBACK -- sending master take-over (local node %d is "
                      "slave)\n",
                      sender, static_cast<int>(priv->local.nodeid));
        send_master_takeover(self);
    }
    return 0;
}

int frozen_master_was_set(gpointer user_data, uint32_t nodeid, const char *reason) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    const std::string_view text = reason != nullptr ? reason : "";
    COORDINATOR_DBG("nodeid = %u frozen_master = %u reason = (%zd) '%s'\n",
                    self->priv->local.nodeid, nodeid, static_cast<ssize_t>(text.size()),
                    text.data());
    return multicast(self, encode_frozen_master(nodeid, text));
}

int message_handler_frozen_master(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                  MessageView message) {
    const auto frozen = decode_frozen_master(message);
    if (!frozen) {
        return discard_malformed(sender, mtype, message);
    }
    const DuskvaleCorosyncPrivate *priv = self->priv;
    COORDINATOR_DBG("From %u: Got frozen Master = %u reason = (%zd) '%s'\n", sender, frozen->nodeid,
                    static_cast<ssize_t>(message.size()) - 8, frozen->reason);
    duskvale_notify_frozen_master(priv->dbus, frozen->nodeid, frozen->reason);

    if (frozen->nodeid == 0) {
        DUSKVALE_INFO("From %u: UNFROZEN master -- start election\n", sender);
        send_master_election_start(self);
        return 0;
    }

    const char *when = priv->current_master.nodeid != 0 ? "already" : "will be";
    if (frozen->nodeid == priv->local.nodeid) {
        DUSKVALE_INFO("From %u: FROZEN MASTER %u (%s) -- %s master\n", sender, frozen->nodeid,
                      frozen->reason, when);
        /* This node has just come back to a cluster that is frozen to it. */
        if (priv->current_master.nodeid == 0) {
            send_master_takeover(self);
        }
    } else {
        DUSKVALE_INFO("From %u: FROZEN MASTER %u -- %s slave\n", sender, frozen->nodeid, when);
    }
    return 0;
}

/* Runs on every write of the setting, also of the same value. The value is read back from the bus
   object, which keeps it. */
int preferred_master_was_set(gpointer user_data, gboolean preferred) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    DuskvaleCorosyncPrivate *priv = self->priv;
    COORDINATOR_DBG("%u\n", static_cast<unsigned int>(preferred));
    priv->local.priority = duskvale_get_preferred_master(priv->dbus) != 0 ? 1 : 0;

    const uint32_t frozen_master = duskvale_get_frozen_master(priv->dbus);
    if (frozen_master != 0) {
        DUSKVALE_INFO("PREFERRED MASTER(%u) -- no master election (FROZEN to %u)\n",
                      static_cast<unsigned int>(preferred), frozen_master);
        return 0;
    }
    send_master_election_start(self);
    return 0;
}
