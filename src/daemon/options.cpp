#include "daemon/options.h"

#include <unistd.h>

#include <cstdlib>

int parse_options(int argc, char *argv[], Options *options) {
    int letter;
    while ((letter = getopt(argc, argv, "fp:s:hvd:")) != -1) {
        switch (letter) {
        case 'f':
            options->foreground = true;
            break;
        case 'p':
            options->pid_file = optarg;
            break;
        case 's':
            options->syslog_facility = optarg;
            break;
        case 'v':
            options->verbosity++;
            break;
        case 'd':
            options->debug_mask = static_cast<uint32_t>(strtoul(optarg, nullptr, 0));
            break;
        default:
            return letter;
        }
    }
    if (!options->foreground && options->syslog_facility == nullptr) {
        options->syslog_facility = "local5";
    }
    return 0;
}
