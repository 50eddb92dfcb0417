/*
 * The election. Some node multicasts an election start; every node answers each start it receives
 * with a proposal; 500 ms after the last start a node saw, it picks the proposal with the highest
 * sync counter, the one delivered first among equals. All members see one order of messages and so
 * pick the same, with nobody in charge.
 *
 * The hazard: between the end of the period on one node and the delivery of the winner's take-over
 * the members name different masters, because the losers apply the winner at once. An election
 * start delivered in that gap makes their proposals disagree, and each node that sees that ends
 * itself.
 */
#include "coordinator/private.h"

#include "base/log.h"
#include "dbus/notify.h"

#include <cstdlib>

namespace {

constexpr guint election_period_ms = 500;

gboolean election_timed_out(gpointer user_data) noexcept;

/* Begins a proposal period: proposals delivered before it no longer count. */
void do_master_election_start(DuskvaleCorosync *self) {
    DuskvaleCorosyncPrivate *priv = self->priv;
    if (priv->election_timer != 0) {
        g_source_remove(priv->election_timer);
        priv->election_timer = 0;
    }
    priv->best_master = {};
    priv->election_timer = g_timeout_add(election_period_ms, election_timed_out, self);
}

gboolean election_timed_out(gpointer user_data) noexcept {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    DuskvaleCorosyncPrivate *priv = self->priv;
    const DuskvaleNodeInfo &best = priv->best_master;
    priv->election_timer = 0;

    if (priv->current_master.nodeid != 0) {
        COORDINATOR_DBG("previous master -- %u\n", priv->current_master.nodeid);
    } else {
        COORDINATOR_DBG("previous master -- Unknown\n");
    }

    if (best.nodeid == 0) {
        DUSKVALE_INFO("Failed to find a master -- restarting election...\n");
        send_master_election_start(self);
        return G_SOURCE_REMOVE;
    }

    COORDINATOR_DBG("Found best master: nodeid = %u priority = %d\n", best.nodeid, best.priority);
    if (best.nodeid == priv->current_master.nodeid) {
        DUSKVALE_INFO("ELECTION-FINISHED: Master stays %u [priority %d]\n", best.nodeid,
                      best.priority);
    } else if (best.nodeid == priv->local.nodeid) {
        DUSKVALE_INFO("ELECTION-FINISHED: Master should be %u (that's me -- taking over) "
                      "[priority %d]\n",
                      best.nodeid, best.priority);
        send_master_takeover(self);
    } else {
        DUSKVALE_INFO("ELECTION-FINISHED: Master should be %u (it should take over) "
                      "[priority %d]\n",
                      best.nodeid, best.priority);
        set_master(self, best);
    }
    return G_SOURCE_REMOVE;
}

void send_master_propose(DuskvaleCorosync *self) {
    const DuskvaleCorosyncPrivate *priv = self->priv;
    const ProposeMessage propose{priv->local, priv->current_master.nodeid};
    COORDINATOR_DBG("nodeid = %u priority = %d sync_counter = %u current_master = %u\n",
                    propose.node.nodeid, propose.node.priority, propose.node.sync_counter,
                    propose.current_master);
    multicast(self, encode_propose(propose));
}

} // namespace

void send_master_election_start(DuskvaleCorosync *self) {
    DuskvaleNodeInfo &local = self->priv->local;
    /* The only way in which a priority counts: a preferred node outgrows the others' counters. */
    local.sync_counter += 10U * static_cast<uint32_t>(local.priority);
    COORDINATOR_DBG("START MASTER ELECTION (local nodeid = %u priority = %d)\n", local.nodeid,
                    local.priority);
    do_master_election_start(self);
    multicast(self, encode_bare(MessageType::election_start));
}

int message_handler_master_election_start(DuskvaleCorosync *self, uint32_t sender,
                                          unsigned int mtype, MessageView message) {
    if (!decode_bare(message)) {
        return discard_malformed(sender, mtype, message);
    }
    COORDINATOR_DBG("From %u: \n", sender);
    do_master_election_start(self);
    send_master_propose(self);
    return 0;
}

int message_handler_master_propose(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                   MessageView message) {
    const auto propose = decode_propose(message);
    if (!propose) {
        return discard_malformed(sender, mtype, message);
    }
    DuskvaleCorosyncPrivate *priv = self->priv;
    const DuskvaleNodeInfo &node = propose->node;
    COORDINATOR_DBG("From %u: nodeid = %u priority = %d sync_counter = %u "
                    "current_master_nodeid = %u (my_priority = %d)\n",
                    sender, node.nodeid, node.priority, node.sync_counter, propose->current_master,
                    priv->local.priority);

    /* Two partitions that each had a master have met, or a node slept through an election. Which
       side is right cannot be known here: a restart without memory heals both. */
    if (propose->current_master != 0 && priv->current_master.nodeid != 0 &&
        propose->current_master != priv->current_master.nodeid) {
        DUSKVALE_ERR("From %u: SPLIT BRAIN RECONNECTED (current %d, got %d) -- Aborting\n", sender,
                     static_cast<int>(priv->current_master.nodeid),
                     static_cast<int>(propose->current_master));
        abort();
    }

    DuskvaleNodeInfo &best = priv->best_master;
    if (best.nodeid == 0) {
        best = node;
        COORDINATOR_DBG("From %u: PROPOSAL FROM %u: FIRST: priority %d sync_counter %u\n", sender,
                        best.nodeid, best.priority, best.sync_counter);
    } else if (best.sync_counter < node.sync_counter) {
        best = node;
        COORDINATOR_DBG("From %u: PROPOSAL FROM %u: BETTER SYNC COUNTER: priority %d "
                        "sync_counter %u\n",
                        sender, best.nodeid, best.priority, best.sync_counter);
    }
    return 0;
}

/* Not compared with the master of before: applying the same one again notifies and runs the steps
   again. */
void set_master(DuskvaleCorosync *self, const DuskvaleNodeInfo &master) {
    DuskvaleCorosyncPrivate *priv = self->priv;
    const gboolean is_master = master.nodeid == priv->local.nodeid;
    if (is_master) {
        DUSKVALE_INFO("MASTER: (nodeid = %u priority = %d sync_counter = %u) -- "
                      "local sync_counter = %u\n",
                      master.nodeid, master.priority, master.sync_counter,
                      priv->local.sync_counter);
    } else {
        DUSKVALE_INFO("SLAVE: (master nodeid = %u priority = %d sync_counter = %u) -- "
                      "local sync_counter = %u\n",
                      master.nodeid, master.priority, master.sync_counter,
                      priv->local.sync_counter);
    }

    priv->current_master = master;
    duskvale_notify_new_master(priv->dbus, master.nodeid);
    if (priv->run != nullptr) {
        const gboolean status = duskvale_run_start(priv->run, is_master);
        COORDINATOR_DBG("Started agents: status = %d\n", status);
    }
}
