#include "keeper/config.h"

#include "client/handle.h"

#include <glib.h>

#include <cmath>
#include <map>

namespace keeper {

namespace {

/* These take the value over; false when it is not of the wanted kind. */
bool flag(bool &field, const std::string &value) {
    field = value == "yes";
    return field || value == "no";
}

bool number(double &field, const std::string &value, double least, double most) {
    gchar *end = nullptr;
    field = g_ascii_strtod(value.c_str(), &end);
    return !value.empty() && *end == '\0' && field >= least && field <= most;
}

bool seconds(Duration &field, const std::string &value) {
    double read = 0;
    const bool good = number(read, value, 0.1, 3600);
    field = Duration(good ? std::lround(read * 1000) : 0);
    return good;
}

struct Key {
    const char *wanted;
    bool (*take)(Config &config, const std::string &value);
};
constexpr const char *seconds_wanted = "seconds, from 0.1 to 3600";
const std::map<std::string, Key> keys = {
    {"[keeper] stay", {"yes or no", [](auto &c, auto &v) { return flag(c.stay, v); }}},
    {"[keeper] stall", {"yes or no", [](auto &c, auto &v) { return flag(c.stall, v); }}},
    {"[keeper] quorum",
     {"auto, yes or no",
      [](auto &c, auto &v) {
          bool on = false;
          const bool given = flag(on, v);
          c.quorum = !given ? Switch::automatic : on ? Switch::on : Switch::off;
          return given || v == "auto";
      }}},
    {"[keeper] step-limit",
     {seconds_wanted, [](auto &c, auto &v) { return seconds(c.step_limit, v); }}},
    {"[watch] interval",
     {seconds_wanted, [](auto &c, auto &v) { return seconds(c.watch_interval, v); }}},
    {"[watch] limit", {seconds_wanted, [](auto &c, auto &v) { return seconds(c.watch_limit, v); }}},
    {"[watch] failures",
     {"a whole number from 1 to 100",
      [](auto &c, auto &v) {
          double count = 0;
          const bool good = number(count, v, 1, 100) && std::floor(count) == count;
          c.watch_failures = good ? static_cast<unsigned>(count) : 0;
          return good;
      }}},
};

} // namespace

ConfigRead read_config(const std::string &path) {
    ConfigRead read;
    g_autoptr(GKeyFile) file = g_key_file_new();
    g_autoptr(GError) error = nullptr;
    g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, &error);
    if (error != nullptr && !g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
        read.problems.push_back(path + ": " + error->message);
    }
    g_auto(GStrv) groups = g_key_file_get_groups(file, nullptr);
    for (gchar **group = groups; *group != nullptr; group++) {
        g_auto(GStrv) names = g_key_file_get_keys(file, *group, nullptr, nullptr);
        for (gchar **name = names; *name != nullptr; name++) {
            g_autofree gchar *value = g_key_file_get_value(file, *group, *name, nullptr);
            const std::string key = std::string("[") + *group + "] " + *name;
            const auto known = keys.find(key);
            if (known == keys.end() || !known->second.take(read.config, value)) {
                read.problems.push_back(path + ": " + key + "=" + value +
                                        (known == keys.end()
                                             ? ": is not a setting of duskvale-keeper"
                                             : std::string(": must be ") + known->second.wanted));
            }
        }
    }
    if (!read.problems.empty()) {
        read.config = {};
    }
    return read;
}

} // namespace keeper
