#include "ctl/commands/commands.h"
#include "ctl/doctor/checks.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

#include <algorithm>

namespace ctl {

namespace {

struct Check {
    const char *area;
    void (*run)(const Facts &, Findings &);
};

/* From the ground up: what is wrong further down explains what is wrong above it. */
constexpr Check checks[] = {
    {"corosync", check_corosync}, {"bus", check_bus},         {"daemon", check_daemon},
    {"unit", check_unit},         {"keeper", check_keeper},   {"settings", check_settings},
    {"steps", check_steps},       {"devices", check_devices},
};

std::string column(std::string text) {
    constexpr std::size_t width = 10;
    text.resize(std::max(width, text.size() + 1), ' ');
    return text;
}

/* As the line of `check` begins, with the number of findings that are worth a deed. */
std::string summary(const Findings &findings) {
    const auto critical = findings.count(Level::critical);
    const auto warnings = findings.count(Level::warning);
    const auto unknown = findings.count(Level::unknown);
    std::string text;
    const auto add = [&text](const std::string &part) {
        text += (text.empty() ? "" : ", ") + part;
    };
    if (critical > 0) {
        add(std::to_string(critical) + " critical");
    }
    if (warnings > 0) {
        add(counted(warnings, "warning"));
    }
    if (unknown > 0) {
        add(std::to_string(unknown) + " unknown");
    }
    const LevelSpec &worst = spec_of(findings.worst());
    return paint(worst.colour, worst.verdict) + " - " + (text.empty() ? "nothing to do" : text) +
           "\n";
}

void print_findings(const Findings &findings) {
    for (const Finding &finding : findings.list()) {
        print(paint(spec_of(finding.level).colour, column(spec_of(finding.level).word)) +
              column(finding.area) + finding.text + "\n");
        if (!finding.next.empty()) {
            print(column("") + column("") + "next: " + finding.next + "\n");
        }
    }
    print(summary(findings));
}

void print_json(const Findings &findings) {
    Json list = Json::array();
    for (const Finding &finding : findings.list()) {
        list.push_back({{"area", finding.area},
                        {"level", spec_of(finding.level).word},
                        {"text", finding.text},
                        {"next", finding.next.empty() ? Json() : Json(finding.next)}});
    }
    print_line(json_line({{"status", spec_of(findings.worst()).word}, {"findings", list}}));
}

} // namespace

int command_doctor(const Options &options) {
    const Facts facts = gather_facts();
    Findings findings;
    for (const Check &check : checks) {
        findings.begin(check.area);
        check.run(facts, findings);
    }
    if (options.json) {
        print_json(findings);
    } else {
        print_findings(findings);
    }
    return spec_of(findings.worst()).exit_status;
}

} // namespace ctl
