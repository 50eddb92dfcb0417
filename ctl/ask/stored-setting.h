/* The daemon's settings files, as it would read them at its next start. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ctl {

struct StoredSetting {
    int fault = 0; /* errno when the file could not be read; ENOENT when there is none */
    std::optional<uint32_t> number; /* at its start */
    std::string text;               /* its second line */

    /* Without a file, or without a number in it, the daemon takes 0. */
    uint32_t value() const { return number.value_or(0); }
    /* The daemon would find this out. */
    bool known() const;
    bool exists() const { return fault == 0; }
};

/* `path` is one of the settings of base/paths.h. */
StoredSetting read_stored(const char *path);

} // namespace ctl
