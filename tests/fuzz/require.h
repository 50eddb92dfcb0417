/* What the fuzzers share. For libFuzzer only an end of the process is a failure. */
#pragma once

inline void require(bool holds) {
    if (!holds) {
        __builtin_trap(); /* abort() ends only a node in the simulation */
    }
}
