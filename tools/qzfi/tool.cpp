#include "tools/qzfi/tool.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "tools/qzfi/library.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

// The host's side of the framework. Static, as it must outlive the shutdown.
void show_trace(qfi_handler *, const char *text, const char *, uint32_t) {
    std::fprintf(stderr, "%s", text);
    const std::size_t length = std::strlen(text);
    if (length == 0 || text[length - 1] != '\n')
        std::fputc('\n', stderr);
}
void say_nothing(qfi_handler *, const char *, const char *, uint32_t) {}
qfi_handler host = {say_nothing, nullptr, nullptr, nullptr};

// Why the API implementation library is not bound. Its record lacks the last argument, as every record does: the entry,
// or what the loader said. So the loader is asked again.
std::string library_obstacle() {
    char *root = nullptr;
    if (qzfi_get_install_root(&root) != QFI_STATUS_OK || root == nullptr)
        return "the framework is not started";
    const std::string path = library_of(root);
    std::free(root);
    std::string obstacle = "it refuses to start";
    try {
        if (const std::vector<std::string> missing = missing_entries(path); !missing.empty())
            obstacle = std::to_string(missing.size()) + " of " + std::to_string(entry_count) +
                       " entries are missing, " + missing.front() + " first";
    } catch (const std::exception &error) {
        obstacle = error.what();
    }
    return path + " cannot be used: " + obstacle;
}

std::string record_text(const qfi_error_info *error) {
    char *text = nullptr;
    if (qfi_op_get_locale_message(error, &text, nullptr) != QFI_STATUS_OK || text == nullptr) {
        // Without the API implementation library there is nobody who formats: the first argument is the format.
        std::string plain =
            error->count > 0 && error->arguments[0] != nullptr ? error->arguments[0] : error->message_id;
        for (int32_t index = 1; index < error->count; ++index) {
            const std::size_t place = plain.find("%s");
            if (place != std::string::npos)
                plain.replace(place, 2, error->arguments[index] != nullptr ? error->arguments[index] : "");
        }
        for (std::size_t place = plain.find("%s"); place != std::string::npos; place = plain.find("%s"))
            plain.erase(place, 2); // the record does not hold them all
        std::replace(plain.begin(), plain.end(), '\n', ' ');
        while (!plain.empty() && (plain.back() == ' ' || plain.back() == ':'))
            plain.pop_back();
        return plain;
    }
    std::string result = text;
    qfi_op_del_locale_message(text);
    while (!result.empty() && result.back() == '\n')
        result.pop_back();
    return result;
}

} // namespace

Session::Session(const Settings &settings) {
    host.error = settings.trace ? show_trace : say_nothing;
    host.reserved1 = progress_handler();
    int32_t status = qzfiapi_set_init_env(settings.root.c_str(), "qzfi");
    if (status == QFI_STATUS_OK)
        status = qzfiapi_start(&host, QFI_API_VERSION);
    check(status, "start the framework below " + settings.root);
}

Session::~Session() {
    qzfiapi_shutdown();
    fi_del_all_errors();
}

std::vector<std::string> take_errors() {
    // All first: where no library can be loaded to format them, each attempt raises one more.
    std::vector<const qfi_error_info *> errors;
    qfi_error_info *error = nullptr;
    while (does_last_error_exist(&error) == 1 && error != nullptr) {
        errors.push_back(error);
        error = nullptr;
    }
    std::vector<std::string> texts;
    texts.reserve(errors.size());
    for (const qfi_error_info *const each : errors)
        texts.push_back(record_text(each));
    fi_del_all_errors();
    return texts;
}

std::string status_text(int32_t status) {
    const char *text = nullptr;
    std::string result = "unknown status";
    if (qzfiapi_errmsg(static_cast<uint32_t>(status), &text) == QFI_STATUS_OK && text != nullptr)
        result = text;
    while (!result.empty() && (result.back() == '\n' || result.back() == '.'))
        result.pop_back();
    return result + " (" + std::to_string(status) + ")";
}

Failure failure_of(int32_t status, const std::string &action) {
    if (status == QFI_STATUS_NOT_STARTED) {
        fi_del_all_errors(); // less than what is told here
        return Failure(action + ": " + library_obstacle(), exit_failed, {status_text(status)});
    }
    std::vector<std::string> causes = take_errors();
    const int code = status == QFI_FI_CANCELLED ? exit_interrupted : exit_failed;
    return Failure(action + ": " + status_text(status), code, std::move(causes));
}

void check(int32_t status, const std::string &action) {
    if (status != QFI_STATUS_OK)
        throw failure_of(status, action);
}

std::string absolute_path(const std::string &path, const std::string &action) {
    std::error_code error;
    std::string result = std::filesystem::absolute(path, error).string();
    if (error)
        throw Failure(action + ": the path is relative, and the working folder cannot be told: " + error.message());
    return result;
}

void tell(const Failure &failure) {
    std::cout.flush();
    std::cerr << "qzfi: " << printable(failure.what()) << '\n';
    // What a command said may have lines of its own. Those of a name are marked too, so that it cannot pass for ours.
    for (const std::string &cause : failure.causes()) {
        std::istringstream lines(cause);
        const char *begin = "  ";
        for (std::string line; std::getline(lines, line); begin = "  | ")
            std::cerr << begin << printable(line) << '\n';
    }
}

} // namespace qzfi::tool
