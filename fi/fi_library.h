// What every room of the default API implementation library shares: its messages, how a failure is raised and carried,
// and how an entry is fenced off from C++.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include <qzfi_fi.h>

namespace qzfi::fi {

/// A failure on its way to the entry that the host called. It was raised already: reported to the host and recorded.
struct Failure {
    int32_t status;
};

/// A message of the library: id, severity, English format, whose first argument is the operation. All arguments are
/// texts, so that records can hold them.
struct Message {
    const char *id;
    uint32_t severity;
    const char *format;
};

// name, id, severity, English format. Status texts are in FI_STATUS_TEXTS.
// clang-format off
#define FI_MESSAGES(X) \
    X(no_memory, "MSG_QFI_E2001", 3, "%s: out of memory\n") \
    X(unexpected, "MSG_QFI_E2002", 3, "%s: internal error: %s\n") \
    X(invalid_argument, "MSG_QFI_E2003", 2, "%s: invalid argument: %s\n") \
    X(not_supported, "MSG_QFI_E2004", 2, "%s: not supported by %s for %s\n") \
    X(no_such_image, "MSG_QFI_E2005", 2, "%s: no known store has image %s\n") \
    X(no_such_object, "MSG_QFI_E2006", 2, "%s: %s: %s\n") \
    X(no_method, "MSG_QFI_E2007", 2, "%s: no method can freeze %s: %s\n") \
    X(method_refused, "MSG_QFI_E2008", 2, "%s: method %s cannot freeze %s: %s\n") \
    X(no_such_method, "MSG_QFI_E2009", 2, "%s: no provider offers the method %s\n") \
    X(wrong_state, "MSG_QFI_E2010", 2, "%s: the tree of %s is %s; this needs one that is %s\n") \
    X(store_unusable, "MSG_QFI_E2011", 3, "%s: store %s cannot be used: %s\n") \
    X(no_space, "MSG_QFI_E2012", 3, "%s: no space left on the file system of %s\n") \
    X(pre_command_failed, "MSG_QFI_E2013", 3, "%s: pre command \"%s\" failed with %s: %s\n") \
    X(post_command_failed, "MSG_QFI_E2014", 3, "%s: post command \"%s\" failed with %s: %s\n") \
    X(damaged, "MSG_QFI_E2015", 3, "%s: image %s is damaged: %s: %s\n") \
    X(bad_fiid, "MSG_QFI_E2016", 2, "%s: not a valid id document: %s\n") \
    X(busy, "MSG_QFI_E2017", 2, "%s: %s is in use by another operation\n") \
    X(cancelled, "MSG_QFI_E2018", 2, "%s: %s: cancelled\n") \
    X(already_exists, "MSG_QFI_E2019", 2, "%s: %s exists already\n") \
    X(catalog_failed, "MSG_QFI_E2020", 3, "%s: catalog of store %s: %s\n") \
    X(unsafe_path, "MSG_QFI_E2021", 3, "%s: %s leaves its place: %s\n") \
    X(read_failed, "MSG_QFI_E2022", 3, "%s: %s of %s failed: %s\n") \
    X(write_failed, "MSG_QFI_E2023", 3, "%s: %s of %s failed: %s\n") \
    X(no_right, "MSG_QFI_E2024", 3, "%s: no right to %s %s\n") \
    X(no_such_provider, "MSG_QFI_E2025", 2, "%s: no provider named %s is loaded\n") \
    X(provider_refused, "MSG_QFI_E2026", 2, "%s: plugin %s refused: %s\n") \
    X(provider_failed, "MSG_QFI_E2027", 3, "%s: provider %s failed on %s: %s\n") \
    X(guard_failed, "MSG_QFI_E2028", 3, "%s: cannot make sure that the post command will run: %s\n") \
    X(irreplaceable, "MSG_QFI_E2029", 2, "%s: %s cannot be replaced: %s; restore to another place, or resynchronise it\n") \
    X(would_be_lost, "MSG_QFI_E2030", 2, "%s: %s would be lost: unreadable when image %s was made; move it away first\n") \
    X(losses_unknown, "MSG_QFI_E2031", 2, \
      "%s: %s cannot be replaced: what was unreadable when image %s was made is not all known; restore to another place\n") \
    X(folder_stays, "MSG_QFI_E2032", 2, "%s: imported, but %s could not be removed: %s\n") \
    X(not_kept, "MSG_QFI_E2033", 3, \
      "%s: image %s stays where it is: %s would not be kept in the new place: %s; items not kept: %s\n") \
    X(source_stays, "MSG_QFI_E2034", 2, \
      "%s: image %s is imported, and its exported folder stays: the store does not keep %s: %s; items not kept: %s\n") \
    X(set_not_whole, "MSG_QFI_E2035", 2, \
      "%s: image %s of set %s is in no store that was looked into; the others are reached by their own ids\n")

// Own statuses and their texts, in order, from 1024 on; message ids "MSG_QFI_E1024" and so on.
#define FI_STATUS_TEXTS(X) \
    X(QFI_FI_NO_SUCH_IMAGE, "No such image") \
    X(QFI_FI_NO_SUCH_OBJECT, "No such directory") \
    X(QFI_FI_NO_METHOD, "No method can freeze this object") \
    X(QFI_FI_WRONG_STATE, "The tree is not in the state for this operation") \
    X(QFI_FI_STORE, "The store cannot be used") \
    X(QFI_FI_NO_SPACE, "No space left") \
    X(QFI_FI_PRE_COMMAND, "The pre command failed") \
    X(QFI_FI_POST_COMMAND, "The post command failed") \
    X(QFI_FI_DAMAGED, "The image is damaged") \
    X(QFI_FI_BAD_FIID, "Not a valid id document") \
    X(QFI_FI_BUSY, "In use by another operation") \
    X(QFI_FI_CANCELLED, "Cancelled") \
    X(QFI_FI_EXISTS, "Exists already") \
    X(QFI_FI_CATALOG, "The store's catalog failed") \
    X(QFI_FI_UNSAFE, "A path leaves its place") \
    X(QFI_FI_READ, "Reading failed") \
    X(QFI_FI_WRITE, "Writing failed") \
    X(QFI_FI_NO_RIGHT, "Not permitted") \
    X(QFI_FI_NO_SUCH_PROVIDER, "No such provider")
// clang-format on

namespace message {
#define FI_MESSAGE(name, id, severity, format) inline constexpr Message name{id, severity, format};
FI_MESSAGES(FI_MESSAGE)
#undef FI_MESSAGE
} // namespace message

/// Reports a failure to the host and records it for the calling thread with its status. Unlike the utility layer's
/// records these hold the format and all of its arguments. At most 4 arguments after the operation; a text ends at its
/// first NUL, and is cut when memory is short.
void raise(const Message &message, int32_t status, const char *operation,
           std::initializer_list<std::string_view> arguments) noexcept;

/// Reports a failure to the host only, for what must not hide another failure from who asks for the last error, and for
/// what went wrong after an operation had succeeded.
void tell(const Message &message, const char *operation, std::initializer_list<std::string_view> arguments) noexcept;

/// Raises and throws.
[[noreturn]] void fail(const Message &message, int32_t status, const char *operation,
                       std::initializer_list<std::string_view> arguments);

/// While one lives, what fails in its thread is thrown, but neither told to the host nor recorded: for what is tried
/// and may fail, such as looking into a known store that is gone.
class Hush {
public:
    Hush() noexcept;
    ~Hush();
    Hush(const Hush &) = delete;
    Hush &operator=(const Hush &) = delete;
};

/// The status that stands for an errno of reading or writing (`otherwise`): full file systems, missing rights, missing
/// objects, memory, and paths that leave their place (ELOOP, EXDEV) have their own.
int32_t status_of(int error, int32_t otherwise) noexcept;

/// Raises and throws for a failed system call: the message and the status that the errno stands for. `what` is the call
/// or the step, `path` the object. `reading` says which of read and write it was.
[[noreturn]] void fail_call(const char *operation, const char *what, std::string_view path, int error, bool reading);

/// The text of an errno: "No such file or directory (2)".
std::string error_text(int error);

/// Runs an entry's body; no exception leaves. Memory that ran short, and what nobody foresaw, is raised here.
template <class Body>
int32_t fenced(const char *operation, Body &&body) noexcept {
    try {
        body();
        return 0;
    } catch (const Failure &failure) {
        return failure.status;
    } catch (const std::bad_alloc &) {
        raise(message::no_memory, QFI_STATUS_NO_MEMORY, operation, {});
        return QFI_STATUS_NO_MEMORY;
    } catch (const std::exception &error) {
        raise(message::unexpected, QFI_STATUS_INTERNAL, operation, {error.what()});
        return QFI_STATUS_INTERNAL;
    }
}

/// Raises and throws "invalid argument" unless the condition holds. Inline, so that static analysis sees that nothing
/// which comes after it meets a null pointer.
inline void require(bool condition, const char *operation, const char *what) {
    if (!condition)
        fail(message::invalid_argument, QFI_STATUS_INVALID_ARGUMENT, operation, {what});
}

/// An open file descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(-1); }
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd) noexcept; ///< errno survives

private:
    int fd_ = -1;
};

/// Opens a path below `at` with every component a real directory: no symbolic link is followed, no mount point crossed.
/// Close-on-exec and non-blocking are added to the flags; a new file is its owner's alone. -1 and errno: ELOOP for a
/// link, EXDEV for a mount or "..".
int open_beneath(int at, const char *path, int flags) noexcept;

/// Whether a path is empty, or names none of which is empty, "." or "..": relative, and nothing in it leads elsewhere.
bool stays_below(std::string_view path) noexcept;

/// Whether a path lies below a folder; both are canonical, and absolute or relative to the same place, which is "".
bool lies_below(std::string_view path, std::string_view folder) noexcept;
inline bool lies_at_or_below(std::string_view path, std::string_view folder) noexcept {
    return path == folder || lies_below(path, folder);
}

/// The root in force: what the host set, else "/usr/lumen".
std::string installation_root();

/// One malloc block that holds a record, its arrays and its texts, for what is given out: `free` releases all of it.
/// Filled in two passes of the same function, one that measures and one that copies.
class Block {
public:
    /// Calls `fill(block)` twice; the record is what it makes first. Throws std::bad_alloc.
    template <class Fill>
    static void *build(Fill &&fill);

    /// `count` zeroed values. In the measuring pass null: nothing may be written through it then (`measuring`).
    template <class Value>
    Value *array(std::size_t count);
    /// A terminated copy.
    const char *text(std::string_view source);
    bool measuring() const noexcept { return memory_ == nullptr; }

private:
    char *take(std::size_t size, std::size_t alignment) noexcept;
    char *memory_ = nullptr;
    std::size_t used_ = 0;
};

template <class Fill>
void *Block::build(Fill &&fill) {
    Block measure;
    fill(measure);
    Block block;
    block.memory_ = static_cast<char *>(std::calloc(1, measure.used_ != 0 ? measure.used_ : 1));
    if (block.memory_ == nullptr)
        throw std::bad_alloc();
    fill(block);
    return block.memory_;
}

template <class Value>
Value *Block::array(std::size_t count) {
    return reinterpret_cast<Value *>(take(sizeof(Value) * count, alignof(Value)));
}

inline char *Block::take(std::size_t size, std::size_t alignment) noexcept {
    used_ = (used_ + alignment - 1) / alignment * alignment;
    char *const start = memory_ == nullptr ? nullptr : memory_ + used_;
    used_ += size;
    return start;
}

inline const char *Block::text(std::string_view source) {
    char *const copy = take(source.size() + 1, 1);
    if (copy != nullptr)
        std::memcpy(copy, source.data(), source.size());
    return copy;
}

/// A failure that happened in another thread than the one whose host has to be told.
class KeptFailure {
public:
    /// Raises it, if there is one.
    void raise_here() const noexcept;
    /// What it says, without the operation; empty when there is none.
    std::string cause() const;

private:
    friend class Keep;
    friend void raise(const Message &, int32_t, const char *, std::initializer_list<std::string_view>) noexcept;
    void keep(const Message &message, int32_t status, const char *operation,
              std::initializer_list<std::string_view> arguments) noexcept;
    const Message *message_ = nullptr;
    int32_t status_ = 0;
    const char *operation_ = "";
    std::string arguments_[4];
    std::size_t count_ = 0;
};

/// While one lives, the first thing that fails in its thread is kept, not told.
class Keep {
public:
    explicit Keep(KeptFailure &failure) noexcept;
    ~Keep();
    Keep(const Keep &) = delete;
    Keep &operator=(const Keep &) = delete;

private:
    KeptFailure *outer_;
};

/// While one lives, this thread is in a function of the host's that was called in the middle of an operation: for
/// progress, or to tell of an error. What is called from there must wait for no tree: that operation may hold it, and
/// does not go on before the function returns.
class HostCall {
public:
    HostCall() noexcept;
    ~HostCall();
    HostCall(const HostCall &) = delete;
    HostCall &operator=(const HostCall &) = delete;
    static bool is_in_progress() noexcept;
};

/// Notes the host's handler record, in which Progress finds its progress handler: by the start entry, and null at
/// shutdown, when no operation runs.
void set_host(qfi_handler *handler) noexcept;

/// Tells the host how far an operation is; a host without a progress handler costs nothing.
/// Returns not 0 when the host cancels. Calls are at least 100 ms apart, but for the last. Thread-safe; the host's
/// handler is never called by two threads at once for the same operation.
class Progress {
public:
    struct Counts {
        uint64_t entries_done, entries_total, bytes_done, bytes_total;
    };
    /// `operation` is the entry's name, "qzfi_split"; the host is told "split".
    Progress(const char *operation, std::string object);
    /// Adds to what is done. QFI_FI_CANCELLED once the host has cancelled, else 0.
    int32_t advance(uint64_t entries, uint64_t bytes);
    /// Sets what is done, for those who count themselves.
    int32_t set(uint64_t entries, uint64_t bytes);
    void totals(uint64_t entries, uint64_t bytes);
    void finish();
    bool cancelled() const noexcept;
    Counts counts() const noexcept;

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace qzfi::fi
