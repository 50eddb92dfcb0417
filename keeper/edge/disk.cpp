#include "keeper/edge/disk.h"

#include <thread>
#include <utility>

namespace keeper {

constexpr const char *group = "keeper";
constexpr std::pair<const char *, std::string Stored::*> keys[] = {
    {"unfit", &Stored::unfit_by},
    {"unfit-reason", &Stored::unfit},
    {"preferred", &Stored::preferred},
    {"preferred-file", &Stored::preferred_file},
    {"frozen-file", &Stored::frozen_file}};

/* What went wrong; empty: nothing. */
static std::string write_file(const std::string &path, const Stored &stored) {
    constexpr int mode = 0644;
    constexpr auto safely = static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                               G_FILE_SET_CONTENTS_DURABLE);
    g_autoptr(GKeyFile) file = g_key_file_new();
    for (const auto &[key, field] : keys) {
        g_key_file_set_string(file, group, key, (stored.*field).c_str());
    }
    g_key_file_set_comment(file, nullptr, nullptr,
                           " Written by duskvale-keeper; change it with duskvalectl.", nullptr);
    g_autofree gchar *text = g_key_file_to_data(file, nullptr, nullptr);
    g_autoptr(GError) error = nullptr;
    g_file_set_contents_full(path.c_str(), text, -1, safely, mode, &error);
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
    for (const auto &[key, field] : keys) {
        g_autofree gchar *value = g_key_file_get_string(file, group, key, nullptr);
        read.stored.*field = value != nullptr ? value : "";
    }
    return read;
}

void Disk::write(const Stored &stored) {
    if (std::exchange(writing, true)) {
        waiting = stored;
        return;
    }
    std::thread([this, stored] {
        call_on_main_loop([this, problem = write_file(path, stored)] {
            writing = false;
            deliver(DiskWritten{problem});
            if (const auto next = std::exchange(waiting, std::nullopt)) {
                write(*next);
            }
        });
    }).detach();
}

} // namespace keeper
