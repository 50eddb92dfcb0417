/* An event in words: for eyes, and as JSON for programs. */
#pragma once

#include "ctl/history/event.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

#include <string>

namespace ctl {

struct Wording {
    const char *word; /* for programs, such as "new-master" */
    std::string text; /* a sentence without its full stop, safe for a terminal */
    Colour colour = Colour::plain;
    Json values = Json::object(); /* the event's members */
};

inline Wording say(const char *word, const std::string &text, Colour colour = Colour::plain,
                   const Json &values = Json::object()) {
    return {word, text, colour, values};
}

/* `local` is this node's id; 0 when it is not known. */
Wording wording(const Event &event, NodeId local);

/* "node 7", or "node 7 (this node)" when it is `local`. */
std::string name_of(NodeId node, NodeId local);

/* Prints a line: the time and the text, or a JSON object of all. False when nobody reads it. */
bool print_wording(int64_t time, const Wording &words, bool json);

} // namespace ctl
