// What every subcommand stands on: the settings of the command line, the started framework, and how a failure reaches
// the user. All of it belongs to the main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <qzfi_fi.h>

namespace qzfi::tool {

/// The exit codes; the manual page has the same list.
enum ExitCode : int {
    exit_done = 0,
    exit_failed = 1,        ///< the text on standard error names operation, object and cause
    exit_usage = 2,         ///< the command line is wrong, or a confirmation is missing
    exit_differs = 3,       ///< `verify` or `repair` found damage, or `diff --exit-code` a difference
    exit_post_command = 4,  ///< the image is there, but the post command failed
    exit_interrupted = 130, ///< by a signal; nothing is half-made
    exit_unread = 141       ///< the reader of standard output went away
};

/// Options that every subcommand takes.
struct Settings {
    std::string root; ///< the installation root; never empty
    bool quiet = false;
    bool trace = false; ///< trace lines go to standard error
};

/// A failure to be told: `what()` is the first line, `causes` the texts of the error records behind it.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string &text, int exit_code = exit_failed, std::vector<std::string> causes = {})
        : std::runtime_error(text), code_(exit_code), causes_(std::move(causes)) {}
    int code() const { return code_; }
    const std::vector<std::string> &causes() const { return causes_; }

private:
    int code_;
    std::vector<std::string> causes_;
};

/// The framework, started; stopped at the end of its life. There is one at a time.
class Session {
public:
    /// Throws Failure.
    explicit Session(const Settings &settings);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
};

/// The texts of the calling thread's error records, the last raised first; the records are deleted.
std::vector<std::string> take_errors();

/// The text of a status with its number, as in "no such image (1024)".
std::string status_text(int32_t status);

/// The failure that `check` throws, with the calling thread's error records.
Failure failure_of(int32_t status, const std::string &action);

/// Throws Failure "ACTION: STATUS TEXT (STATUS)" unless `status` is 0; QFI_FI_CANCELLED has `exit_interrupted`.
/// `action` says what was tried with what, as in "freeze /data".
void check(int32_t status, const std::string &action);

/// The path from the root on. Throws Failure as `check` where it is relative and there is no working folder any more.
std::string absolute_path(const std::string &path, const std::string &action);

/// Tells a failure on standard error.
void tell(const Failure &failure);

/// An optional argument of an operation: null for an empty text.
inline const char *or_null(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

/// Owners of what the operations hand out. They name the front end itself: its typed wrappers are another function in
/// every file, which would make another type there.
template <auto release>
struct Releaser {
    template <typename T>
    void operator()(T *what) const {
        (void)release(what);
    }
};
inline int32_t detach_tree(qfi_domain *tree) {
    return qfi_op_detach(tree, nullptr, 0, nullptr);
}
using Tree = std::unique_ptr<qfi_domain, Releaser<detach_tree>>;
using ImageList = std::unique_ptr<qfi_image_list, Releaser<qzfiapi_free_snapreplica_list>>;
using Report = std::unique_ptr<qfi_report, Releaser<qzfiapi_free_buffer>>;
using Text = std::unique_ptr<char, Releaser<qzfiapi_free_buffer>>;
using Diff = std::unique_ptr<qfi_diff, Releaser<qzfiapi_free_buffer>>;

/// A result pointer for an operation: `qfi_op_gentree(..., Out(tree))`.
template <typename Owner>
class Out {
public:
    explicit Out(Owner &owner) : owner_(owner) {}
    ~Out() { owner_.reset(raw_); }
    Out(const Out &) = delete;
    Out &operator=(const Out &) = delete;
    operator typename Owner::pointer *() { return &raw_; }

private:
    Owner &owner_;
    typename Owner::pointer raw_ = nullptr;
};

} // namespace qzfi::tool
