/* What the scripted tests share. */
#pragma once

#include "cluster.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using sim::Booted;
using sim::Cluster;
using sim::words;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

/* What the node logs in the meantime, with debug lines. */
template <typename Act>
std::string debug_log(sim::Node &node, Act act) {
    node.log.clear();
    sim::debug_lines = true;
    act();
    sim::debug_lines = false;
    return node.take_log();
}
