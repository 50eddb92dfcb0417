#include "ctl/ask/stored-setting.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

namespace ctl {

bool StoredSetting::known() const {
    return fault == 0 || fault == ENOENT;
}

StoredSetting read_stored(const char *path) {
    StoredSetting setting;
    errno = 0;
    std::ifstream file(path);
    std::string first;
    /* The library leaves the errno of open(2) and of read(2), which fails for a directory. */
    if (!std::getline(file >> std::ws, first) && errno != 0) {
        setting.fault = errno;
        return setting;
    }
    std::getline(file, setting.text);
    /* Wide, then cut to 32 bits: a node id means the same written signed or not. */
    char *end = nullptr;
    const long long number = std::strtoll(first.c_str(), &end, 10);
    if (end != first.c_str()) {
        setting.number = static_cast<uint32_t>(number);
    }
    return setting;
}

} // namespace ctl
