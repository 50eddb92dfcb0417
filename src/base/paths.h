/* Every fixed path and name of the daemon. None can be changed at run time. */
#pragma once

#define DUSKVALE_IDENT "duskvale-corosync-bridge"
#define DUSKVALE_CPG_GROUP "duskvale"

#define DUSKVALE_BUS_NAME "com.norvel.DuskvaleCorosync"
/* The interface of the object has the same name. */
#define DUSKVALE_BUS_INTERFACE DUSKVALE_BUS_NAME
#define DUSKVALE_BUS_PATH "/com/norvel/DuskvaleCorosync"

#define DUSKVALE_PREFERRED_MASTER_FILE "/etc/duskvale/preferred_master"
#define DUSKVALE_FROZEN_MASTER_FILE "/etc/duskvale/frozen_master"

#define DUSKVALE_RUN_DIR "/usr/share/duskvale/run.d"

/* One match is one device: an entry "lumacrates:..." in a device directory of the driver's bus. */
#define DUSKVALE_DEVICES_PATTERN "/sys/bus/lumacrates/devices/*/lumacrates:*"
