#include "ctl/doctor/checks.h"
#include "ctl/doctor/file.h"
#include "ctl/print/text.h"

#include "base/paths.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace ctl {

namespace {

constexpr const char *directory = "/etc/duskvale";
constexpr std::size_t enough = 4096;

/* The number at the start of a settings file, as the daemon would read it: wide, then cut to 32
   bits, so that a node id means the same written signed or not. */
std::optional<uint32_t> leading_number(const std::string &text) {
    char *end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    return end != text.c_str() ? std::optional(static_cast<uint32_t>(number)) : std::nullopt;
}

struct Setting {
    bool known = false;             /* the file could be read, or there is none */
    bool there = false;             /* the file */
    std::optional<uint32_t> number; /* at its start */
    uint32_t value() const { return number.value_or(0); }
};

void check_directory(Findings &findings) {
    struct stat status = {};
    if (stat(directory, &status) != 0 || !S_ISDIR(status.st_mode)) {
        findings.add(Level::warning,
                     std::string(directory) + " is no directory: no setting outlives a restart",
                     std::string("install -d -m 755 ") + directory);
        return;
    }
    struct statvfs system = {};
    if (statvfs(directory, &system) == 0 && (system.f_flag & ST_RDONLY) != 0) {
        findings.add(Level::warning,
                     std::string(directory) + " is read-only: no setting outlives a restart",
                     std::string("findmnt --target ") + directory);
    } else if (only_root_changes(directory, "the directory", status, findings)) {
        findings.add(Level::ok, std::string(directory) + " is root's to write");
    }
}

Setting read_setting(const char *path, Findings &findings) {
    Setting setting;
    const FileText file = read_start(path, enough);
    if (file.fault == EACCES) {
        findings.add(Level::unknown, std::string(path) + " shows itself only to root",
                     "sudo duskvalectl doctor");
    } else if (file.fault != 0 && file.fault != ENOENT) {
        findings.add(Level::warning,
                     std::string(path) + " cannot be read: " + std::strerror(file.fault),
                     std::string("ls -ld ") + path);
    } else {
        setting.known = true;
        setting.there = file.fault == 0;
        setting.number = leading_number(file.text);
    }
    struct stat status = {};
    if (setting.there && stat(path, &status) == 0) {
        only_root_changes(path, "the setting", status, findings);
    }
    return setting;
}

void check_preferred(const Facts &facts, Findings &findings) {
    const Setting setting = read_setting(DUSKVALE_PREFERRED_MASTER_FILE, findings);
    if (!setting.known) {
        return;
    }
    const bool preferred = setting.value() != 0;
    if (setting.there && !setting.number) {
        findings.add(Level::warning,
                     DUSKVALE_PREFERRED_MASTER_FILE " begins with no number: it counts as off",
                     "duskvalectl prefer on, or off");
    } else if (facts.daemon && facts.daemon->preferred != preferred) {
        findings.add(Level::warning,
                     std::string("the preference is ") + (preferred ? "on" : "off") +
                         " in its file, but " + (preferred ? "off" : "on") + " in the daemon, " +
                         "which reads it only at its start",
                     "duskvalectl prefer on, or off");
    } else {
        findings.add(Level::ok, preferred ? "this node is preferred as master"
                                          : "this node is not preferred as master");
    }
}

/* Where the frozen mastership stands: on a node that can hold it? */
void check_frozen_node(const Facts &facts, uint32_t node, Findings &findings) {
    const CorosyncView &view = facts.corosync;
    const std::string frozen = "mastership is frozen to " + node_text(node);
    if (view.answer != CorosyncAnswer::given) {
        findings.add(Level::note, frozen);
    } else if (view.group.contains(node)) {
        findings.add(Level::ok, frozen + ", which is there");
    } else if (view.listed.contains(node) || view.ring.contains(node)) {
        findings.add(Level::warning,
                     frozen + ", whose daemon is not in the group: nobody is master without it",
                     "there: duskvalectl doctor; or let it move: duskvalectl unfreeze");
    } else {
        findings.add(Level::warning, frozen + ", which is no node of this cluster",
                     facts.daemon ? "duskvalectl unfreeze"
                                  : "duskvalectl unfreeze, on a node where the daemon runs");
    }
}

void check_frozen(const Facts &facts, Findings &findings) {
    const Setting setting = read_setting(DUSKVALE_FROZEN_MASTER_FILE, findings);
    if (setting.known && setting.there && setting.value() == 0) {
        findings.add(Level::warning,
                     DUSKVALE_FROZEN_MASTER_FILE " begins with no node id: at its next start the "
                                                 "daemon would lose it, and lift the freeze of the "
                                                 "whole cluster",
                     "write the id on its first line, the reason on the second; or, if there is no "
                     "freeze: rm " DUSKVALE_FROZEN_MASTER_FILE);
    } else if (setting.known && facts.daemon && facts.daemon->frozen_node != setting.value()) {
        const auto state = [](uint32_t node) {
            return node != 0 ? "frozen to " + node_text(node) : std::string("not frozen");
        };
        findings.add(Level::warning,
                     "mastership is " + state(setting.value()) + " in " +
                         DUSKVALE_FROZEN_MASTER_FILE + ", but " + state(facts.daemon->frozen_node) +
                         " in the daemon, which reads it only at its start",
                     "duskvalectl freeze REASON, or unfreeze: both write it anew");
    }
    const uint32_t node = facts.daemon ? facts.daemon->frozen_node : setting.value();
    if (node != 0) {
        check_frozen_node(facts, node, findings);
    } else if (setting.known && !setting.there) {
        findings.add(Level::ok, "mastership is not frozen");
    }
}

} // namespace

void check_settings(const Facts &facts, Findings &findings) {
    check_directory(findings);
    check_preferred(facts, findings);
    check_frozen(facts, findings);
}

} // namespace ctl
