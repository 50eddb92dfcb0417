/* duskvalectl as its user meets it: run as a program; what it wrote and how it ended is held
   against kept examples. */
#pragma once

#include "support/child.h"
#include "support/golden.h"

#include <glib.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::Not;

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::filesystem::path source_path(const std::string &below) {
    return std::filesystem::path(std::getenv("SOURCE_ROOT")) / below;
}

using Words = std::vector<std::string>;

/* Turns a child into duskvalectl. */
inline void exec_duskvalectl(Words words) {
    words.insert(words.begin(), "duskvalectl");
    setenv("TZ", "UTC", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    become(std::getenv("DUSKVALECTL"), words);
}

/* How a duskvalectl that `child` became came out. */
inline Outcome outcome_of(Child &child) {
    Outcome outcome;
    outcome.status = child.end();
    outcome.out = child.stdout_text();
    outcome.err = child.stderr_text();
    return outcome;
}

inline Outcome duskvalectl(const Words &words) {
    Child child([&] { exec_duskvalectl(words); });
    return outcome_of(child);
}

/* Of a script, to which `duskvalectl` is a command. */
inline Outcome shell(const std::string &script) {
    Child child([&] {
        become("bash", {"bash", "-c", "duskvalectl() { \"$DUSKVALECTL\" \"$@\"; }\n" + script});
    });
    return outcome_of(child);
}

/* The command line with its exit status, the output, and error lines marked with "!". */
inline std::string transcript(const Words &words, const Outcome &outcome) {
    std::string text = "$ duskvalectl";
    for (const std::string &word : words) {
        const bool plain = !word.empty() && word.find_first_of(" \n") == std::string::npos;
        text += plain ? " " + word : " '" + word + "'";
    }
    text += "  # " + std::to_string(outcome.status) + "\n" + outcome.out;
    std::istringstream lines(outcome.err);
    for (std::string line; std::getline(lines, line);) {
        text += "! " + line + "\n";
    }
    /* The version of the program grows with each release. */
    static const std::regex version(R"((program_version"?[:=]")[^"]+)");
    return std::regex_replace(text, version, "$1X.Y.Z") + "\n";
}

/* The transcripts of one command line after another; `between` is called after each. */
inline std::string session(
    std::initializer_list<Words> command_lines, const std::function<void()> &between = [] {}) {
    std::string text;
    for (const Words &words : command_lines) {
        text += transcript(words, duskvalectl(words));
        between();
    }
    return text;
}

/* Carries out the command lines of a kept example again: a new case is a "$" line there. */
inline void expect_session(const std::string &name) {
    std::string text;
    std::istringstream lines(file_text(std::filesystem::path(GOLDEN) / name));
    for (std::string line; std::getline(lines, line);) {
        gchar **words = nullptr;
        if (line.starts_with("$ duskvalectl") &&
            g_shell_parse_argv(line.substr(2, line.find("  # ") - 2).c_str(), nullptr, &words,
                               nullptr)) {
            const Words arguments{words + 1, words + g_strv_length(words)};
            text += transcript(arguments, duskvalectl(arguments));
        }
        g_strfreev(words);
    }
    expect_golden(name, text);
}

/* The same as expect_golden for output with the present time in it, which counts only by its form.
 */
inline void expect_timed_golden(const std::string &name, std::string text) {
    static const std::regex clock(R"(\d\d:\d\d:\d\d\.\d{3})");
    static const std::regex date(R"(\d{4}-\d\d-\d\d)");
    static const std::regex duration(R"(\d+(\.\d s| ms))");
    text = std::regex_replace(text, clock, "hh:mm:ss.mmm");
    text = std::regex_replace(text, date, "yyyy-mm-dd");
    expect_golden(name, std::regex_replace(text, duration, "N s"));
}
