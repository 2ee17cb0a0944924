#include "providers/engine/engine_work.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <new>
#include <pthread.h>
#include <sys/resource.h>

#include <qzfi_fi.h>

namespace qzfi::engine {
namespace {

constexpr uint32_t most_workers = 64;
constexpr uint32_t least_to_share = 8;   // entries
constexpr uint32_t worth_sharing = 2048; // bytes of a listing, some 64 entries

/// How many directories may be open: each may need two descriptors, and others need some.
std::size_t open_limit() {
    return std::clamp<std::size_t>(eighth_of_descriptors(), 4, 256);
}

const Dirent *record_at(const char *records, uint32_t position) {
    return reinterpret_cast<const Dirent *>(records + position);
}

bool is_dots(const char *name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

uint32_t record_size(const char *name) {
    return static_cast<uint32_t>((dirent_name_offset + strlen(name) + 1 + 7) & ~std::size_t{7});
}

void put_record(char *at, const char *name, uint8_t type, uint64_t inode) {
    auto *const record = reinterpret_cast<Dirent *>(at);
    record->inode = inode;
    record->offset = 0;
    record->length = static_cast<uint16_t>(record_size(name));
    record->type = type;
    memcpy(at + dirent_name_offset, name, strlen(name) + 1);
}

} // namespace

std::size_t eighth_of_descriptors() noexcept {
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur / 8 : 0;
}

Item *Item::make(Kind kind, Directory &directory, const char *records, uint32_t size) {
    Bytes memory = allocate(sizeof(Item) + size);
    auto *const item = new (memory.release()) Item{kind, &directory};
    if (records != nullptr)
        memcpy(item->records(), records, size);
    item->end = size;
    return item;
}

char *Worker::buffer() {
    constexpr std::size_t page = 4096; // the kernel copies to and from whole pages a fifth faster
    if (!data)
        data = allocate(data_size + page);
    const auto start = reinterpret_cast<uintptr_t>(data.get());
    return data.get() + ((start + page - 1) / page * page - start);
}

Run::Run(const Options &given, const qfi_provider_host &to) : Run(given, to, std::string()) {}

Run::Run(const Options &given, const qfi_provider_host &to, std::string path)
    : options(given), host(to), directories(open_limit()), root_path(std::move(path)) {
    main_.run = this;
}

Run::~Run() = default;

Result Run::result() const noexcept {
    return {status_.load(), entries_.load(), bytes_.load(), changed_.load(), remarks_.load()};
}

void Run::push(Item *item, bool wake) {
    item->directory->pending.fetch_add(1, std::memory_order_relaxed);
    {
        const std::lock_guard lock(mutex_);
        item->below = top_;
        top_ = item;
        if (wake && idle_.load(std::memory_order_relaxed) > 0)
            waiting_.notify_one();
    }
    if (wake)
        want_help();
}

void Run::push_subdirectory(Directory &directory, const char *name) {
    Item *const item = Item::make(Item::Kind::subdirectories, directory, nullptr, record_size(name));
    put_record(item->records(), name, DT_DIR, 0);
    push(item, true);
}

void Run::push_entry(Directory &directory, const char *name, uint8_t type, uint64_t inode) {
    Item *const item = Item::make(Item::Kind::entries, directory, nullptr, record_size(name));
    put_record(item->records(), name, type, inode);
    push(item, true);
}

void Run::push_range(Directory &directory, FileRange *range) {
    Item *const item = Item::make(Item::Kind::range, directory, nullptr, 0);
    item->range = range;
    push(item, true);
}

/// Waits for work; false when there is none and none can come.
bool Run::pop(Popped &out) {
    std::unique_lock lock(mutex_);
    while (top_ == nullptr || is_stopped()) {
        if (active_ == 0 || is_stopped())
            return false;
        idle_.fetch_add(1, std::memory_order_relaxed);
        waiting_.wait(lock);
        idle_.fetch_sub(1, std::memory_order_relaxed);
    }
    ++active_;
    Item *const item = top_;
    out.item = nullptr;
    if (item->kind != Item::Kind::subdirectories) {
        top_ = item->below;
        out.item = item;
        return true;
    }

    const Dirent *const record = record_at(item->records(), item->position);
    memcpy(out.name, record->name, strlen(record->name) + 1);
    out.directory = item->directory;
    item->position += record->length;
    if (item->position < item->end) {
        item->directory->pending.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    top_ = item->below; // its place among the pending goes to the subdirectory
    free(item);
    return true;
}

void Run::finished_one() {
    const std::lock_guard lock(mutex_);
    if (--active_ == 0 && top_ == nullptr)
        waiting_.notify_all();
}

void Run::stop(int32_t status) noexcept {
    int32_t expected = 0;
    status_.compare_exchange_strong(expected, status);
    const std::lock_guard lock(mutex_);
    waiting_.notify_all();
}

void Run::drop(Item *item) {
    if (item->range != nullptr)
        drop_range(item->range);
    Directory *const directory = item->directory;
    free(item);
    done_in(main_, directory);
}

void *Run::thread_main(void *argument) {
    auto &worker = *static_cast<Worker *>(argument);
    worker.run->loop(worker);
    return nullptr;
}

void Run::loop(Worker &worker) {
    Popped popped;
    while (pop(popped)) {
        try {
            process(worker, popped);
        } catch (const std::bad_alloc &) {
            stop(QFI_STATUS_NO_MEMORY);
        }
        finished_one();
    }
    flush(worker);
}

/// Starts one more thread, if none waits: a tree that is soon done needs no other.
void Run::want_help() {
    if (idle_.load(std::memory_order_relaxed) > 0 || started_.load(std::memory_order_relaxed) >= other_count_)
        return;
    const uint32_t next = started_.fetch_add(1, std::memory_order_relaxed);
    if (next >= other_count_)
        return;
    Worker &worker = others_[next];
    worker.run = this;
    worker.index = next + 1;
    // One that does not start is done without: the work is the same.
    worker.has_thread = pthread_create(&worker.thread, nullptr, thread_main, &worker) == 0;
}

void Run::work(Directory *root) {
    Worker workers[most_workers];
    others_ = workers;
    other_count_ = std::clamp(options.workers, 1u, most_workers) - 1;
    directories.acquire(*root); // for good: the others are found again from it
    active_ = 1;                // so that threads wait for the first listing
    try {
        list(main_, *root);
    } catch (const std::bad_alloc &) {
        stop(QFI_STATUS_NO_MEMORY);
    }
    finished_one();
    loop(main_);
    // In this order: whoever started a thread has ended before it is looked for.
    for (uint32_t i = 0; i < other_count_; ++i) {
        if (workers[i].has_thread)
            pthread_join(workers[i].thread, nullptr);
    }
    while (top_ != nullptr) {
        Item *const item = top_;
        top_ = item->below;
        drop(item);
    }
    if (counted_ == this)
        tell_progress();
}

void Run::process(Worker &worker, Popped &popped) {
    if (popped.item == nullptr)
        return open_subdirectory(worker, *popped.directory, popped.name);
    const std::unique_ptr<Item, Free> item(popped.item);
    Directory &directory = *item->directory;
    if (item->kind == Item::Kind::range) {
        copy_range(worker, item->range);
        return done_in(worker, &directory);
    }
    if (!directories.acquire(directory)) {
        not_acquired(worker, directory, errno);
        return done_in(worker, &directory);
    }
    try {
        if (is_readable(worker, directory) && item->kind == Item::Kind::entries)
            entries(worker, directory, item->records(), item->position, item->end);
    } catch (const std::bad_alloc &) {
        stop(QFI_STATUS_NO_MEMORY);
    }
    if (item->kind == Item::Kind::listing && !directory.is_gone)
        return list(worker, directory);
    directories.release(directory);
    done_in(worker, &directory);
}

void Run::open_subdirectory(Worker &worker, Directory &parent, const char *name) {
    Directory *child = nullptr;
    bool is_entered = false;
    if (!directories.acquire(parent)) {
        not_acquired(worker, parent, errno);
        return done_in(worker, &parent);
    }
    try {
        if (is_readable(worker, parent)) {
            child = Directory::make(&parent, name);
            is_entered = enter(worker, parent, *child);
        }
    } catch (const std::bad_alloc &) {
        stop(QFI_STATUS_NO_MEMORY);
    }
    directories.release(parent);
    if (is_entered) {
        directories.adopt(*child);
        return list(worker, *child);
    }
    directories.unreference(child);
    done_in(worker, &parent);
}

/// Whether an acquired directory still has its source; tells the first time that it has not.
bool Run::is_readable(Worker &worker, Directory &directory) {
    if (directory.is_gone && !directory.is_told_gone)
        gone(worker, directory);
    return !directory.is_gone;
}

/// Of a directory whose source is gone at least the target is had: what is gone here is the target.
void Run::not_acquired(Worker &worker, Directory &directory, int error) {
    if (means_gone(error))
        return fail_target(worker, "openat2", &directory, nullptr, ESTALE);
    fail_source(worker, "openat2", &directory, nullptr, error);
}

bool Run::enter_source(Worker &worker, Directory &parent, Directory &child) {
    const char *const name = child.name();
    child.source = open_to_read(parent.source, name, O_DIRECTORY);
    if (child.source < 0 && (errno == ENOTDIR || errno == ELOOP)) {
        push_entry(parent, name, DT_UNKNOWN, 0);
        return false;
    }
    if (child.source < 0 || stat_of(child.source, child.stat) != 0) {
        passed_over(worker, child.source < 0 ? "openat2" : "statx", parent, name, errno);
        return false;
    }
    if (is_excluded(options, child.stat))
        return false;
    if (device_of(child.stat) == device_of(parent.stat) || (options.nested_volumes && !stands_for_volume(child.stat)))
        return true;
    remark(worker, QFI_REMARK_SKIPPED, &parent, name, "a nested subvolume", 0);
    return false;
}

/// Lists a directory that is acquired, until its end or, when it is long, one piece: the rest is work for whoever
/// comes first. Ends what was pending for it.
void Run::list(Worker &worker, Directory &directory) {
    struct Ended {
        Run &run;
        Worker &worker;
        Directory &directory;
        ~Ended() {
            run.directories.release(directory);
            run.done_in(worker, &directory);
        }
    } const ended{*this, worker, directory};

    if (!worker.listing)
        worker.listing = allocate(listing_size);
    char *const records = worker.listing.get();
    if (std::exchange(directory.lost_position, false) && directory.listing_position != 0)
        lseek(directory.source, directory.listing_position, SEEK_SET);
    while (!is_stopped()) {
        const long size = syscall(SYS_getdents64, directory.source, records, listing_size);
        if (size == 0)
            return;
        if (size < 0 && errno == ENOENT) // removed meanwhile, which a removal is content with
            return Run::gone(worker, directory);
        if (size < 0)
            return missed(worker, "getdents64", directory, nullptr, "the rest of the directory", errno);

        const auto end = static_cast<uint32_t>(size);
        uint32_t subdirectories = 0, last = 0, others = 0;
        for (uint32_t at = 0; at < end; at += record_at(records, at)->length) {
            const Dirent *const record = record_at(records, at);
            const bool is_subdirectory = record->type == DT_DIR && !is_dots(record->name);
            subdirectories += is_subdirectory ? record->length : 0;
            others += record->type != DT_DIR;
            last = at;
        }
        directory.listing_position = record_at(records, last)->offset;
        const bool is_long = end > listing_size / 2 && !worker.is_naming();
        if (is_long)
            push(Item::make(Item::Kind::listing, directory, nullptr, 0), true);
        if (subdirectories != 0) {
            Item *const item = Item::make(Item::Kind::subdirectories, directory, nullptr, subdirectories);
            uint32_t to = 0, count = 0;
            for (uint32_t at = 0; at < end; at += record_at(records, at)->length) {
                const Dirent *const record = record_at(records, at);
                if (record->type != DT_DIR || is_dots(record->name))
                    continue;
                memcpy(item->records() + to, record, record->length);
                to += record->length;
                ++count;
            }
            push(item, others != 0 || is_long || count > 1); // a single one is for this thread
        }
        if (end > worth_sharing && !worker.is_naming())
            want_help();
        reached(Point::listed, directory.name());
        entries(worker, directory, records, 0, end);
        if (is_long)
            return;
    }
}

void Run::entries(Worker &worker, Directory &directory, char *records, uint32_t position, uint32_t end) {
    while (position < end && !is_stopped()) {
        if (idle_.load(std::memory_order_relaxed) > 0 && !worker.is_naming())
            give_half(directory, records, position, end);
        const Dirent *const record = record_at(records, position);
        position += record->length;
        if (record->type != DT_DIR && !is_dots(record->name))
            entry(worker, directory, record->name, record->type, record->inode);
        progress(worker, 1);
    }
    end_entries(worker);
}

/// Gives the second half of a piece of listing to a thread that waits.
void Run::give_half(Directory &directory, char *records, uint32_t position, uint32_t &end) {
    {
        const std::lock_guard lock(mutex_);
        if (top_ != nullptr) {
            waiting_.notify_one();
            return; // there is enough to do already
        }
    }
    uint32_t count = 0;
    for (uint32_t at = position; at < end; at += record_at(records, at)->length)
        ++count;
    if (count < least_to_share)
        return;
    uint32_t middle = position;
    for (uint32_t i = 0; i < count / 2; ++i)
        middle += record_at(records, middle)->length;
    push(Item::make(Item::Kind::entries, directory, records + middle, end - middle), true);
    end = middle;
}

void Run::done_in(Worker &worker, Directory *directory) {
    Directory *child = nullptr; // ended and still open, so that the way up is found
    while (directory != nullptr && directory->pending.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        const bool is_left = !is_stopped();
        const bool is_open = (is_left || directory->forbidding != 0) && directories.acquire(*directory, child);
        if (is_open && is_left) {
            try {
                is_readable(worker, *directory);
                if (!is_stopped())
                    leave(worker, *directory);
            } catch (const std::bad_alloc &) {
                stop(QFI_STATUS_NO_MEMORY);
            }
        } else if (is_left) {
            fail_target(worker, "openat2", directory, nullptr, errno);
        }
        if (is_open)
            put_back_flags(*directory);
        if (child != nullptr)
            directories.release(*child);
        Directory *const ended = std::exchange(child, is_open ? directory : nullptr);
        if (ended != nullptr)
            directories.unreference(ended);
        Directory *const parent = directory->parent;
        if (!is_open)
            directories.unreference(directory);
        directory = parent;
    }
    if (child == nullptr)
        return;
    directories.release(*child);
    directories.unreference(child);
}

} // namespace qzfi::engine
