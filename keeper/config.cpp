#include "keeper/config.h"

#include <glib.h>

#include <cmath>
#include <map>

namespace keeper {

/* Where a value goes. The type of the field says what is wanted. */
using Field =
    std::variant<bool Config::*, Switch Config::*, Duration Config::*, unsigned Config::*>;
static const std::map<std::string, Field> keys = {
    {"[keeper] stay", &Config::stay},
    {"[keeper] stall", &Config::stall},
    {"[keeper] quorum", &Config::quorum},
    {"[keeper] step-limit", &Config::step_limit},
    {"[watch] interval", &Config::watch_interval},
    {"[watch] limit", &Config::watch_limit},
    {"[watch] failures", &Config::watch_failures},
};

/* What is wrong with the value; empty: nothing, and it is in `config`. */
static std::string take(Config &config, const Field &field, const std::string &value) {
    const bool yes = value == "yes", no = value == "no";
    gchar *end = nullptr;
    const double number = g_ascii_strtod(value.c_str(), &end);
    const bool is_number = !value.empty() && *end == '\0';
    if (const auto *flag = std::get_if<bool Config::*>(&field)) {
        config.**flag = yes;
        return yes || no ? "" : "must be yes or no";
    }
    if (const auto *choice = std::get_if<Switch Config::*>(&field)) {
        config.**choice = yes ? Switch::on : no ? Switch::off : Switch::automatic;
        return yes || no || value == "auto" ? "" : "must be auto, yes or no";
    }
    if (const auto *seconds = std::get_if<Duration Config::*>(&field)) {
        const bool good = is_number && number >= 0.1 && number <= 3600;
        config.**seconds = Duration(good ? std::lround(number * 1000) : 0);
        return good ? "" : "must be seconds, from 0.1 to 3600";
    }
    const bool good = is_number && number >= 1 && number <= 100 && std::floor(number) == number;
    config.*std::get<unsigned Config::*>(field) = good ? static_cast<unsigned>(number) : 0;
    return good ? "" : "must be a whole number from 1 to 100";
}

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
            const std::string problem = known == keys.end()
                                            ? "is not a setting of duskvale-keeper"
                                            : take(read.config, known->second, value);
            if (!problem.empty()) {
                read.problems.push_back(path + ": " + key + "=" + value + ": " + problem);
            }
        }
    }
    read.config = read.problems.empty() ? read.config : Config();
    return read;
}

} // namespace keeper
