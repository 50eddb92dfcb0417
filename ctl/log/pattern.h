/* Regular expressions over log lines, which may hold any bytes. */
#pragma once

#include <glib.h>

#include <string>

namespace ctl {

/* One expression, compiled for the life of the object. */
class Pattern {
public:
    explicit Pattern(const std::string &pattern);
    Pattern(const Pattern &) = delete;
    Pattern &operator=(const Pattern &) = delete;
    Pattern(Pattern &&other) noexcept;
    Pattern &operator=(Pattern &&other) = delete;
    ~Pattern();

    GRegex *get() const { return regex; }

private:
    GRegex *regex;
};

/* One attempt at `text`, which must outlive it. */
class Match {
public:
    Match(const Pattern &pattern, const std::string &text);
    Match(const Match &) = delete;
    Match &operator=(const Match &) = delete;
    ~Match();

    explicit operator bool() const { return matched; }
    /* Group `number`, from 1; "" for one that took no part. */
    std::string group(int number) const;

private:
    GMatchInfo *info = nullptr;
    bool matched;
};

} // namespace ctl
