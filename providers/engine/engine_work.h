// What all functions of the engine stand on: directories whose descriptors are bounded in number, one queue of work,
// the threads that take from it, and how the host is told.
//
// The queue is a stack, so trees are walked depth first and what waits is at most the listed siblings of one path. A
// directory ends (`Run::leave`) when nothing in it is pending, its subdirectories included.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <string>

#include "providers/engine/engine.h"
#include "providers/engine/engine_calls.h"

namespace qzfi::engine {

/// A directory of the tree: of the source, of the target, or a pair. It lives until it ended and no child or link
/// names it.
struct Directory {
    Directory *parent = nullptr;
    uint64_t serial = 0; // tells it from one that has its memory later
    std::atomic<uint32_t> references{1};
    std::atomic<uint32_t> pending{1}; // work in it, and subdirectories that have not ended
    Stat stat{};                      // of the side that is listed
    bool target_existed = false;
    bool has_attributes = true; // extended ones, or inode flags
    uint32_t forbidding = 0;    // inode flags that were taken off what is changed, until it is left

    // Guarded by Directories::mutex_, except while in use.
    int source = -1;
    int target = -1;
    uint64_t target_device = 0, target_inode = 0; // noted when `target` is closed
    uint32_t users = 0;
    bool is_counted = false; // among the open ones
    bool was_closed = false;
    bool lost_position = false; // of the listing, by being closed
    bool is_gone = false;       // its source was renamed or removed while it was closed: -2 for good
    std::atomic<bool> is_told_gone{false};
    int64_t listing_position = 0;                 // behind the last record that was read
    Directory *older = nullptr, *newer = nullptr; // among the open ones that nobody uses

    char *name() noexcept { return reinterpret_cast<char *>(this + 1); }
    static Directory *make(Directory *parent, const char *name); // throws; takes a reference of the parent
};
/// Whether a directory is one of those that are left out.
inline bool is_excluded(const Options &options, const Stat &stat) noexcept {
    for (uint32_t index = 0; index < options.excluded_count; ++index)
        if (options.excluded[index].inode == stat.stx_ino && options.excluded[index].device == device_of(stat))
            return true;
    return false;
}

/// Whether a directory of another device than the one above it stands for a subvolume that its snapshot does not hold.
inline bool stands_for_volume(const Stat &stat) noexcept {
    return stat.stx_ino == 2; // BTRFS_EMPTY_SUBVOL_DIR_OBJECTID
}

/// Bounds the number of open directories: those that nobody uses are closed, the oldest first, and found again by
/// ".." of a child or by name below an open ancestor. Either way device and inode must be those that were closed.
class Directories {
public:
    explicit Directories(std::size_t limit) : limit_(limit) {}
    /// Makes the descriptors usable until `release`; false with errno when they cannot be had again. Whose source
    /// is gone has its target only.
    bool acquire(Directory &directory, const Directory *open_child = nullptr) noexcept;
    void release(Directory &directory) noexcept;
    /// Counts a directory with fresh descriptors and one user.
    void adopt(Directory &directory) noexcept;
    /// Gives a reference back; frees the directory, and the ancestors that only it kept, with the last one.
    void unreference(Directory *directory) noexcept;

private:
    void shut(Directory &directory) noexcept;
    void unlink_idle(Directory &directory) noexcept;
    bool reopen(Directory &directory, const Directory *open_child) noexcept;
    bool reopen_side(Directory &directory, int Directory::*side, const Directory *open_child) noexcept;

    std::mutex mutex_;
    std::size_t limit_, open_ = 0;
    Directory *oldest_ = nullptr, *newest_ = nullptr;
};

/// Puts the flags back that forbade changes to a directory which stays, as a run that ends before it does.
void put_back_flags(Directory &directory) noexcept;

/// What finding a directory by its name ends with when another thing, or none, has the name now.
bool means_gone(int error) noexcept;

class Run;

/// Work for later: entries of a directory as listed, its subdirectories, the rest of its listing, or a range of a file.
struct Item {
    enum class Kind { entries, subdirectories, listing, range };
    Kind kind;
    Directory *directory; // the item is pending in it
    Item *below = nullptr;
    struct FileRange *range = nullptr;
    uint32_t position = 0, end = 0; // of the records behind the item

    char *records() noexcept { return reinterpret_cast<char *>(this + 1); }
    static Item *make(Kind kind, Directory &directory, const char *records, uint32_t size); // throws
};

inline constexpr uint32_t listing_size = 32 * 1024;
inline constexpr std::size_t data_size = 256 * 1024;

/// Gives a reference to a directory back at the end of a block.
struct Referenced {
    Directories &directories;
    Directory *directory;
    ~Referenced() { directories.unreference(directory); }
};

/// What one thread works with.
struct Worker {
    Run *run = nullptr;
    uint32_t index = 0;  // among the run's, from 0
    Bytes listing;       // listing_size
    Bytes data;          // data_size, made at the first use
    Bytes names, values; // of extended attributes
    std::string path;    // of `path_of`, without the entry's name
    std::size_t path_length = 0;
    uint64_t path_serial = 0;
    uint64_t entries = 0, bytes = 0; // not yet added to the run's
    uint32_t since_progress = 0;
    uint32_t brief = 0; // entries of late that were little more than a name to make, at most 64
    bool has_thread = false;
    pthread_t thread{};

    /// Names in one directory are made one after the other, whoever makes them: a second thread would only wait.
    bool is_naming() const noexcept { return brief >= 8; }
    void note(bool is_brief) noexcept { brief = is_brief ? (brief < 64 ? brief + 1 : 64) : brief / 2; }
    char *buffer(); // throws
};

/// What a test may do between two steps of the engine. Null in real life.
enum class Point { listed, opened, read_once, created };
using Hook = void (*)(Point, const char *name);
inline std::atomic<Hook> test_hook{nullptr};
inline void reached(Point point, const char *name) {
    if (const Hook hook = test_hook.load(std::memory_order_relaxed))
        hook(point, name);
}

/// One call of the engine. Its kinds say what an entry is to them.
class Run {
public:
    Run(const Options &options, const qfi_provider_host &host);
    virtual ~Run();
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    /// Works from a root that is open and adopted until nothing is left; the last step is to leave the root.
    void work(Directory *root);
    Result result() const noexcept;

    bool is_stopped() const noexcept { return status_.load(std::memory_order_relaxed) != 0; }
    /// Ends the run; the first failure counts and is told to the host.
    void fail(Worker &worker, int32_t status, const char *operation, Directory *directory, const char *name, int error);
    void fail_source(Worker &worker, const char *operation, Directory *directory, const char *name, int error);
    void fail_target(Worker &worker, const char *operation, Directory *directory, const char *name, int error);
    void stop(int32_t status) noexcept;
    void remark(Worker &worker, qfi_remark_kind kind, Directory *directory, const char *name, const char *detail,
                int error);
    /// Counts an entry and, when asked for, gives it to the host.
    void tell_entry(Worker &worker, Directory *directory, const char *name, const Stat &stat, const char *link_target,
                    const uint8_t *digest);
    /// Tells progress now and then; `weight` is about what a small file costs as 1.
    void progress(Worker &worker, uint32_t weight);
    void changed() noexcept { changed_.fetch_add(1, std::memory_order_relaxed); }
    /// The path below the object; without a name, the directory's own. Lives until the next call.
    const char *path_of(Worker &worker, const Directory *directory, const char *name);
    /// Progress is that of another run, of which this one is a step.
    void is_within(Run &outer) noexcept { counted_ = outer.counted_; }
    void count_remarks(uint64_t count) noexcept { remarks_.fetch_add(count, std::memory_order_relaxed); }
    void append_path(std::string &path, const Directory *directory) const;

    const Options options;
    const qfi_provider_host &host;
    Directories directories;
    const std::string root_path; // path of the root itself, with a "/" behind, in runs within runs
    bool looks_at_kept = false;  // the target may take attributes that it does not keep, and say nothing

protected:
    Run(const Options &options, const qfi_provider_host &host, std::string root_path);

    /// Handles an entry that is no directory as far as is known. A directory is handed to `push_subdirectory`.
    virtual void entry(Worker &worker, Directory &directory, const char *name, uint8_t type, uint64_t inode) = 0;
    /// Called when a piece of a listing was handled, whose directory is acquired still.
    virtual void end_entries(Worker &) {}
    /// Opens a subdirectory: `child` gets its descriptors. False when there is nothing to do in it.
    virtual bool enter(Worker &worker, Directory &parent, Directory &child) = 0;
    /// Called when nothing below is pending; the directory is acquired.
    virtual void leave(Worker &worker, Directory &directory) = 0;
    virtual void copy_range(Worker &, FileRange *) {}
    virtual void drop_range(FileRange *) noexcept {}
    /// Called for a directory that is gone, with what was not yet read of it; says so once.
    virtual void gone(Worker &worker, Directory &directory);
    /// What is there and cannot be opened or listed: a remark, unless the process has run short.
    virtual void missed(Worker &worker, const char *operation, Directory &directory, const char *name,
                        const char *detail, int error);

    /// Says why an entry of the source is passed over: what its opening, or a look at it, failed with.
    void passed_over(Worker &worker, const char *operation, Directory &directory, const char *name, int error);
    /// Opens a subdirectory of the source. False when it is none, or is not to be entered.
    bool enter_source(Worker &worker, Directory &parent, Directory &child);

    void push_subdirectory(Directory &directory, const char *name);
    void push_entry(Directory &directory, const char *name, uint8_t type, uint64_t inode);
    void push_range(Directory &directory, FileRange *range);
    /// One thing less is pending in the directory; leaves it, and those above, when that was the last.
    void done_in(Worker &worker, Directory *directory);
    void flush(Worker &worker) noexcept;
    Worker &main_worker() noexcept { return main_; }

private:
    struct Popped {
        Item *item = nullptr;           // whole, or
        Directory *directory = nullptr; // the parent of
        char name[256];                 // this subdirectory
    };
    static void *thread_main(void *worker);
    void loop(Worker &worker);
    bool pop(Popped &out);
    void finished_one();
    void push(Item *item, bool wake);
    void process(Worker &worker, Popped &popped);
    void open_subdirectory(Worker &worker, Directory &parent, const char *name);
    void list(Worker &worker, Directory &directory);
    void entries(Worker &worker, Directory &directory, char *records, uint32_t position, uint32_t end);
    void give_half(Directory &directory, char *records, uint32_t position, uint32_t &end);
    void drop(Item *item);
    void want_help();
    bool is_readable(Worker &worker, Directory &directory);
    void not_acquired(Worker &worker, Directory &directory, int error);

    void tell_progress();

    Run *counted_ = this;
    Worker main_;
    Worker *others_ = nullptr; // while there is work
    uint32_t other_count_ = 0;
    std::atomic<uint32_t> started_{0}; // of them; each by one before it
    std::mutex mutex_;
    std::condition_variable waiting_;
    Item *top_ = nullptr;
    uint32_t active_ = 0;           // threads with work in hand
    std::atomic<uint32_t> idle_{0}; // threads that wait
    std::atomic<int32_t> status_{0};
    std::atomic<uint64_t> entries_{0}, bytes_{0}, changed_{0}, remarks_{0};
};

/// The eighth part of the descriptors that this process may have; 0 when that is not known.
std::size_t eighth_of_descriptors() noexcept;

int32_t status_of_target(int error) noexcept;
int32_t status_of_source(int error) noexcept;

} // namespace qzfi::engine
