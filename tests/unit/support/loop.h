/* Turns the default main context until something holds. */
#pragma once

#include <glib.h>

/* TRUE as soon as `condition` holds; FALSE when it did not within a limit far beyond any real wait.
 */
template <typename Condition>
bool loop_until(Condition condition, gint64 limit_seconds = 20) {
    const gint64 end = g_get_monotonic_time() + limit_seconds * G_USEC_PER_SEC;
    /* A timer of its own wakes an otherwise idle context, so that the limit holds. */
    const guint tick = g_timeout_add(
        10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    bool holds = condition();
    while (!holds && g_get_monotonic_time() < end) {
        g_main_context_iteration(nullptr, TRUE);
        holds = condition();
    }
    g_source_remove(tick);
    return holds;
}
