/* A coordinator that does nothing but say which debug categories are on, and fails when asked to.
 */
#include "base/log.h"
#include "coordinator/duskvale-corosync.h"

#include <unistd.h>

DuskvaleCorosync *duskvale_corosync_new(GMainContext *context) {
    static GObject object;
    for (int category = 0; category < 32; category++) {
        DUSKVALE_DBG(LogCategory{category}, "%d\n", category);
    }
    const bool fails = access("/etc/duskvale/no-coordinator", F_OK) == 0;
    return context == g_main_context_default() && !fails
               ? reinterpret_cast<DuskvaleCorosync *>(&object)
               : nullptr;
}
