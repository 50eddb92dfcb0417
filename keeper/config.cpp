#include "keeper/config.h"

#include "client/handle.h"

#include <glib.h>

#include <cmath>

namespace keeper {

namespace {

using KeyFile = std::unique_ptr<GKeyFile, client::Release<g_key_file_unref>>;

/* Takes the value over into `config`; false when it is not of the wanted kind. */
using Take = bool (*)(Config &config, const std::string &value);

template <bool Config::*field>
bool take_flag(Config &config, const std::string &value) {
    config.*field = value == "yes";
    return value == "yes" || value == "no";
}

bool take_quorum(Config &config, const std::string &value) {
    config.quorum = value == "yes" ? Switch::on : value == "no" ? Switch::off : Switch::automatic;
    return value == "yes" || value == "no" || value == "auto";
}

/* None unless all of `value` is a number from `least` to `most`. */
std::optional<double> number(const std::string &value, double least, double most) {
    gchar *end = nullptr;
    const double read = g_ascii_strtod(value.c_str(), &end);
    const bool good = !value.empty() && *end == '\0' && read >= least && read <= most;
    return good ? std::optional(read) : std::nullopt;
}

template <Duration Config::*field>
bool take_seconds(Config &config, const std::string &value) {
    const std::optional<double> seconds = number(value, 0.1, 3600);
    config.*field = Duration(std::lround(seconds.value_or(1) * 1000));
    return seconds.has_value();
}

bool take_failures(Config &config, const std::string &value) {
    const double count = number(value, 1, 100).value_or(0);
    config.watch_failures = static_cast<unsigned>(count);
    return count > 0 && std::floor(count) == count;
}

constexpr const char *seconds_wanted = "seconds, from 0.1 to 3600";

struct Key {
    const char *group;
    const char *name;
    const char *wanted;
    Take take;
};

constexpr Key keys[] = {
    {"keeper", "stay", "yes or no", take_flag<&Config::stay>},
    {"keeper", "quorum", "auto, yes or no", take_quorum},
    {"keeper", "stall", "yes or no", take_flag<&Config::stall>},
    {"keeper", "step-limit", seconds_wanted, take_seconds<&Config::step_limit>},
    {"watch", "interval", seconds_wanted, take_seconds<&Config::watch_interval>},
    {"watch", "limit", seconds_wanted, take_seconds<&Config::watch_limit>},
    {"watch", "failures", "a whole number from 1 to 100", take_failures},
};

/* What is wrong with the key; empty: nothing, and its value is in `config`. */
std::string take_key(const std::string &group, const std::string &name, const std::string &value,
                     Config &config) {
    for (const Key &key : keys) {
        if (group == key.group && name == key.name) {
            return key.take(config, value) ? "" : "must be " + std::string(key.wanted);
        }
    }
    return "is not a setting of duskvale-keeper";
}

} // namespace

ConfigRead read_config(const std::string &path) {
    ConfigRead read;
    const KeyFile file(g_key_file_new());
    GError *error = nullptr;
    g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, &error);
    const client::Error owned(error);
    if (error != nullptr && !g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
        read.problems.push_back(path + ": " + error->message);
    }
    g_auto(GStrv) groups = g_key_file_get_groups(file.get(), nullptr);
    for (gchar **group = groups; *group != nullptr; group++) {
        g_auto(GStrv) names = g_key_file_get_keys(file.get(), *group, nullptr, nullptr);
        for (gchar **name = names; *name != nullptr; name++) {
            g_autofree gchar *value = g_key_file_get_value(file.get(), *group, *name, nullptr);
            const std::string problem = take_key(*group, *name, value, read.config);
            if (!problem.empty()) {
                read.problems.push_back(path + ": [" + *group + "] " + *name + "=" + value + ": " +
                                        problem);
            }
        }
    }
    if (!read.problems.empty()) {
        read.config = {};
    }
    return read;
}

} // namespace keeper
