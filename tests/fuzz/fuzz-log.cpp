/* Any bytes as a log: read, grouped and told without a fault. */
#include "ctl/log/tell.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const ctl::Clocks now{1'714'533'124'000'000, 5'000'000'000};
    const std::string log(reinterpret_cast<const char *>(data), size);
    ctl::EpisodeBuilder builder;
    for (size_t begin = 0; begin < log.size();) {
        const size_t end = std::min(log.find('\n', begin), log.size());
        const std::string line = log.substr(begin, end - begin);
        if (const auto event = ctl::parse_event(ctl::parse_log_line(line, now))) {
            builder.add(*event);
        }
        begin = end + 1;
    }
    for (const ctl::Episode &episode : builder.episodes()) {
        ctl::json_episode(episode);
    }
    return 0;
}
