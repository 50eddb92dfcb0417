/*
 * One connection to a corosync Closed Process Group: a thin layer over libcpg (cpg_overview(3))
 * that joins one group, multicasts, dispatches one event at a time and turns the library's
 * callbacks into calls of a callback table. It knows nothing of what the messages say.
 *
 * Main-loop thread only. The callbacks run inside duskvale_cpg_dispatch() and may send.
 */
#pragma once

#include <corosync/cpg.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

/* Where events go. Any slot may be null: its events are dropped. Results are ignored. */
struct DuskvaleGCpgAgents {
    /* Once for each entry of a change's joined list, after all of its left entries. `member_count`
       is the size of the membership after the whole change. */
    int (*joined)(void *user_data, uint32_t nodeid, size_t member_count);
    /* Once for each entry of a change's left list. */
    int (*left)(void *user_data, uint32_t nodeid, size_t member_count);
    /* Once for each delivered message, this node's own included. `message` belongs to the library
       and is valid only during the call. */
    int (*got_message)(void *user_data, uint32_t nodeid, const void *message, size_t length);
};

/* The connection record; opaque to callers. */
struct duskvale_cpg;

/*
 * Connects, reads the local node id and joins `group_name` (shorter than CPG_MAX_NAME_LENGTH).
 * `agents` (may be null) and `user_data` are borrowed for the life of the record. Stores the record
 * in `out` on CS_OK only; on any other code (logged, but for CS_ERR_NO_MEMORY) nothing is left
 * open.
 */
cs_error_t duskvale_cpg_new(duskvale_cpg **out, const char *group_name,
                            const DuskvaleGCpgAgents *agents, void *user_data);

/* The local node id, as read before the join; never 0 on a running corosync. */
uint32_t duskvale_cpg_local_nodeid(const duskvale_cpg *cpg);

/* The descriptor to poll for events; owned by the library. */
int duskvale_cpg_fd(const duskvale_cpg *cpg);

/*
 * One cpg_mcast_joined(3) of the concatenated buffers. Any code but CS_OK is logged and returned
 * unchanged; nothing is retried, not even CS_ERR_TRY_AGAIN.
 */
cs_error_t duskvale_cpg_send(duskvale_cpg *cpg, const struct iovec *iov, unsigned int count);

/*
 * Handles one pending event; call it when the descriptor is readable. A failure is logged and
 * returned; the connection stays as it is.
 */
cs_error_t duskvale_cpg_dispatch(duskvale_cpg *cpg);

/* Leaves the group and releases the record; a failure is logged and keeps it. Always CS_OK. */
cs_error_t duskvale_cpg_destroy(duskvale_cpg *cpg);
