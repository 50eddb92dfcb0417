/* What the scripted tests share. */
#pragma once

#include "cluster.h"
#include "support/golden.h"

#include <gmock/gmock.h>

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

/* What came of it since the last time: the masters, the messages that were ordered, and what each
   node has logged and announced. */
inline std::string outcome(const std::string &title, Cluster &c) {
    std::string text = "### " + title + "\nmasters: " + c.masters() + "\nmessages:";
    for (const auto &[type, count] : std::exchange(c.sent, {})) {
        text += " " + std::to_string(count) + " " + type;
    }
    for (auto &[key, node] : c.nodes) {
        text += "\nnode " + std::to_string(key) + "\n" + node.take_log();
        for (const std::string &signal : node.take_signals()) {
            text += "    " + signal + "\n";
        }
    }
    return text + "\n";
}
