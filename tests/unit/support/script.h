/*
 * Tests that are read like a session at a terminal: a file with commands, each in a line that
 * begins with "$ ", and below each what came of it. Played again, the file must stay the same. With
 * UPDATE_GOLDEN=1 it is written again. Lines that begin with "#" are titles.
 *
 * Several commands share a line with "; " between them. What is not printable ASCII is written
 * as in C, in octal, on both sides. An outcome has no empty lines.
 */
#pragma once

#include "support/golden.h"

#include <glib.h>

#include <functional>
#include <map>
#include <memory>
#include <vector>

using Words = std::vector<std::string>;
using Commands = std::map<std::string, std::function<void()>>;

inline Words split(const std::string &text, const std::string &separator) {
    Words parts;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + separator.size();
    }
    return parts;
}

/* The words from `first` on as one text. */
inline std::string rest(const Words &words, size_t first) {
    std::string text;
    for (size_t i = first; i < words.size(); ++i) {
        text += (i == first ? "" : " ") + words[i];
    }
    return text;
}

inline uint32_t number(const std::string &word) {
    return static_cast<uint32_t>(std::stoll(word));
}

/*
 * Plays golden/NAME. A Session has a table of `commands`; each finds its own words in `w`, and
 * after a line `outcome()` says what came of it. The command "new" begins another session.
 */
template <typename Session>
void expect_script(const std::string &name) {
    auto session = std::make_unique<Session>();
    std::string played;
    for (const std::string &line : split(file_text(std::filesystem::path(GOLDEN) / name), "\n")) {
        if (line.starts_with("$ ")) {
            for (const std::string &command : split(line.substr(2), "; ")) {
                g_autofree gchar *text = g_strcompress(command.c_str());
                const Words words = split(text, " ");
                if (words[0] == "new") {
                    session = nullptr; /* before the next one: both may use the same files */
                    session = std::make_unique<Session>();
                } else {
                    session->w = words;
                    session->commands.at(words[0])();
                }
            }
            g_autofree gchar *outcome = g_strescape(session->outcome().c_str(), "\n\"");
            EXPECT_EQ(("\n" + std::string(outcome)).find("\n\n"), std::string::npos)
                << "an empty line, which would look like the script's own";
            played += line + "\n" + outcome;
        } else if (line.empty() || line[0] == '#') {
            played += line + "\n";
        }
    }
    played.pop_back(); /* the file ends with a newline, not with an empty line */
    expect_golden(name, played);
}
