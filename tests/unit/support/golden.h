/*
 * Texts held against kept examples, in the directory golden/ of the room. With UPDATE_GOLDEN=1 in
 * the environment of the test the examples are written anew; read the difference before you commit
 * it.
 */
#pragma once

#include "support/file.h"

#include <gtest/gtest.h>

#include <cstdlib>

/* Compares with golden/NAME. */
inline void expect_golden(const std::string &name, const std::string &text) {
    const std::filesystem::path path = std::filesystem::path(GOLDEN) / name;
    if (std::getenv("UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path) << text;
    }
    EXPECT_EQ(text, file_text(path)) << path;
}
