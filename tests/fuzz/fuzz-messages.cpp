/* libFuzzer over every decoder: no byte string may be read beyond its end. */
#include "coordinator/messages.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    const MessageView message(data, size);
    decode_bare(message);
    decode_node_info(message);
    decode_propose(message);
    size_t read = 0;
    if (const auto text = decode_text(message)) {
        read += std::strlen(*text);
    }
    if (const auto frozen = decode_frozen_master(message)) {
        read += std::strlen(frozen->reason);
    }
    if (const auto event = decode_lumacrate(message)) {
        read += std::strlen(event->hardware_id) + std::strlen(event->location) +
                std::strlen(event->devpath);
    }
    return read > size * 4 ? -1 : 0;
}
