/* The table, and what is made from it or must say the same. */
#include "ctl/golden.h"

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
