#include "base/utf8.h"

#include <gtest/gtest.h>

TEST(Utf8, PassesValidTextAndReplacesEachInvalidByte) {
    EXPECT_EQ(duskvale_utf8(nullptr), "");
    EXPECT_EQ(duskvale_utf8(""), "");
    EXPECT_EQ(duskvale_utf8("Gr\u00f6\u00dfe \u20ac \U0001F600"),
              "Gr\u00f6\u00dfe \u20ac \U0001F600");
    EXPECT_EQ(duskvale_utf8("cut \xe2\x82"), "cut \ufffd\ufffd");
    EXPECT_EQ(duskvale_utf8("\xff step"), "\ufffd step");
    EXPECT_EQ(duskvale_utf8("\xc0\x80|\xed\xa0\x80"), "\ufffd\ufffd|\ufffd\ufffd\ufffd");
}
