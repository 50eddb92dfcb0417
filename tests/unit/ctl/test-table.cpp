/* The table, and what is made from it or must say the same. */
#include "ctl/golden.h"

#include "ctl/line/table.h"

#include <set>

using namespace ctl;

namespace {

std::string in_man_page() {
    return file_text(source_path("docs/man/duskvalectl.1"));
}

/* The names that `pattern`'s first group finds in `text`. */
std::set<std::string> found(const std::string &text, const std::string &pattern) {
    const std::regex expression(pattern, std::regex::ECMAScript | std::regex::multiline);
    std::set<std::string> names;
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
        names.insert((*at)[1]);
    }
    return names;
}

/* The names of rows of the table. */
template <typename Rows, typename Name>
std::set<std::string> names_of(const Rows &rows, Name name) {
    std::set<std::string> names;
    for (const auto &row : rows) {
        names.insert(name(row));
    }
    return names;
}

} // namespace

TEST(Table, helpShowsAllOfIt) {
    expect_golden("help", session({{"help"}, {"help", "history"}, {"help", "send"}}));
    EXPECT_EQ(duskvalectl({"--help"}).out, duskvalectl({"help"}).out);
    EXPECT_EQ(duskvalectl({"freeze", "-h"}).out, duskvalectl({"help", "freeze"}).out);
    EXPECT_EQ(duskvalectl({"--version"}).out, "duskvalectl " PROJECT_VERSION "\n");
}

TEST(Table, usageFaultsAreToldWithoutTouchingTheBus) {
    expect_golden("usage", session({
                               {"stauts"},
                               {"--bogus"},
                               {"--wait", "take-over"},
                               {"status", "extra"},
                               {"status", "--json=1"},
                               {"monitor", "--wait"},
                               {"freeze"},
                               {"freeze", "kernel", "upgrade"},
                               {"freeze", "  "},
                               {"freeze", "two\nlines"},
                               {"take-over", "--wait=soon"},
                               {"take-over", "--wait=1e9"},
                               {"prefer", "maybe"},
                               {"wait", "quiet"},
                               {"wait", "master", "--timeout"},
                               {"wait", "master", "--timeout=0"},
                               {"check", "--members=none"},
                               {"check", "--bogus"},
                               {"doctor", "--bogus"},
                               {"send", "caf\xe9"},
                               {"hotplug", "plug", "/sys/x"},
                               {"hotplug", "add", "relative"},
                               {"history", "--last=0"},
                               {"why", "--since=today", "--log=-"},
                               {"help", "stauts"},
                           }));
    const Outcome lengthy = duskvalectl({"freeze", std::string(1001, 'x')});
    EXPECT_EQ(lengthy.status, 2);
    EXPECT_NE(lengthy.err.find("too long, at most 1000 bytes"), std::string::npos) << lengthy.err;
}

TEST(Table, manPageHasEachCommandWithItsOptions) {
    const std::string page = in_man_page();
    for (const CommandSpec &command : commands()) {
        const std::regex item(std::string("^\\.It Ic ") + command.name + "\\b(?!-)(.*)$",
                              std::regex::ECMAScript | std::regex::multiline);
        std::smatch match;
        ASSERT_TRUE(std::regex_search(page, match, item)) << command.name;
        EXPECT_EQ(found(match[1], R"(Fl -(\w+))"),
                  names_of(command.options, [](Opt id) { return option(id).name; }))
            << command.name;
    }
    EXPECT_EQ(found(page, R"(^\.It Ic ([\w-]+))"),
              names_of(commands(), [](const CommandSpec &command) { return command.name; }));
    EXPECT_EQ(found(page, R"(^\.It Fl -(\w+))"),
              names_of(options(), [](const OptionSpec &spec) { return spec.name; }));
    EXPECT_EQ(found(page, R"(^\.It (\d+)$)"), names_of(exit_statuses(), [](const ExitSpec &spec) {
                  return std::to_string(static_cast<int>(spec.status));
              }));
}

TEST(Table, completionOffersEachCommandWithItsOptions) {
    /* complete WORD ...: the candidates for the last word, as an interactive shell would ask. */
    const std::string script = ". /usr/share/bash-completion/bash_completion\n"
                               ". \"$SOURCE_ROOT/data/completions/duskvalectl\"\n"
                               "compopt() { :; }\n"
                               "complete_words() {\n"
                               "  COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1)) COMP_LINE=\"$*\"\n"
                               "  COMP_POINT=${#COMP_LINE} COMPREPLY=()\n"
                               "  _duskvalectl; echo \"${COMPREPLY[*]}\"\n"
                               "}\n";
    std::string calls = "complete_words duskvalectl ''\n";
    std::string expected;
    for (const CommandSpec &command : commands()) {
        expected += (expected.empty() ? "" : " ") + std::string(command.name);
    }
    expected += "\n";
    for (const CommandSpec &command : commands()) {
        calls += std::string("complete_words duskvalectl ") + command.name + " --\n";
        expected += "--help --version";
        for (const Opt id : command.options) {
            expected += std::string(" --") + option(id).name +
                        (option(id).value == Value::required ? "=" : "");
        }
        expected += "\n";
    }
    for (const char *words : {"wait ''", "prefer ''", "hotplug ''"}) {
        calls += std::string("complete_words duskvalectl ") + words + "\n";
    }
    expected += "master slave stable\non off\nadd remove\n";
    const Outcome outcome = shell(script + calls);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, expected);
}
