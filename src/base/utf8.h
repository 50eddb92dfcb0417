/*
 * The one door in front of the bus. libdbus ends the whole process when a string that is not valid
 * UTF-8 is put into a message, and texts reach us from places that promise nothing: sysfs
 * attributes cut in the middle of a character, odd file names, files edited by hand, other nodes'
 * messages.
 */
#pragma once

#include <string>

/* `text` with every invalid byte replaced by U+FFFD (g_utf8_make_valid); null reads as "". */
std::string duskvale_utf8(const char *text);
