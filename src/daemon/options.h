/* The command line. */
#pragma once

#include <cstdint>

/* Texts are borrowed from argv, or are literals. */
struct Options {
    bool foreground = false;               /* -f */
    const char *pid_file = nullptr;        /* -p */
    const char *syslog_facility = nullptr; /* -s; "local5" when neither -f nor -s was given */
    int verbosity = 0;                     /* how many -v */
    uint32_t debug_mask = 0;               /* -d; what is not a number reads as 0 */
};

/*
 * Reads the whole command line into `options`; arguments that are not options are ignored. Returns
 * 0, or the character of the first option that is not accepted: its letter, or '?' when getopt(3)
 * has complained already.
 */
int parse_options(int argc, char *argv[], Options *options);
