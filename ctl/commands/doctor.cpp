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
    {"corosync", check_corosync}, {"bus", check_bus},           {"daemon", check_daemon},
    {"unit", check_unit},         {"settings", check_settings}, {"steps", check_steps},
    {"devices", check_devices},
};

Facts look_around() {
    Facts facts;
    facts.corosync = view_corosync();
    facts.unit = view_unit();
    Bus bus;
    facts.bus = bus.connect();
    if (facts.bus) {
        facts.owner = *facts.bus;
        facts.daemon = *facts.bus;
    } else {
        facts.owner = bus.owner();
        facts.daemon = bus.read();
    }
    return facts;
}

Colour colour_of(Level level) {
    switch (level) {
    case Level::ok:
        return Colour::good;
    case Level::note:
        return Colour::faint;
    case Level::unknown:
    case Level::warning:
        return Colour::doubtful;
    case Level::critical:
        break;
    }
    return Colour::bad;
}

std::string column(std::string text) {
    constexpr std::size_t width = 10;
    text.resize(std::max(width, text.size() + 1), ' ');
    return text;
}

/* As the line of `check` begins, with the number of findings that are worth a deed. */
std::string summary(const Findings &findings) {
    static constexpr const char *words[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    const auto count = [&findings](Level level) {
        return std::count_if(findings.list().begin(), findings.list().end(),
                             [level](const Finding &finding) { return finding.level == level; });
    };
    const auto critical = count(Level::critical);
    const auto warnings = static_cast<uint64_t>(count(Level::warning));
    const auto unknown = count(Level::unknown);
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
        add(std::to_string(unknown) + " not to be seen");
    }
    const Level worst = worst_of(findings);
    return paint(colour_of(worst == Level::note ? Level::ok : worst),
                 words[static_cast<int>(exit_of(worst))]) +
           " - " + (text.empty() ? "nothing to do" : text) + "\n";
}

void print_findings(const Findings &findings) {
    for (const Finding &finding : findings.list()) {
        print(paint(colour_of(finding.level), column(level_word(finding.level))) +
              column(finding.area) + finding.text + "\n");
        if (!finding.next.empty()) {
            print(column("") + column("") + "next: " + finding.next + "\n");
        }
    }
    print(summary(findings));
}

void print_json(const Findings &findings) {
    const Level worst = worst_of(findings);
    Json list = Json::array();
    for (const Finding &finding : findings.list()) {
        list.push_back({{"area", finding.area},
                        {"level", level_word(finding.level)},
                        {"text", finding.text},
                        {"next", finding.next.empty() ? Json() : Json(finding.next)}});
    }
    print_line(json_line(
        {{"status", level_word(worst == Level::note ? Level::ok : worst)}, {"findings", list}}));
}

} // namespace

int command_doctor(const Arguments &arguments) {
    const Facts facts = look_around();
    Findings findings;
    for (const Check &check : checks) {
        findings.begin(check.area);
        check.run(facts, findings);
    }
    if (arguments.has(Opt::json)) {
        print_json(findings);
    } else {
        print_findings(findings);
    }
    return static_cast<int>(exit_of(worst_of(findings)));
}

} // namespace ctl
