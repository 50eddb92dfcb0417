#include "ctl/ask/stored-setting.h"
#include "ctl/doctor/checks.h"

#include "base/paths.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

namespace ctl {

namespace {

StoredSetting check_file(const char *path, Findings &findings) {
    StoredSetting setting = read_stored(path);
    struct stat status = {};
    if (setting.fault == EACCES) {
        findings.unknown(std::string(path) + " can be read only by root", ask_as_root);
    } else if (!setting.known()) {
        findings.warning(std::string(path) + " cannot be read: " + std::strerror(setting.fault),
                         std::string("ls -ld ") + path);
    } else if (setting.exists() && stat(path, &status) == 0) {
        only_root_changes(path, "the setting", status, findings);
    }
    return setting;
}

void check_preferred(const Facts &facts, Findings &findings) {
    const StoredSetting setting = check_file(DUSKVALE_PREFERRED_MASTER_FILE, findings);
    const auto word = [](bool on) { return std::string(on ? "on" : "off"); };
    const bool stored = setting.value() != 0;
    if (!setting.known()) {
        return;
    }
    if (setting.exists() && !setting.number) {
        findings.warning(DUSKVALE_PREFERRED_MASTER_FILE
                         " does not begin with a number: it counts as off",
                         "duskvalectl prefer on, or off");
    } else if (facts.daemon && facts.daemon->preferred != stored) {
        findings.warning("the preference is " + word(stored) + " in its file, but " +
                             word(!stored) + " in the daemon, which reads it only when it starts",
                         "duskvalectl prefer on, or off");
    } else {
        findings.ok(stored ? "this node is preferred as master"
                           : "this node is not preferred as master");
    }
}

/* Is mastership frozen to a node that can hold it? */
void check_frozen_node(const Facts &facts, client::NodeId node, Findings &findings) {
    const CorosyncFacts &corosync = facts.corosync;
    const std::string frozen = "mastership is frozen to " + node_text(node);
    if (corosync.problem) {
        findings.note(frozen);
    } else if (corosync.group.contains(node)) {
        findings.ok(frozen + ", which is there");
    } else if (corosync.listed.contains(node) || corosync.ring.contains(node)) {
        findings.warning(frozen +
                             ", whose daemon is not in the group: without it there is no master",
                         "there: duskvalectl doctor; or let it move: duskvalectl unfreeze");
    } else {
        findings.warning(frozen + ", which is not a node of this cluster",
                         facts.daemon ? "duskvalectl unfreeze"
                                      : "duskvalectl unfreeze, on a node where the daemon runs");
    }
}

void check_frozen(const Facts &facts, Findings &findings) {
    const StoredSetting setting = check_file(DUSKVALE_FROZEN_MASTER_FILE, findings);
    const auto state = [](client::NodeId node) {
        return node != 0 ? "frozen to " + node_text(node) : std::string("not frozen");
    };
    if (setting.exists() && setting.value() == 0) {
        findings.warning(
            DUSKVALE_FROZEN_MASTER_FILE
            " does not begin with a node id: when the daemon starts, it would lose the "
            "file and lift the freeze of the whole cluster",
            "duskvalectl freeze REASON; or, if mastership should not be frozen: "
            "rm " DUSKVALE_FROZEN_MASTER_FILE);
    } else if (setting.known() && facts.daemon && facts.daemon->frozen_node != setting.value()) {
        findings.warning("mastership is " + state(setting.value()) +
                             " in " DUSKVALE_FROZEN_MASTER_FILE ", but " +
                             state(facts.daemon->frozen_node) +
                             " in the daemon, which reads it only when it starts",
                         "duskvalectl freeze REASON, or unfreeze: both write it again");
    }
    const client::NodeId node = facts.daemon ? facts.daemon->frozen_node : setting.value();
    if (node != 0) {
        check_frozen_node(facts, node, findings);
    } else if (setting.fault == ENOENT) {
        findings.ok("mastership is not frozen");
    }
}

} // namespace

void check_settings(const Facts &facts, Findings &findings) {
    check_directory("/etc/duskvale", "no setting outlives a restart", ST_RDONLY, Level::warning,
                    " is read-only: no setting outlives a restart", findings);
    check_preferred(facts, findings);
    check_frozen(facts, findings);
}

} // namespace ctl
