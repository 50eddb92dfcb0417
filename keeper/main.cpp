#include "keeper/config.h"
#include "keeper/edge/disk.h"
#include "keeper/edge/log.h"
#include "keeper/hold.h"
#include "keeper/paths.h"
#include "keeper/process.h"
#include "keeper/version.h"

#include "base/paths.h"

#include <glib.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

constexpr int status_usage = 2;
/* EX_CONFIG of sysexits.h. */
constexpr int status_configuration = 78;

constexpr const char *usage =
    "Usage: duskvale-keeper [--check [FILE] | --hold | --help | --version]\n"
    "Keeps a node's services in step with its role: duskvale-keeper(8)\n"
    "  --check    check FILE, or else " DUSKVALE_KEEPER_CONFIG_FILE "\n"
    "  --hold     wait until this node has quorum; for the daemon's unit\n";

int main(int argc, char *argv[]) {
    const std::string option = argc > 1 ? argv[1] : "";
    const bool check = option == "--check";
    if (option == "--help" || option == "--version") {
        printf("%s", option == "--help" ? usage : "duskvale-keeper " DUSKVALE_VERSION "\n");
        return EXIT_SUCCESS;
    }
    if (argc > (check ? 3 : 2) || (!option.empty() && !check && option != "--hold")) {
        fprintf(stderr, "duskvale-keeper: wrong arguments\n%s", usage);
        return status_usage;
    }
    const char *file = argc > 2 ? argv[2] : DUSKVALE_KEEPER_CONFIG_FILE;
    keeper::ConfigRead read = keeper::read_config(file);
    for (const std::string &problem : read.problems) {
        keeper::log_line(LOG_ERR, problem);
    }
    if (check) {
        printf("%s", read.problems.empty() ? (std::string(file) + ": no errors\n").c_str() : "");
        return read.problems.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    /* Threads here only wait; memory of their own would only cost. */
    mallopt(M_ARENA_MAX, 1);
    signal(SIGPIPE, SIG_IGN);
    keeper::log_for_glib();
    if (option == "--hold") {
        const auto [stored, problem] = keeper::Disk{DUSKVALE_KEEPER_STATE_FILE, {}}.read();
        if (!problem.empty()) {
            keeper::log_line(LOG_ERR, "SETTINGS: nothing can be repaired: " + problem);
        }
        keeper::repair_setting(DUSKVALE_PREFERRED_MASTER_FILE, stored.preferred_file);
        keeper::repair_setting(DUSKVALE_FROZEN_MASTER_FILE, stored.frozen_file);
        /* Also with a mistake in the file, which must not keep the services down. */
        keeper::hold_for_quorum(read.config);
    }
    if (!read.problems.empty()) {
        return status_configuration;
    }
    read.config.boot = std::to_string(g_random_int());
    keeper::run_process(read.config);
}
