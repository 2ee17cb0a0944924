#include "fi/fi_library.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <linux/openat2.h>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

#include <qzfi/errors.h>
#include <qzfi/messages.h>
#include <qzfi/settings.h>
#include <qzfi_provider.h>

#include "fi/fi_errors.h"

namespace qzfi::fi {

namespace {

constexpr std::size_t argument_limit = 4;

// A terminated copy of an argument. A failure must be told even when memory is short: then the text is cut.
class ArgumentText {
public:
    void assign(std::string_view text) noexcept {
        copy_.reset(static_cast<char *>(std::malloc(text.size() + 1)));
        const std::size_t length = copy_ || text.size() < sizeof cut_ ? text.size() : sizeof cut_ - 1;
        char *const target = copy_ ? copy_.get() : cut_;
        if (length != 0)
            std::memcpy(target, text.data(), length);
        target[length] = '\0';
    }
    const char *get() const noexcept { return copy_ ? copy_.get() : cut_; }

private:
    struct Free {
        void operator()(char *text) const noexcept { std::free(text); }
    };
    std::unique_ptr<char, Free> copy_;
    char cut_[256] = "";
};

struct ArgumentTexts {
    explicit ArgumentTexts(std::initializer_list<std::string_view> arguments) noexcept {
        for (const std::string_view argument : arguments)
            if (count < argument_limit)
                texts[count++].assign(argument);
    }
    const char *operator[](std::size_t index) const noexcept { return texts[index].get(); }

    std::array<ArgumentText, argument_limit> texts;
    std::size_t count = 0;
};

void tell_host(const Message &message, const char *operation, const ArgumentTexts &texts) noexcept {
    const HostCall call;
    qzfi_getmsg(message.id, message.severity, message.format, operation, texts[0], texts[1], texts[2], texts[3]);
}

thread_local int hushed = 0;
thread_local int host_calls = 0;
thread_local KeptFailure *keeper = nullptr;

const char *in_words(int error) {
    const char *const text = strerrordesc_np(error);
    return text != nullptr ? text : "Unknown error";
}

} // namespace

void raise(const Message &message, int32_t status, const char *operation,
           std::initializer_list<std::string_view> arguments) noexcept {
    if (hushed != 0)
        return;
    if (keeper != nullptr)
        return keeper->keep(message, status, operation, arguments);
    const ArgumentTexts texts(arguments);
    tell_host(message, operation, texts);
    // The format and the operation go first; all of them are counted, or the last would not be kept.
    fi_create_error_info(message.id, 0, nullptr, &status, nullptr, static_cast<int32_t>(texts.count) + 2,
                         message.format, operation, texts[0], texts[1], texts[2], texts[3]);
}

void tell(const Message &message, const char *operation, std::initializer_list<std::string_view> arguments) noexcept {
    if (hushed == 0)
        tell_host(message, operation, ArgumentTexts(arguments));
}

void KeptFailure::keep(const Message &message, int32_t status, const char *operation,
                       std::initializer_list<std::string_view> arguments) noexcept {
    if (message_ != nullptr)
        return;
    message_ = &message;
    status_ = status;
    operation_ = operation;
    try {
        for (const std::string_view argument : arguments)
            if (count_ < argument_limit)
                arguments_[count_++] = argument;
    } catch (const std::bad_alloc &) {
        return; // told without what is missing
    }
}

void KeptFailure::raise_here() const noexcept {
    if (message_ == nullptr)
        return;
    switch (count_) {
    case 0:
        return raise(*message_, status_, operation_, {});
    case 1:
        return raise(*message_, status_, operation_, {arguments_[0]});
    case 2:
        return raise(*message_, status_, operation_, {arguments_[0], arguments_[1]});
    case 3:
        return raise(*message_, status_, operation_, {arguments_[0], arguments_[1], arguments_[2]});
    default:
        return raise(*message_, status_, operation_, {arguments_[0], arguments_[1], arguments_[2], arguments_[3]});
    }
}

#define FI_FORM(name, id, severity, format)                                                                            \
    static_assert(std::string_view(format).starts_with("%s: ") && std::string_view(format).ends_with('\n'));
FI_MESSAGES(FI_FORM)
#undef FI_FORM

std::string KeptFailure::cause() const {
    if (message_ == nullptr)
        return {};
    std::string_view format = message_->format;
    format.remove_prefix(std::string_view("%s: ").size());
    format.remove_suffix(1);
    std::string text;
    format_texts(format, {arguments_, arguments_ + count_}, text);
    return text;
}

Keep::Keep(KeptFailure &failure) noexcept : outer_(keeper) {
    keeper = &failure;
}

Keep::~Keep() {
    keeper = outer_;
}

HostCall::HostCall() noexcept {
    ++host_calls;
}

HostCall::~HostCall() {
    --host_calls;
}

bool HostCall::is_in_progress() noexcept {
    return host_calls != 0;
}

Hush::Hush() noexcept {
    ++hushed;
}

Hush::~Hush() {
    --hushed;
}

void fail(const Message &message, int32_t status, const char *operation,
          std::initializer_list<std::string_view> arguments) {
    raise(message, status, operation, arguments);
    throw Failure{status};
}

int32_t status_of(int error, int32_t otherwise) noexcept {
    switch (error) {
    case ENOSPC:
    case EDQUOT:
        return QFI_FI_NO_SPACE;
    case EACCES:
    case EPERM:
    case EROFS:
        return QFI_FI_NO_RIGHT;
    case ENOENT:
    case ENOTDIR:
        return QFI_FI_NO_SUCH_OBJECT;
    case ELOOP:
    case EXDEV:
        return QFI_FI_UNSAFE;
    case ENOMEM:
        return QFI_STATUS_NO_MEMORY;
    default:
        return otherwise;
    }
}

void fail_call(const char *operation, const char *what, std::string_view path, int error, bool reading) {
    const int32_t status = status_of(error, reading ? QFI_FI_READ : QFI_FI_WRITE);
    switch (status) {
    case QFI_FI_NO_SPACE:
        fail(message::no_space, status, operation, {path});
    case QFI_FI_NO_RIGHT:
        fail(message::no_right, status, operation, {what, path});
    case QFI_FI_NO_SUCH_OBJECT:
        fail(message::no_such_object, status, operation, {path, error_text(error)});
    case QFI_FI_UNSAFE:
        fail(message::unsafe_path, status, operation, {path, error_text(error)});
    case QFI_STATUS_NO_MEMORY:
        fail(message::no_memory, status, operation, {});
    default:
        fail(reading ? message::read_failed : message::write_failed, status, operation,
             {what, path, error_text(error)});
    }
}

std::string error_text(int error) {
    return std::string(in_words(error)) + " (" + std::to_string(error) + ")";
}

void Descriptor::reset(int fd) noexcept {
    if (fd_ >= 0 && fd_ != fd) {
        const int error = errno;
        close(fd_);
        errno = error;
    }
    fd_ = fd;
}

int open_beneath(int at, const char *path, int flags) noexcept {
    open_how how{};
    how.flags = static_cast<uint64_t>(static_cast<unsigned>(flags | O_CLOEXEC));
    if ((flags & O_PATH) == 0)
        how.flags |= O_NONBLOCK;
    if ((flags & O_CREAT) != 0)
        how.mode = 0600;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    for (uint32_t again = 0;; ++again) {
        const long fd = syscall(SYS_openat2, at, path, &how, sizeof how);
        // EAGAIN: something was renamed on the way, and the kernel could not tell whether the path left its place; or
        // somebody has a lease of the file, which may take a minute to be given back.
        if (fd >= 0 || (errno != EINTR && errno != EAGAIN))
            return static_cast<int>(fd);
        constexpr uint32_t at_once = 16;
        constexpr timespec pause{0, 10'000'000};
        if (again >= at_once)
            nanosleep(&pause, nullptr);
    }
}

bool stays_below(std::string_view path) noexcept {
    for (std::size_t start = 0; !path.empty() && start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view name = path.substr(start, end - start);
        if (name.empty() || name == "." || name == "..")
            return false;
        start = end + 1;
    }
    return true;
}

bool lies_below(std::string_view path, std::string_view folder) noexcept {
    if (folder.empty())
        return !path.empty();
    const std::size_t length = folder == "/" ? 0 : folder.size();
    return path.size() > length + 1 && path[length] == '/' && path.starts_with(folder);
}

std::string installation_root() {
    char *root = nullptr;
    if (qzfi_get_install_root(&root) == QFI_STATUS_NO_MEMORY)
        throw std::bad_alloc();
    const std::unique_ptr<char, void (*)(void *)> owner(root, std::free);
    return root != nullptr ? root : "/usr/lumen";
}

namespace {

std::atomic<qfi_handler *> host{nullptr};

qfi_progress_handler *progress_handler() noexcept {
    qfi_handler *const handler = host.load(std::memory_order_acquire);
    auto *const wanted = handler == nullptr ? nullptr : static_cast<qfi_progress_handler *>(handler->reserved1);
    const bool usable = wanted != nullptr && wanted->size >= sizeof *wanted && wanted->progress != nullptr;
    return usable ? wanted : nullptr;
}

int64_t now_ns() noexcept {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

constexpr int64_t interval_ns = 100'000'000;

} // namespace

void set_host(qfi_handler *handler) noexcept {
    host.store(handler, std::memory_order_release);
}

// Counts are atomic, so that a handler may ask for them: it is called with `telling` held.
struct Progress::State {
    std::string operation;
    std::string object;
    std::atomic<uint64_t> entries_done{0}, entries_total{0}, bytes_done{0}, bytes_total{0};
    std::atomic<int64_t> next_ns{0};
    std::atomic<bool> is_cancelled{false};
    std::mutex telling;

    void tell() {
        next_ns.store(now_ns() + interval_ns, std::memory_order_relaxed);
        qfi_progress_handler *const handler = progress_handler();
        if (handler == nullptr)
            return;
        qfi_progress progress{};
        progress.operation = operation.c_str();
        progress.object = object.c_str();
        progress.entries_done = entries_done.load(std::memory_order_relaxed);
        progress.entries_total = entries_total.load(std::memory_order_relaxed);
        progress.bytes_done = bytes_done.load(std::memory_order_relaxed);
        progress.bytes_total = bytes_total.load(std::memory_order_relaxed);
        const HostCall call;
        if (handler->progress(handler, &progress) != 0)
            is_cancelled.store(true, std::memory_order_relaxed);
    }

    int32_t tell_if_due() {
        if (now_ns() >= next_ns.load(std::memory_order_relaxed)) {
            const std::unique_lock lock(telling, std::try_to_lock);
            // Whoever told while this thread came here has moved the time on.
            if (lock && now_ns() >= next_ns.load(std::memory_order_relaxed))
                tell();
        }
        return is_cancelled.load(std::memory_order_relaxed) ? QFI_FI_CANCELLED : 0;
    }
};

Progress::Progress(const char *operation, std::string object) : state_(std::make_shared<State>()) {
    constexpr std::string_view prefix = "qzfi_";
    const std::string_view name = operation;
    state_->operation = name.substr(0, prefix.size()) == prefix ? name.substr(prefix.size()) : name;
    state_->object = std::move(object);
}

int32_t Progress::advance(uint64_t entries, uint64_t bytes) {
    state_->entries_done.fetch_add(entries, std::memory_order_relaxed);
    state_->bytes_done.fetch_add(bytes, std::memory_order_relaxed);
    return state_->tell_if_due();
}

int32_t Progress::set(uint64_t entries, uint64_t bytes) {
    state_->entries_done.store(entries, std::memory_order_relaxed);
    state_->bytes_done.store(bytes, std::memory_order_relaxed);
    return state_->tell_if_due();
}

void Progress::totals(uint64_t entries, uint64_t bytes) {
    state_->entries_total.store(entries, std::memory_order_relaxed);
    state_->bytes_total.store(bytes, std::memory_order_relaxed);
}

void Progress::finish() {
    const std::lock_guard lock(state_->telling);
    state_->tell();
}

bool Progress::cancelled() const noexcept {
    return state_->is_cancelled.load(std::memory_order_relaxed);
}

Progress::Counts Progress::counts() const noexcept {
    return {state_->entries_done.load(std::memory_order_relaxed), state_->entries_total.load(std::memory_order_relaxed),
            state_->bytes_done.load(std::memory_order_relaxed), state_->bytes_total.load(std::memory_order_relaxed)};
}

} // namespace qzfi::fi
