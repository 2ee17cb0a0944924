// qzfi doctor: looks at the installation and says what is wrong with it, and what to do.
#include <iostream>
#include <unistd.h>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/doctor.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    bool json = false;
};

const char *name_of(Health health) {
    return health == Health::ok ? "ok" : health == Health::warning ? "warning" : "failure";
}

void print_text(const Findings &findings) {
    std::size_t width = 0;
    for (const Finding &finding : findings)
        width = std::max(width, finding.check.size());
    const bool is_terminal = isatty(STDOUT_FILENO) == 1;
    const std::size_t room = is_terminal ? terminal_width(STDOUT_FILENO) : std::string::npos;
    // Where little is left beside the names, a text goes on below them.
    const std::size_t indent = 7 + 2 + width + 2, beside = indent + 30 <= room ? indent : 4;
    for (const Finding &finding : findings) {
        const std::string name = name_of(finding.health);
        const std::string padded = name + std::string(7 - name.size(), ' ');
        const std::string line = padded + "  " + finding.check + std::string(width - finding.check.size(), ' ') + "  " +
                                 printable(finding.object) + ": " + printable(finding.text);
        const std::string text = wrapped(line, room, beside);
        std::cout << (finding.health == Health::ok ? padded : red(padded)) << text.substr(padded.size()) << '\n';
        if (!finding.hint.empty())
            std::cout << wrapped(std::string(beside, ' ') + "-> " + printable(finding.hint), room, beside + 3) << '\n';
    }
}

Json json_of(const Findings &findings, bool is_well) {
    Json list = Json::array();
    for (const Finding &finding : findings)
        list.push_back({{"check", finding.check},
                        {"object", json_text(finding.object)},
                        {"health", name_of(finding.health)},
                        {"text", json_text(finding.text)},
                        {"hint", json_text(finding.hint)}});
    return {{"healthy", is_well}, {"checks", std::move(list)}};
}

int run(const Settings &settings, const Options &options) {
    Findings findings;
    for (const auto check :
         {check_root, check_library, check_entries, check_probe, check_framework, check_messages, check_log})
        check(settings, findings);
    std::size_t failures = 0, warnings = 0;
    for (const Finding &finding : findings) {
        failures += finding.health == Health::failure ? 1 : 0;
        warnings += finding.health == Health::warning ? 1 : 0;
    }
    if (options.json) {
        print(json_of(findings, failures == 0));
    } else {
        print_text(findings);
        std::cout << grouped(failures) << (failures == 1 ? " failure, " : " failures, ") << grouped(warnings)
                  << (warnings == 1 ? " warning\n" : " warnings\n");
    }
    return failures == 0 ? exit_done : exit_failed;
}

} // namespace

void add_doctor(CommandLine &line) {
    add_command<Options>(line, "doctor", "Check the installation, and say what to do about what is wrong", run,
                         [](Arguments &command, Options &options) { add_json(command, options.json); });
}

} // namespace qzfi::tool
