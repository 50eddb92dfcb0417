/* duskvalectl as a function. */
#pragma once

namespace ctl {

/* Carries out one command line; returns the exit status. */
int run(int argc, char **argv);

} // namespace ctl
