#include "ctl/commands/commands.h"
#include "ctl/doctor/checks.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

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

/* As the line of `check` begins, with the number of findings that need something done. */
std::string summary(const Findings &findings) {
    std::string text;
    for (const Level level : {Level::critical, Level::warning, Level::unknown}) {
        const std::size_t count = findings.count(level);
        const std::string some = level == Level::warning
                                     ? counted(count, "warning")
                                     : std::to_string(count) + " " + spec_of(level).word;
        text += count == 0 ? "" : (text.empty() ? "" : ", ") + some;
    }
    const LevelSpec &worst = spec_of(findings.worst());
    return paint(worst.colour, worst.verdict) + " - " + (text.empty() ? "nothing to do" : text) +
           "\n";
}

constexpr std::size_t width = 10;

void print_findings(const Findings &findings) {
    for (const Finding &finding : findings.list()) {
        print(paint(spec_of(finding.level).colour, column(spec_of(finding.level).word, width)) +
              column(finding.area, width) + finding.text + "\n");
        if (!finding.next.empty()) {
            print(column("", 2 * width) + "next: " + finding.next + "\n");
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
