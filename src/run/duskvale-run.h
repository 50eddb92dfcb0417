/*
 * DuskvaleRun: runs the step programs of a run directory for a role, one after another: every entry
 * whose name ends in ".run", ascending by name with the argument "start" for the master, descending
 * with "stop" for a slave. A step that runs for 240 seconds gets one SIGTERM. A role asked for
 * while a sequence runs is remembered (only the last one) and run afterwards. A failing step never
 * stops the sequence.
 */
#pragma once

#include <glib-object.h>

/* Any slot may be null and is then skipped; results are ignored. `step` is the full path of the
   step program, valid only during the call. A slot may ask for a role, but must not release the
   runner. */
struct DuskvaleRunAgents {
    int (*step_start)(gpointer user_data, const char *step, gboolean is_master, GPid pid);
    /* `status` is the raw wait status, see wait(2). */
    void (*step_end)(gpointer user_data, const char *step, gboolean is_master, GPid pid,
                     int status);
    /* `errors` counts the steps that ended with a non-zero wait status. */
    int (*steps_done)(gpointer user_data, int errors);
    void (*reserved)(); /* never called */
};

#define DUSKVALE_TYPE_RUN (duskvale_run_get_type())
G_DECLARE_FINAL_TYPE(DuskvaleRun, duskvale_run, DUSKVALE, RUN, GObject)

/* A new runner, owned by the caller. `run_dir` is copied; `agents` (may be null) and `user_data`
   are borrowed. Released in mid-sequence, it calls no agent any more and the step that runs is left
   to itself: nobody ends or reaps it. */
DuskvaleRun *duskvale_run_new(const char *run_dir, const DuskvaleRunAgents *agents,
                              gpointer user_data);

/* Asks for a sequence for the role. Always TRUE; what became of it arrives through the agents,
   before the return when there is no step to run. */
gboolean duskvale_run_start(DuskvaleRun *self, gboolean is_master);
