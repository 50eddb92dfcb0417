/*
 * The texts that keepers send each other through the daemon's SendMessage:
 *
 *     duskvale-keeper 1 NODE BOOT SEQUENCE FIELD ...
 *
 * The daemon's signal does not name the sender of a text, so the text does. BOOT differs at each
 * start of a keeper, SEQUENCE grows with each text. The fields are those of the structures, in
 * their order: numbers, 0 or 1, and texts in double quotes. A reader ignores other versions.
 *
 * Each text carries its sender's whole report.
 */
#pragma once

#include "keeper/policy/types.h"

namespace keeper {

struct Text {
    NodeId from = {};
    std::string boot = {};
    uint64_t sequence = 0;
    bool hello = false; /* the others shall report */
    Report report = {};
};

/* `now` turns points of time into ages and back. */
std::string encode(Text text, Time now);
/* Nothing for what is not a keeper's text of this version. */
std::optional<Text> decode(const std::string &line, Time now);

} // namespace keeper
