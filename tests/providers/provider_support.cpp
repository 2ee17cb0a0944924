#include "provider_support.h"

#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace providers {

Plugin::Plugin(const std::string &name) {
    load(fs::path(PROVIDER_DIRECTORY) / (QFI_PROVIDER_PREFIX + name + ".so"));
}

Plugin::Plugin(const fs::path &file, int) {
    load(file);
}

void Plugin::load(const fs::path &file) {
    library_ = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr)
        throw std::runtime_error(dlerror());
    void *const symbol = dlsym(library_, QFI_PROVIDER_ENTRY);
    if (symbol == nullptr)
        throw std::runtime_error(dlerror());
    ops_ = reinterpret_cast<const qfi_provider_ops *(*)()>(symbol)();
    if (ops_->start != nullptr && ops_->start() != 0)
        throw std::runtime_error("start refuses");
}

Plugin::~Plugin() {
    if (ops_ != nullptr && ops_->stop != nullptr)
        ops_->stop();
    if (library_ != nullptr)
        dlclose(library_);
}

Directory::Directory(const fs::path &path) : fd_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ < 0)
        throw fs::filesystem_error("open", path, std::error_code(errno, std::generic_category()));
}

Directory::~Directory() {
    close(fd_);
}

Job::Job(const fs::path &source, const fs::path &target, std::string name, uint32_t flags)
    : source_(source), target_(target), name_(std::move(name)), object_(source) {
    host_.size = sizeof(host_);
    host_.context = this;
    host_.entry = [](void *context, const qfi_entry *entry) -> int32_t {
        Job &job = *static_cast<Job *>(context);
        const std::lock_guard lock(job.mutex_);
        job.entries.emplace_back(entry->path, entry->type);
        return 0;
    };
    host_.remark = [](void *context, const qfi_remark *remark) {
        Job &job = *static_cast<Job *>(context);
        const std::lock_guard lock(job.mutex_);
        job.remarks.push_back({remark->kind, remark->path, remark->detail, remark->error});
    };
    host_.progress = [](void *context, uint64_t entries_told, uint64_t bytes_told) -> int32_t {
        Job &job = *static_cast<Job *>(context);
        const std::lock_guard lock(job.mutex_);
        job.told_entries = entries_told;
        job.told_bytes = bytes_told;
        return job.cancel ? 1 : 0;
    };
    host_.fail = [](void *context, const char *operation, const char *object, int32_t error) {
        Job &job = *static_cast<Job *>(context);
        const std::lock_guard lock(job.mutex_);
        job.failed_operation = operation;
        job.failed_object = object;
        job.failed_error = error;
    };
    record_.size = sizeof(record_);
    record_.host = &host_;
    record_.object = object_.c_str();
    record_.source = source_;
    record_.target = target_;
    record_.name = name_.c_str();
    record_.flags = flags;
    record_.workers = 2;
}

Job::~Job() {
    std::free(record_.subpath);
}

Job &Job::exclude(const fs::path &directory) {
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0)
        throw fs::filesystem_error("stat", directory, std::error_code(errno, std::generic_category()));
    excluded_.push_back({status.st_dev, status.st_ino, excluded_directories_.emplace_back(directory)});
    record_.excluded = excluded_.data();
    record_.excluded_count = static_cast<uint32_t>(excluded_.size());
    return *this;
}

qfi_probe probe(const Plugin &plugin, const fs::path &source, const fs::path &store, uint32_t flags) {
    qfi_probe result{};
    result.size = sizeof(result);
    const Directory from(source), to(store);
    EXPECT_EQ(plugin->probe(from, to, source.c_str(), flags, &result), 0);
    return result;
}

qfi_probe probe_own(const Plugin &plugin, const fs::path &source, uint32_t flags) {
    qfi_probe result{};
    result.size = sizeof(result);
    const Directory from(source);
    EXPECT_EQ(plugin->probe(from, -1, source.c_str(), flags, &result), 0);
    return result;
}

void write_file(const fs::path &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}

std::string content_of(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<std::string> listing(const fs::path &directory) {
    std::vector<std::string> lines;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory)) {
        const std::string name = entry.path().lexically_relative(directory);
        if (entry.is_symlink())
            lines.push_back("l " + name + "->" + fs::read_symlink(entry).string());
        else if (entry.is_directory())
            lines.push_back("d " + name);
        else
            lines.push_back("f " + name + "=" + content_of(entry));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

} // namespace providers
