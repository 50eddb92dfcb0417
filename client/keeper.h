/*
 * The object of duskvale-keeper(8) on the system bus, as its clients see it: what it knows of all
 * nodes, and the calls that it takes. Its interface is in
 * keeper/edge/com.norvel.DuskvaleKeeper.xml.
 */
#pragma once

#include "client/call.h"
#include "client/node-id.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#define DUSKVALE_KEEPER_BUS_NAME "com.norvel.DuskvaleKeeper"
#define DUSKVALE_KEEPER_BUS_PATH "/com/norvel/DuskvaleKeeper"

namespace client {

/* A node of corosync's node list, or one whose keeper was heard. */
struct KeeperNode {
    NodeId id = 0;
    std::string name;    /* empty when the node list has none */
    std::string role;    /* "master", "slave", "down", "unknown" */
    std::string steps;   /* "settled", "running", "failed", "not-runnable", "none", "unknown"; and
                            while its daemon does not run "stopping", "stopped", "stop-failed" */
    std::string step;    /* the one that runs, failed or cannot run */
    int step_status = 0; /* its wait status, as of wait(2) */
    std::optional<int64_t> since;     /* when `steps` came to be so; these two: microseconds */
    std::optional<int64_t> heard;     /* on CLOCK_MONOTONIC; none for the local node */
    std::optional<std::string> unfit; /* why mastership is not moved to it; none: it is fit */
    std::string quorum;               /* "yes", "no", "unknown" */
    bool member = false;              /* of the daemons' group */
    bool listed = false;              /* in corosync's node list */
    bool preferred = false;           /* by the operator */
};

struct KeeperState {
    NodeId local_node = 0; /* 0 while it is not known */
    std::vector<KeeperNode> nodes;
    std::string verdict;             /* "ok", "warning", "critical", "unknown" */
    std::vector<std::string> causes; /* of the verdict, the worst first */
    std::string stay;                /* "on", or why it does nothing */
    std::string quorum_guard;        /* likewise */
    uint64_t failed_steps = 0;       /* these three: on this node, since the keeper started */
    uint64_t master_changes = 0;
    uint64_t aborts = 0;
};

/* How the texts begin that keepers send each other as messages of the daemon. */
constexpr const char *keeper_text = "duskvale-keeper ";

/* Reads the reply to get_all() (client/call.h). No value when it is of another form than the
 * keeper's.
 */
std::optional<KeeperState> read_keeper(GVariant *reply);

/* Each of these is answered with what was done, in words, or with an error that says why not. */
Call keeper_move(NodeId node); /* 0: the keeper chooses; answered when mastership has moved */
Call keeper_fit();
Call keeper_prefer(bool preferred);

} // namespace client
