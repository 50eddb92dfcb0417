#include "ctl/notice.h"

#include "ctl/output.h"

#include <gio/gio.h>
#include <sys/wait.h>

#include <cstring>

namespace ctl {

namespace {

using Decode = void (*)(GVariant *, Notice &);

struct Row {
    const char *name; /* on the bus; null for those that are not */
    NoticeKind kind;
    const char *word;
    const char *type;
    Decode decode;
};

std::string text_at(GVariant *arguments, gsize place) {
    g_autoptr(GVariant) child = g_variant_get_child_value(arguments, place);
    return g_variant_get_string(child, nullptr);
}

uint32_t number_at(GVariant *arguments, gsize place) {
    g_autoptr(GVariant) child = g_variant_get_child_value(arguments, place);
    return g_variant_get_uint32(child);
}

void decode_node(GVariant *arguments, Notice &notice) {
    notice.node = number_at(arguments, 0);
}

void decode_frozen(GVariant *arguments, Notice &notice) {
    notice.node = number_at(arguments, 0);
    notice.text = text_at(arguments, 1);
}

void decode_member(GVariant *arguments, Notice &notice) {
    notice.node = number_at(arguments, 0);
    notice.count = number_at(arguments, 1);
}

void decode_message(GVariant *arguments, Notice &notice) {
    notice.text = text_at(arguments, 0);
}

void decode_hotplug(GVariant *arguments, Notice &notice) {
    notice.node = number_at(arguments, 0);
    notice.count = number_at(arguments, 1);
    gboolean added = FALSE;
    g_variant_get_child(arguments, 2, "b", &added);
    notice.added = added != FALSE;
    notice.hardware = text_at(arguments, 3);
    notice.location = text_at(arguments, 4);
    notice.device = text_at(arguments, 5);
}

void decode_step_begin(GVariant *arguments, Notice &notice) {
    notice.text = text_at(arguments, 0);
    notice.action = text_at(arguments, 1);
}

void decode_step_end(GVariant *arguments, Notice &notice) {
    decode_step_begin(arguments, notice);
    g_variant_get_child(arguments, 2, "i", &notice.status);
}

void decode_steps_done(GVariant *arguments, Notice &notice) {
    notice.count = number_at(arguments, 0);
}

constexpr Row rows[] = {
    {"NotifyNewMaster", NoticeKind::new_master, "new-master", "(u)", decode_node},
    {"NotifyFrozenMaster", NoticeKind::frozen_master, "frozen-master", "(us)", decode_frozen},
    {"NotifyJoined", NoticeKind::joined, "joined", "(uu)", decode_member},
    {"NotifyLeft", NoticeKind::left, "left", "(uu)", decode_member},
    {"NotifyKeepAlive", NoticeKind::keep_alive, "keep-alive", "(u)", decode_node},
    {"NotifyGotMessage", NoticeKind::message, "message", "(s)", decode_message},
    {"NotifyLumacrateHotplug", NoticeKind::hotplug, "hotplug", "(uubsss)", decode_hotplug},
    {"NotifyRunstepBegin", NoticeKind::step_begin, "step-begin", "(ss)", decode_step_begin},
    {"NotifyRunstepEnd", NoticeKind::step_end, "step-end", "(ssi)", decode_step_end},
    {"NotifyRunstepsDone", NoticeKind::steps_done, "steps-done", "(u)", decode_steps_done},
    {nullptr, NoticeKind::daemon_appeared, "daemon-appeared", nullptr, nullptr},
    {nullptr, NoticeKind::daemon_vanished, "daemon-vanished", nullptr, nullptr},
    {nullptr, NoticeKind::bus_lost, "bus-lost", nullptr, nullptr},
    {nullptr, NoticeKind::output_closed, "output-closed", nullptr, nullptr},
    {nullptr, NoticeKind::interrupted, "interrupted", nullptr, nullptr},
};

std::string describe_hotplug(const Notice &notice) {
    std::string text = node_text(notice.node) + ": device " + (notice.added ? "added" : "removed");
    if (!notice.hardware.empty()) {
        text.append(" ").append(printable(notice.hardware));
    }
    if (!notice.location.empty()) {
        text.append(" at ").append(printable(notice.location));
    }
    return text + " (" + printable(notice.device) + "), " + counted(notice.count, "device") +
           " now";
}

std::string describe_step(const Notice &notice) {
    std::string text = "step " + file_name(notice.text) + " " + printable(notice.action);
    if (notice.kind == NoticeKind::step_begin) {
        return text + " began";
    }
    return text +
           (notice.status == 0 ? " ended" : " FAILED: " + describe_wait_status(notice.status));
}

} // namespace

std::optional<Notice> read_notice(const char *name, GVariant *arguments) {
    for (const Row &row : rows) {
        if (row.name == nullptr || std::strcmp(row.name, name) != 0) {
            continue;
        }
        if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE(row.type))) {
            return std::nullopt;
        }
        Notice notice;
        notice.kind = row.kind;
        notice.time = g_get_real_time();
        row.decode(arguments, notice);
        return notice;
    }
    return std::nullopt;
}

const char *notice_word(NoticeKind kind) {
    const Row *row = rows;
    while (row->kind != kind) {
        row++;
    }
    return row->word;
}

std::string describe(const Notice &notice, uint32_t local_node) {
    const bool local = notice.node == local_node && local_node != 0;
    const std::string node = node_text(notice.node) + (local ? " (this node)" : "");
    switch (notice.kind) {
    case NoticeKind::new_master:
        return node + " is master";
    case NoticeKind::frozen_master:
        return (notice.node != 0 ? "mastership is frozen to " + node : "mastership is not frozen") +
               (notice.text.empty() ? "" : ": " + printable(notice.text));
    case NoticeKind::joined:
        return node + " joined, " + counted(notice.count, "member") + " now";
    case NoticeKind::left:
        return node + " left, " + counted(notice.count, "member") + " now";
    case NoticeKind::keep_alive:
        return "keep-alive from " + node;
    case NoticeKind::message:
        return "message: " + printable(notice.text);
    case NoticeKind::hotplug:
        return describe_hotplug(notice);
    case NoticeKind::step_begin:
    case NoticeKind::step_end:
        return describe_step(notice);
    case NoticeKind::steps_done:
        return notice.count == 0 ? "run steps done"
                                 : "run steps done, " + std::to_string(notice.count) + " FAILED";
    case NoticeKind::daemon_appeared:
        return "the daemon is running";
    case NoticeKind::daemon_vanished:
        return "the daemon is not running, waiting for it";
    case NoticeKind::bus_lost:
        return "the system bus closed the connection";
    case NoticeKind::output_closed:
    case NoticeKind::interrupted:
        return notice_word(notice.kind);
    }
    return {};
}

std::string describe_wait_status(int status) {
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        return code == 0 ? "" : "exited with status " + std::to_string(code);
    }
    if (WIFSIGNALED(status)) {
        const int number = WTERMSIG(status);
        return "killed by signal " + std::to_string(number) + " (" + strsignal(number) + ")";
    }
    return "wait status " + std::to_string(status);
}

} // namespace ctl
