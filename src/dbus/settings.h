/*
 * The two operator settings that outlive a restart, each in a small text file below /etc/duskvale
 * (which is never created here). The files are read once, at the object's creation, and rewritten
 * whenever their setting changes. Their texts are stored as received: only what goes to the bus is
 * made valid.
 */
#pragma once

#include "dbus/duskvale-dbus.h"

/* Loads whether this node is the preferred master; not preferred when the file does not say. */
void read_preferred_master(DuskvaleDBus *self);

/*
 * Loads the node that mastership is frozen to, and the reason. Not frozen when the file cannot be
 * read (the reason stays null) or begins with no number (then its first line becomes the reason).
 */
void read_frozen_master(DuskvaleDBus *self);

/* Writes this node's preference to its file; a file that cannot be opened is logged. */
void duskvale_set_preferred_master(DuskvaleDBus *self);

/* Writes the present freeze to its file, or removes the file when there is none; a failure is
   logged. */
void update_frozen_master(DuskvaleDBus *self);
