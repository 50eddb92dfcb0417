#include "base/utf8.h"

#include <glib.h>

std::string duskvale_utf8(const char *text) {
    if (text == nullptr) {
        return {};
    }
    g_autofree gchar *valid = g_utf8_make_valid(text, -1);
    return valid;
}
