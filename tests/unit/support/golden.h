/*
 * Texts held against kept examples, in the directory that GOLDEN names. With UPDATE_GOLDEN=1 in
 * the environment of the test the examples are written again; read the difference before you commit
 * it.
 */
#pragma once

#include "support/file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

/* Compares with golden/NAME. */
inline void expect_golden(const std::string &name, const std::string &text) {
    const std::filesystem::path path = std::filesystem::path(GOLDEN) / name;
    if (std::getenv("UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path) << text;
    }
    if (text != file_text(path)) {
        ADD_FAILURE() << path << " differs: + is what came of it now";
        FILE *diff = popen(("diff -u '" + path.string() + "' -").c_str(), "w");
        fputs(text.c_str(), diff);
        pclose(diff);
    }
}
