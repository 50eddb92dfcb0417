#include "base/glib-log.h"
#include "base/log.h"
#include "base/paths.h"
#include "coordinator/duskvale-corosync.h"
#include "daemon/options.h"

#include <glib-unix.h>
#include <glib.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

/* Ids of the installed signal sources, by signal number; 0 where there is none. */
using SignalSources = std::array<guint, 65>;

const char *progname;
/* Borrowed while the loop runs; null as soon as it has been asked to quit. */
GMainLoop *main_loop;

[[noreturn]] void usage() {
    fprintf(stderr,
            "Usage:\n"
            "%s [options...]\n"
            "\t\t[-f]                  # Run in foreground\n"
            "\t\t[-p pidfile]          # Create pid file\n"
            "\t\t[-s syslog_facility]  # Log to named syslog facility (default 'local5')\n"
            "\t\t[-v]                  # Increase verbosity\n"
            "\t\t[-d mask]             # Debug mask (0xFF for everything)\n",
            progname);
    exit(EXIT_FAILURE);
}

/* False when the file could not be opened. One that could not be written is reported only: a full
   disk must not keep the node out of the cluster. */
bool write_pid_file(const char *path) {
    FILE *file = fopen(path, "w");
    if (file == nullptr) {
        perror(path);
        return false;
    }
    const bool printed = fprintf(file, "%d\n", getpid()) > 0;
    /* A full disk may show only when the buffer is written. */
    if (fclose(file) != 0 || !printed) {
        perror(path);
    }
    return true;
}

gboolean signal_handler(gpointer user_data) noexcept {
    DUSKVALE_INFO("GOT SIGNAL: %lu\n", static_cast<gulong>(GPOINTER_TO_SIZE(user_data)));
    if (main_loop != nullptr) {
        g_main_loop_quit(main_loop);
        main_loop = nullptr;
    }
    return TRUE;
}

void add_signal_sources(SignalSources *signal_sources) {
    for (const int signo : {SIGHUP, SIGINT, SIGTERM}) {
        DUSKVALE_INFO("add signal handler for signo: %d\n", signo);
        signal_sources->at(static_cast<size_t>(signo)) =
            g_unix_signal_add(signo, signal_handler, GSIZE_TO_POINTER(signo));
    }
}

void remove_signal_sources(SignalSources *signal_sources) {
    for (size_t signo = 0; signo < signal_sources->size(); signo++) {
        guint &id = signal_sources->at(signo);
        if (id != 0) {
            DUSKVALE_INFO("remove signal handler for signo: %d\n", static_cast<int>(signo));
            g_source_remove(id);
            id = 0;
        }
    }
}

/* The exit status: 0 after a loop that ran and was stopped. */
int run_mainloop() {
    GMainContext *main_context = g_main_context_default();
    if (main_context == nullptr) {
        DUSKVALE_ERR("main context default\n");
        return EXIT_FAILURE;
    }
    g_autoptr(GMainLoop) loop = g_main_loop_new(main_context, FALSE);
    if (loop == nullptr) {
        DUSKVALE_ERR("main loop\n");
        return EXIT_FAILURE;
    }
    main_loop = loop;
    /* Never released: it and all that it owns live until the process ends. */
    if (duskvale_corosync_new(main_context) == nullptr) {
        DUSKVALE_ERR("duskvale_corosync_new() failed\n");
        main_loop = nullptr;
        return EXIT_FAILURE;
    }
    DUSKVALE_INFO("Registered on dbus\n");
    g_main_loop_run(loop);
    DUSKVALE_INFO("Ending\n");
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char *argv[]) {
    progname = argv[0];
    duskvale_limit_glib_log();
    Options options;
    const int unknown = parse_options(argc, argv, &options);
    if (unknown != 0) {
        DUSKVALE_ERR("Unknown option '%c'\n", unknown);
        usage();
    }
    duskvale_debug_set_level(options.verbosity);
    duskvale_debug_set_categories(static_cast<int32_t>(options.debug_mask));

    const char *facility = options.syslog_facility;
    if (facility != nullptr && duskvale_debug_syslog(DUSKVALE_IDENT, facility) < 0) {
        DUSKVALE_ERR("Failed opening syslog");
        usage();
    }
    /* Standard error stays open: the loggers are tied to it, or a terminal watches it. */
    if (!options.foreground && daemon(0, 1) == -1) {
        DUSKVALE_ERR("DuskvaleCorosync daemon initialization failure.\n");
        return EXIT_FAILURE;
    }
    /* The end of a logger, or of whoever reads our standard error, must not be ours. */
    signal(SIGPIPE, SIG_IGN);
    /* After daemon(), so that the loggers are children of the process that stays. */
    if (facility != nullptr) {
        duskvale_debug_redirect(facility, DUSKVALE_IDENT);
    }
    if (options.pid_file != nullptr && !write_pid_file(options.pid_file)) {
        return EXIT_FAILURE;
    }

    SignalSources signal_sources{};
    add_signal_sources(&signal_sources);
    DUSKVALE_INFO("Starting\n");
    const int status = run_mainloop();
    remove_signal_sources(&signal_sources);
    return status;
}
