#include "ctl/print/nodes.h"

#include "ctl/print/text.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <vector>

namespace ctl {

namespace {

using Row = std::array<std::string, 6>;
const Row headings{"NODE", "ROLE", "RUN STEPS", "QUORUM", "LAST HEARD", "FIT"};

std::string age_text(int64_t since) {
    const int64_t seconds = (g_get_monotonic_time() - since) / G_USEC_PER_SEC;
    return seconds == 0 ? "0 s" : duration_text(std::chrono::seconds(seconds));
}

Row row_of(const client::KeeperNode &node, client::NodeId local) {
    const bool self = node.id == local;
    return {node_text(node) + (self ? ", this node" : ""),
            node.role + (node.preferred ? ", preferred" : ""),
            steps_text(node),
            node.quorum,
            node.heard ? age_text(*node.heard) + " ago"
            : self     ? "-"
                       : "never",
            node.unfit ? "no: " + printable(*node.unfit) : "yes"};
}

Colour colour_of(const client::KeeperNode &node) {
    const bool failed = node.steps == "failed" || node.steps == "not-runnable";
    return failed || node.role == "down" ? Colour::bad
           : node.unfit                  ? Colour::doubtful
           : node.role == "master"       ? Colour::good
                                         : Colour::plain;
}

} // namespace

std::string node_text(const client::KeeperNode &node) {
    return node.name.empty() ? node_text(node.id) : printable(node.name);
}

std::string steps_text(const client::KeeperNode &node) {
    std::string text = node.steps == "not-runnable" ? "cannot run" : node.steps;
    if (!node.step.empty()) {
        text += " " + file_name(node.step);
    }
    if (node.steps == "running" && node.since) {
        text += " for " + age_text(*node.since);
    }
    if (node.steps == "failed") {
        text += ": " + wait_status_text(node.step_status);
    }
    return text;
}

std::string nodes_table(const client::KeeperState &keeper) {
    std::vector<Row> rows{headings};
    for (const client::KeeperNode &node : keeper.nodes) {
        rows.push_back(row_of(node, keeper.local_node));
    }
    std::array<std::size_t, std::tuple_size_v<Row>> widths{};
    for (const Row &row : rows) {
        for (std::size_t i = 0; i < row.size(); i++) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string table;
    for (std::size_t r = 0; r < rows.size(); r++) {
        std::string line;
        for (std::size_t i = 0; i < rows[r].size(); i++) {
            const bool last = i + 1 == rows[r].size();
            line += last ? rows[r][i] : column(rows[r][i], widths[i] + 2);
        }
        table += paint(r == 0 ? Colour::faint : colour_of(keeper.nodes[r - 1]), line) + "\n";
    }
    return table;
}

} // namespace ctl
