#include "keeper/edge/disk.h"

#include <thread>
#include <utility>

namespace keeper {

constexpr const char *group = "keeper";
constexpr const char *unfit_key = "unfit"; /* by "start" or "watch" */
constexpr const char *reason_key = "unfit-reason";
constexpr const char *preferred_key = "preferred";
/* What the daemon's files hold, whole. */
constexpr const char *preferred_file_key = "preferred-file";
constexpr const char *frozen_file_key = "frozen-file";

static std::string text_of(const Stored &stored) {
    g_autoptr(GKeyFile) file = g_key_file_new();
    g_key_file_set_comment(file, nullptr, nullptr,
                           " Written by duskvale-keeper; change it with duskvalectl.", nullptr);
    if (stored.unfit) {
        g_key_file_set_string(file, group, unfit_key, stored.unfit->by_watch ? "watch" : "start");
        g_key_file_set_string(file, group, reason_key, stored.unfit->reason.c_str());
    }
    if (stored.preferred) {
        g_key_file_set_boolean(file, group, preferred_key, gboolean{*stored.preferred});
    }
    g_key_file_set_string(file, group, preferred_file_key, stored.preferred_file.c_str());
    g_key_file_set_string(file, group, frozen_file_key, stored.frozen_file.c_str());
    g_autofree gchar *text = g_key_file_to_data(file, nullptr, nullptr);
    return text;
}

/* What went wrong; empty: nothing. */
static std::string write_file(const std::string &path, const std::string &text) {
    constexpr int mode = 0644;
    constexpr auto safely = static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                               G_FILE_SET_CONTENTS_DURABLE);
    g_autoptr(GError) error = nullptr;
    g_file_set_contents_full(path.c_str(), text.c_str(), -1, safely, mode, &error);
    return error != nullptr ? error->message : "";
}

DiskRead Disk::read() const {
    g_autoptr(GKeyFile) file = g_key_file_new();
    g_autoptr(GError) error = nullptr;
    DiskRead read;
    if (!g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, &error) &&
        !g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
        read.problem = path + ": " + error->message;
    }
    const auto text = [file](const char *key) -> std::string {
        g_autofree gchar *value = g_key_file_get_string(file, group, key, nullptr);
        return value != nullptr ? value : "";
    };
    if (g_key_file_has_key(file, group, unfit_key, nullptr)) {
        read.stored.unfit = Unfit{text(unfit_key) == "watch", text(reason_key)};
    }
    read.stored.preferred_file = text(preferred_file_key);
    read.stored.frozen_file = text(frozen_file_key);
    if (g_key_file_has_key(file, group, preferred_key, nullptr)) {
        read.stored.preferred = g_key_file_get_boolean(file, group, preferred_key, nullptr) != 0;
    }
    return read;
}

void Disk::write(const Stored &stored) {
    if (std::exchange(writing, true)) {
        waiting = stored;
        return;
    }
    std::thread([this, text = text_of(stored)] {
        call_on_main_loop([this, problem = write_file(path, text)] {
            writing = false;
            deliver(DiskWritten{problem});
            if (const auto next = std::exchange(waiting, std::nullopt)) {
                write(*next);
            }
        });
    }).detach();
}

} // namespace keeper
