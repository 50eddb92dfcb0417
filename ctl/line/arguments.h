/* One command line, parsed against the table. */
#pragma once

#include "ctl/line/table.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ctl {

class Arguments {
public:
    const CommandSpec *command = nullptr;
    std::vector<std::string> positional; /* as many as the command's row allows */

    bool has(Opt id) const;
    /* The value given with the option; empty without the option or without a value. */
    std::string value(Opt id) const;
    void add(Opt id, std::string value) { given.emplace_back(id, std::move(value)); }

private:
    std::vector<std::pair<Opt, std::string>> given;
};

/*
 * Parses `argv`. The first word is the command; without one, or when it is an option, the command
 * is the first of the table. On a fault, one line on standard error and no value.
 */
std::optional<Arguments> parse_arguments(int argc, char **argv);

/* Says on standard error that there is no such command; returns Exit::usage. */
int unknown_command(const std::string &name);

/* A usage fault found by a command itself: the line on standard error; returns Exit::usage. */
int usage_fault(const Arguments &arguments, const std::string &fault);

/* A whole number from `least` up. No value when `text` is not one. */
std::optional<unsigned> parse_count(const std::string &text, unsigned least);

/* The option's number of seconds, above 0, which may have a fraction. When it is not one, no value,
   and a usage fault was told. */
std::optional<std::chrono::microseconds> parse_seconds(const Arguments &arguments, Opt id);

} // namespace ctl
