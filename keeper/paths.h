/* The keeper's fixed paths and names. None can be changed at run time. */
#pragma once

#define DUSKVALE_KEEPER_IDENT "duskvale-keeper"

#define DUSKVALE_KEEPER_BUS_NAME "com.norvel.DuskvaleKeeper"
#define DUSKVALE_KEEPER_BUS_INTERFACE DUSKVALE_KEEPER_BUS_NAME
#define DUSKVALE_KEEPER_BUS_PATH "/com/norvel/DuskvaleKeeper"

#define DUSKVALE_KEEPER_CONFIG_FILE "/etc/duskvale/keeper.conf"
#define DUSKVALE_KEEPER_WATCH_DIR "/etc/duskvale/watch.d"
/* In the unit's StateDirectory. */
#define DUSKVALE_KEEPER_STATE_FILE "/var/lib/duskvale-keeper/state"

/* The unit whose main process is the daemon. */
#define DUSKVALE_DAEMON_UNIT "duskvale-corosync-bridge.service"
/* The same as systemd writes it in the path of its object. */
#define DUSKVALE_DAEMON_UNIT_ON_BUS "duskvale_2dcorosync_2dbridge_2eservice"
