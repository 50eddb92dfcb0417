/* The table, and what is made from it or must say the same. */
#include "ctl/golden.h"

#include <set>

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

std::set<std::string> commands_in_help() {
    const std::string help = duskvalectl({"help"}).out;
    const auto start = help.find("Commands:");
    return found(help.substr(start, help.find("\n\n", start) - start), R"(^  ([a-z-]+))");
}

std::set<std::string> options_in_help(const Words &words) {
    std::set<std::string> options = found(duskvalectl(words).out, R"(^  --([a-z-]+))");
    options.erase("help"); /* that all have */
    return options;
}

} // namespace

TEST(Table, helpShowsAllOfIt) {
    expect_session("help");
    EXPECT_EQ(duskvalectl({"--help"}).out, duskvalectl({"help"}).out);
    EXPECT_EQ(duskvalectl({"freeze", "-h"}).out, duskvalectl({"help", "freeze"}).out);
    EXPECT_EQ(duskvalectl({"--version"}).out, "duskvalectl " PROJECT_VERSION "\n");
}

TEST(Table, usageFaultsAreReportedWithoutTouchingTheBus) {
    expect_session("usage");
    EXPECT_THAT(duskvalectl({"freeze", "two\nlines"}).err, HasSubstr("must be one line"));
    EXPECT_THAT(duskvalectl({"freeze", std::string(1001, 'x')}).err,
                HasSubstr("too long, at most 1000 bytes"));
    /* What is just allowed goes on, and finds no daemon. */
    for (const Words &allowed : {Words{"freeze", std::string(1000, 'x')},
                                 {"take-over", "--wait=100000000"},
                                 {"take-over", "--wait=0.001"},
                                 {"freeze", "--wait", "status"},
                                 {"send", "--", "-x"},
                                 {"--json"}}) {
        EXPECT_GT(duskvalectl(allowed).status, 3) << allowed.front();
    }
}

TEST(Table, manPageHasEachCommandWithItsOptions) {
    const std::string page = in_man_page();
    std::set<std::string> all_options{"help", "version"};
    for (const std::string &command : commands_in_help()) {
        const std::regex item("^\\.It Ic " + command + "\\b(?!-)(.*)$",
                              std::regex::ECMAScript | std::regex::multiline);
        std::smatch match;
        ASSERT_TRUE(std::regex_search(page, match, item)) << command;
        const auto options = options_in_help({"help", command});
        EXPECT_EQ(found(match[1], R"(Fl -(\w+))"), options) << command;
        all_options.insert(options.begin(), options.end());
    }
    EXPECT_EQ(found(page, R"(^\.It Ic ([\w-]+))"), commands_in_help());
    EXPECT_EQ(found(page, R"(^\.It Fl -(\w+))"), all_options);
    EXPECT_EQ(found(page, R"(^\.It (\d+)$)"),
              found(file_text(source_path("ctl/exit-status.h")), R"(= (\d+);)"));
}

TEST(Table, completionOffersWhatTheHelpShows) {
    /* complete WORD ...: the candidates for the last word, as an interactive shell would ask. */
    const std::string script =
        ". /usr/share/bash-completion/bash_completion\n"
        ". \"$SOURCE_ROOT/data/completions/duskvalectl\"\n"
        "compopt() { :; }\n"
        "complete_words() {\n"
        "  COMP_WORDS=(duskvalectl \"$@\") COMP_CWORD=$# COMP_LINE=\"duskvalectl $*\"\n"
        "  COMP_POINT=${#COMP_LINE} COMPREPLY=()\n"
        "  _duskvalectl duskvalectl; echo \"$*: ${COMPREPLY[*]}\"\n"
        "}\n";
    std::string calls;
    for (const char *words :
         {"''", "mon", "--v", "status --", "history --", "freeze --", "wait --", "keep-alive --",
          "wait ''", "prefer o", "hotplug ''", "freeze ''", "help un", "wait --timeout ''"}) {
        calls += std::string("complete_words ") + words + "\n";
    }
    const Outcome outcome = shell(script + calls);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    expect_golden("completion", outcome.out);
}
