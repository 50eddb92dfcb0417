/* What the doctor has found, and what to do about it. */
#pragma once

#include "ctl/exit-status.h"

#include <string>
#include <utility>
#include <vector>

namespace ctl {

/* In the order in which they decide the exit status: what could not be looked at must not hide what
   was found. */
enum class Level { ok, note, unknown, warning, critical };

struct Finding {
    Level level;
    const char *area; /* what was looked at, a word such as "steps" */
    std::string text; /* safe for a terminal */
    std::string next; /* what to do or to type; empty when there is nothing to do */
};

class Findings {
public:
    /* What is added from now on is of this area. */
    void begin(const char *area) { present = area; }
    void add(Level level, std::string text, std::string next = "") {
        all.push_back({level, present, std::move(text), std::move(next)});
    }
    const std::vector<Finding> &list() const { return all; }

private:
    const char *present = "";
    std::vector<Finding> all;
};

/* A stable word, such as "warning". */
const char *level_word(Level level);
/* The level that decides, and how it ends the command. */
Level worst_of(const Findings &findings);
CheckExit exit_of(Level level);

} // namespace ctl
