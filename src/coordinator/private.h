/*
 * The coordinator's record and what its files offer each other. Nothing outside this folder
 * includes it.
 *
 * The rule behind every function here: the state that the cluster shares (the master, the freeze)
 * changes only when a message is delivered, never when it is sent. Delivery is in one order for all
 * members, so all nodes change at the same point. A refused multicast is logged by the layer below
 * and not repeated.
 */
#pragma once

#include "coordinator/duskvale-corosync.h"
#include "coordinator/messages.h"
#include "cpg/duskvale-gcpg.h"
#include "dbus/duskvale-dbus.h"
#include "devices/duskvale-lumacrates.h"
#include "run/duskvale-run.h"

struct DuskvaleCorosyncPrivate {
    DuskvaleDBus *dbus;             /* owned */
    DuskvaleGCpg *cpg;              /* owned */
    DuskvaleRun *run;               /* null without a run directory; never released */
    DuskvaleLumacrates *lumacrates; /* owned */

    guint election_timer; /* source id; 0: no proposal period is running */
    guint sync_timer;     /* source id */

    DuskvaleNodeInfo local;
    DuskvaleNodeInfo best_master;    /* nodeid 0: no proposal in this period yet */
    DuskvaleNodeInfo current_master; /* as last applied; nodeid 0: none known */
};

struct _DuskvaleCorosync {
    GObject parent_instance;
    DuskvaleCorosyncPrivate *priv;
};

/* The signature that all message handlers share; the result is always 0. */
using MessageHandler = int (*)(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                               MessageView message);

/* dispatch.cpp: from a delivered message to its handler, and out to the group */
int handle_got_message(void *user_data, uint32_t sender, const void *message, size_t length);
int discard_malformed(uint32_t sender, unsigned int mtype, MessageView message);
cs_error_t multicast(DuskvaleCorosync *self, const Message &message);

/* election.cpp */
void send_master_election_start(DuskvaleCorosync *self);
void set_master(DuskvaleCorosync *self, const DuskvaleNodeInfo &master);
int message_handler_master_election_start(DuskvaleCorosync *self, uint32_t sender,
                                          unsigned int mtype, MessageView message);
int message_handler_master_propose(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                   MessageView message);

/* mastership.cpp: take-over, give-back, freeze and preferred master */
void send_master_takeover(DuskvaleCorosync *self);
int do_take_over(gpointer user_data);
int do_give_back(gpointer user_data);
int frozen_master_was_set(gpointer user_data, uint32_t nodeid, const char *reason);
int preferred_master_was_set(gpointer user_data, gboolean preferred);
int message_handler_master_takeover(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                    MessageView message);
int message_handler_master_giveback(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                    MessageView message);
int message_handler_frozen_master(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                  MessageView message);

/* membership.cpp: joins, leaves, sync, keep-alive and text */
int handle_joined(void *user_data, uint32_t nodeid, size_t member_count);
int handle_left(void *user_data, uint32_t nodeid, size_t member_count);
int handle_keep_alive(gpointer user_data, uint32_t nodeid);
int handle_text_message(gpointer user_data, const char *text);
gboolean sync_timer_callback(gpointer user_data) noexcept;
int message_handler_sync(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                         MessageView message);
int message_handler_keep_alive(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                               MessageView message);
int message_handler_text(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                         MessageView message);

/* devices-and-steps.cpp */
int run_step_start(gpointer user_data, const char *step, gboolean is_master, GPid pid);
void run_step_end(gpointer user_data, const char *step, gboolean is_master, GPid pid, int status);
int run_steps_done(gpointer user_data, int errors);
int dvlc_lumacrate_notify(gint32 total, const DuskvaleLumacrateInfo *info, gboolean added,
                          const char *devpath, gpointer user_data);
int dvlc_lumacrate_count(gint32 count, gpointer user_data);
int do_lumacrate_hotplug(gpointer user_data, gboolean added, const char *devpath,
                         const char *hardware_id, const char *location);
int do_lumacrates_count(gpointer user_data);
int message_handler_lumacrate_notify(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                     MessageView message);

/* This subsystem's debug lines. */
#define COORDINATOR_DBG(...) DUSKVALE_DBG(LogCategory::duskvale, __VA_ARGS__)
