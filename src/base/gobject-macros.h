/*
 * The macros of GLib and GObject with -Wold-style-cast and its kin silenced: their expansions hold
 * C casts that are not ours to fix. Every source file that defines a class includes this instead
 * of <glib-object.h> alone.
 */
#pragma once

#include <glib-object.h>
#include <glib.h>

#pragma GCC diagnostic ignored "-Wold-style-cast"
