// Provider plugins as the library that loads them sees them: opened by path, called through their tables.
#pragma once

#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi/fi_types.h>
#include <qzfi_provider.h>

namespace providers {

namespace fs = std::filesystem;

/// A loaded plugin; fails the test when it cannot be loaded.
class Plugin {
public:
    explicit Plugin(const std::string &name);
    Plugin(const fs::path &file, int);
    ~Plugin();
    Plugin(const Plugin &) = delete;
    Plugin &operator=(const Plugin &) = delete;
    const qfi_provider_ops *operator->() const { return ops_; }
    const qfi_provider_ops *get() const { return ops_; }

private:
    void load(const fs::path &file);
    void *library_ = nullptr;
    const qfi_provider_ops *ops_ = nullptr;
};

/// An open directory.
class Directory {
public:
    explicit Directory(const fs::path &path);
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;
    operator int() const { return fd_; }

private:
    int fd_;
};

struct Remark {
    uint32_t kind;
    std::string path, detail;
    int32_t error;
    bool operator==(const Remark &) const = default;
};

/// A host that keeps what it is told, and a job for it.
class Job {
public:
    Job(const fs::path &source, const fs::path &target, std::string name, uint32_t flags = 0);
    ~Job();
    Job(const Job &) = delete;
    Job &operator=(const Job &) = delete;
    /// Leaves a directory out, as the store is.
    Job &exclude(const fs::path &directory);
    qfi_provider_job *operator&() { return &record_; }
    std::string subpath() const { return record_.subpath != nullptr ? record_.subpath : ""; }

    std::vector<std::pair<std::string, uint32_t>> entries; // path and type
    std::vector<Remark> remarks;
    std::string failed_operation, failed_object;
    int32_t failed_error = 0;
    uint64_t told_entries = 0, told_bytes = 0; // by the last call of progress
    bool cancel = false;

private:
    Directory source_, target_;
    std::string name_, object_;
    std::mutex mutex_;
    qfi_provider_host host_{};
    qfi_provider_job record_{};
    std::deque<Directory> excluded_directories_;
    std::vector<qfi_excluded> excluded_;
};

qfi_probe probe(const Plugin &plugin, const fs::path &source, const fs::path &store, uint32_t flags = 0);
/// Into a store on the object's own file system.
qfi_probe probe_own(const Plugin &plugin, const fs::path &source, uint32_t flags = 0);

void write_file(const fs::path &path, const std::string &content);
std::string content_of(const fs::path &path);
/// Every entry below a directory, sorted: "d name", "f name=content", "l name->target".
std::vector<std::string> listing(const fs::path &directory);

} // namespace providers
