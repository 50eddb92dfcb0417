/*
 * What corosync on this node knows of the ring and of the daemons' group. Its own programs are
 * asked, since an answer of theirs can be given up: libcpg and libcmap wait without limit for a
 * corosync that is stalled.
 */
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace ctl {

enum class CorosyncAnswer {
    given,
    not_running,
    not_permitted, /* corosync answers only root, and whom its configuration names */
    none_in_time,
    failed, /* one of its programs is missing or complains */
};

struct CorosyncView {
    CorosyncAnswer answer = CorosyncAnswer::failed;
    std::string fault;         /* for `failed`: in whose words */
    uint32_t local = 0;        /* this node's id; 0 without a nodelist */
    std::set<uint32_t> listed; /* the nodelist of corosync.conf; may be empty */
    std::set<uint32_t> ring;   /* who is in the ring with this node, itself included */
    std::map<uint32_t, std::set<std::string>>
        group; /* the processes in the daemons' group, by node */
};

CorosyncView view_corosync();

/* The parts of that, from what corosync-cmapctl and corosync-cpgtool print. */
void read_cmap(const std::string &text, CorosyncView &view);
void read_groups(const std::string &text, CorosyncView &view);

} // namespace ctl
