// qzfi errmsg: the text of a status.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    uint32_t status = 0;
    bool json = false;
};

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const char *text = nullptr;
    const auto status = static_cast<int32_t>(qzfiapi_errmsg(options.status, &text));
    if (status == QFI_STATUS_INVALID_ARGUMENT)
        throw Failure("status " + std::to_string(options.status) + " has no text");
    check(status, "ask for the text of status " + std::to_string(options.status));
    if (options.json)
        print(Json{{"status", options.status}, {"text", json_text(text)}});
    else
        std::cout << printable(text) << '\n';
    return exit_done;
}

} // namespace

void add_errmsg(CommandLine &line) {
    add_command<Options>(line, "errmsg", "Tell what a status number means", run,
                         [](Arguments &command, Options &options) {
                             command.add_option("STATUS", options.status, "The number, as in \"(1024)\"")
                                 .required()
                                 .within(0u, 0x7FFFFFFFu);
                             add_json(command, options.json);
                         });
}

} // namespace qzfi::tool
