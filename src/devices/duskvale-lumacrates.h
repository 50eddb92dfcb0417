/*
 * DuskvaleLumacrates: counts and describes the Lumacrate devices of this node from sysfs. The count
 * is the property "lumacrate-count" (int); it changes only by a scan.
 */
#pragma once

#include <glib-object.h>

/* One device. A field whose attribute cannot be read is empty. */
struct DuskvaleLumacrateInfo {
    char location[40];
    char hardware_id[40];
};
static_assert(sizeof(DuskvaleLumacrateInfo) == 80);

/* A null table or slot is skipped; results are ignored. `user_data` comes last. A slot must not
   scan or release the inventory. */
struct DuskvaleLumacratesAgents {
    /* After a hotplug report: the total of this node, what was added (`info` is empty for a
       removal), and the path given with the report. All valid only during the call. */
    int (*notify)(gint32 total, const DuskvaleLumacrateInfo *info, gboolean added,
                  const char *devpath, gpointer user_data);
    /* Each time the count is set, whether or not it changed. */
    int (*count)(gint32 count, gpointer user_data);
};

/* No operation reports through this domain. */
enum DuskvaleLumacratesError { DUSKVALE_LUMACRATES_ERROR_GENERAL = 0 };
GQuark duskvale_lumacrates_error_quark() noexcept;
GType duskvale_lumacrates_error_get_type() noexcept;

#define DUSKVALE_TYPE_LUMACRATES (duskvale_lumacrates_get_type())
G_DECLARE_FINAL_TYPE(DuskvaleLumacrates, duskvale_lumacrates, DUSKVALE, LUMACRATES, GObject)

/* A new inventory, owned by the caller, after its first scan (the count agent is called during the
   construction). `agents` (may be null) and `user_data` are borrowed. */
DuskvaleLumacrates *duskvale_lumacrates_new(const DuskvaleLumacratesAgents *agents,
                                            gpointer user_data);

/*
 * Scans sysfs. Returns the new count, or -1 after a logged failure (the driver is not loaded): then
 * the count keeps its value and no agent is called. `details` may be null; else it receives an
 * array of one record per device in scan order, or null when memory ran out, to be released with
 * duskvale_lumacrates_inventory_free().
 */
gint32 duskvale_lumacrates_inventory(DuskvaleLumacrates *self, DuskvaleLumacrateInfo **details);
void duskvale_lumacrates_inventory_free(DuskvaleLumacrates *self, DuskvaleLumacrateInfo *details);

/* The count of the last good scan; 0 before one. */
gint32 duskvale_lumacrate_count(DuskvaleLumacrates *self);

/*
 * A hotplug report: rescans, reads the device at `devpath` (its sysfs directory, absolute) when it
 * was added, and calls the notify agent with the new total; with the last good count when the
 * rescan failed. The report itself is never counted: sysfs is.
 */
void duskvale_lumacrate_event(DuskvaleLumacrates *self, gboolean added, const char *devpath);

/* Drops the caller's reference. */
void duskvale_lumacrates_destroy(DuskvaleLumacrates *self);
