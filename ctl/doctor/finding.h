/* What `doctor` and `check` have found, and how bad it is. */
#pragma once

#include "ctl/print/text.h"

#include "client/keeper.h"

#include <string>
#include <utility>
#include <vector>

namespace ctl {

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
    void ok(const std::string &text) { add(Level::ok, text); }
    void note(const std::string &text) { add(Level::note, text); }
    void unknown(const std::string &text, const std::string &next = "") {
        add(Level::unknown, text, next);
    }
    void warning(const std::string &text, const std::string &next = "") {
        add(Level::warning, text, next);
    }
    void critical(const std::string &text, const std::string &next = "") {
        add(Level::critical, text, next);
    }
    /* Adds the keeper's verdict, which is that of its first cause; the other causes as notes. */
    void add_verdict(const client::KeeperState &keeper, const std::string &next = "");
    const std::vector<Finding> &list() const { return all; }
    std::size_t count(Level level) const;
    /* The level that decides: what could not be looked at must not hide what was found, and a note
       counts as ok. */
    Level worst() const;

private:
    const char *present = "";
    std::vector<Finding> all;
};

struct LevelSpec {
    Level level;
    const char *word;    /* stable, such as "warning" */
    const char *verdict; /* as monitoring systems want it, such as "WARNING" */
    int exit_status;
    Colour colour;
};

const LevelSpec &spec_of(Level level);
/* Unknown for a word that is not one of theirs. */
Level level_of_word(const std::string &word);

} // namespace ctl
