#include "keeper/config.h"
#include "keeper/edge/log.h"
#include "keeper/hold.h"
#include "keeper/paths.h"
#include "keeper/process.h"
#include "keeper/version.h"

#include <glib.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int status_usage = 2;
/* EX_CONFIG of sysexits.h. */
constexpr int status_configuration = 78;

struct Options {
    gboolean check = FALSE;
    gboolean hold = FALSE;
    std::string config = DUSKVALE_KEEPER_CONFIG_FILE;
};

[[noreturn]] void refuse(const char *reason) {
    fprintf(stderr, "duskvale-keeper: %s\nTry: duskvale-keeper --help\n", reason);
    exit(status_usage);
}

/* Ends the process after --help and --version, and for what is not an option. */
Options parse_options(int argc, char *argv[]) {
    Options options;
    gboolean version = FALSE;
    const GOptionEntry entries[] = {
        {"check", 0, 0, G_OPTION_ARG_NONE, &options.check,
         "Check FILE, or else " DUSKVALE_KEEPER_CONFIG_FILE, nullptr},
        {"hold", 0, 0, G_OPTION_ARG_NONE, &options.hold,
         "Wait until this node has quorum; for the daemon's unit", nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &version, "Print the version", nullptr},
        {}};
    g_autoptr(GOptionContext) context =
        g_option_context_new("[FILE] - keeps a node's services in step with its role");
    g_option_context_add_main_entries(context, entries, nullptr);
    g_autoptr(GError) error = nullptr;
    if (!g_option_context_parse(context, &argc, &argv, &error)) {
        refuse(error->message);
    }
    if (version) {
        puts("duskvale-keeper " DUSKVALE_VERSION);
        exit(EXIT_SUCCESS);
    }
    if (argc > (options.check ? 2 : 1)) {
        refuse("too many arguments");
    }
    if (argc > 1) {
        options.config = argv[1];
    }
    return options;
}

} // namespace

int main(int argc, char *argv[]) {
    const Options options = parse_options(argc, argv);
    keeper::ConfigRead read = keeper::read_config(options.config);
    for (const std::string &problem : read.problems) {
        keeper::log_line(LOG_ERR, problem);
    }
    if (options.check) {
        if (read.problems.empty()) {
            printf("%s: no errors\n", options.config.c_str());
        }
        return read.problems.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    /* Threads here only wait; memory of their own would only cost. */
    mallopt(M_ARENA_MAX, 1);
    signal(SIGPIPE, SIG_IGN);
    keeper::log_for_glib();
    read.config.boot = std::to_string(g_random_int());
    if (options.hold) {
        /* Also with a mistake in the file, which must not keep the services down. */
        keeper::hold_for_quorum(read.config);
    }
    if (!read.problems.empty()) {
        return status_configuration;
    }
    keeper::run_process(read.config);
}
