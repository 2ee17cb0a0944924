// What the tests of the log share: a scratch installation root and a host that records what it is handed.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <string>
#include <vector>

#include <qzfi/errors.h>
#include <qzfi/log.h>

namespace log_support {

namespace fs = std::filesystem;

inline std::string content_of(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const fs::path &path, const std::string &content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

/// An empty directory, removed with all below.
class ScratchDir {
public:
    ScratchDir() {
        std::string pattern = "/tmp/qzfi-log-XXXXXX";
        path_ = mkdtemp(pattern.data());
    }
    ~ScratchDir() { fs::remove_all(path_); }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    const fs::path &path() const { return path_; }

private:
    fs::path path_;
};

/// Makes the log state that of a process that has not started, for the length of a test, and keeps the environment out.
class FreshLog {
public:
    FreshLog() {
        for (const char *name : {"TMPDIR", "QFI_ROOT", "QFI_API_LIB", "QFI_DIR", "QFI_UTIL_LIB"})
            unsetenv(name);
        reset();
    }
    ~FreshLog() { reset(); }
    FreshLog(const FreshLog &) = delete;
    FreshLog &operator=(const FreshLog &) = delete;

private:
    static void reset() {
        set_qzfi_msgout(nullptr);
        set_qzfi_logfile(nullptr);
        set_qzfi_debuglevel(0);
    }
};

/// An installation with a log directory and, once `configure` was called, a trace configuration.
class Installation {
public:
    Installation() { fs::create_directories(log_directory()); }
    std::string root() const { return scratch_.path(); }
    fs::path log_directory() const { return scratch_.path() / "arcvault/logs/fisagent"; }
    fs::path config() const { return scratch_.path() / "lib/.qzms.rc"; }
    void configure(const std::string &text) const { write_file(config(), text); }
    std::vector<fs::path> log_files() const {
        return {fs::directory_iterator(log_directory()), fs::directory_iterator()};
    }

private:
    ScratchDir scratch_;
};

/// A stream into memory, as the log.
class MemoryLog {
public:
    MemoryLog() : stream_(open_memstream(&text_, &size_)) { set_qzfi_msgout(stream_); }
    ~MemoryLog() {
        set_qzfi_msgout(nullptr);
        fclose(stream_);
        free(text_);
    }
    MemoryLog(const MemoryLog &) = delete;
    MemoryLog &operator=(const MemoryLog &) = delete;
    /// What was written and flushed.
    std::string text() const { return {text_, size_}; }

private:
    char *text_ = nullptr;
    std::size_t size_ = 0;
    FILE *stream_;
};

struct Report {
    std::string text;
    bool is_localized;
    uint32_t severity;
    bool operator==(const Report &) const = default;
};

/// Is the host's handler while it lives.
class RecordingHost {
public:
    RecordingHost() {
        handler_.error = &record;
        handler_.reserved1 = this;
        util_ehandler = &handler_;
    }
    ~RecordingHost() { util_ehandler = nullptr; }
    RecordingHost(const RecordingHost &) = delete;
    RecordingHost &operator=(const RecordingHost &) = delete;
    std::vector<Report> reports;
    std::size_t buffer_size = 0; // of the last text

private:
    static void record(qfi_handler *self, const char *text, const char *localized, uint32_t severity) {
        auto *host = static_cast<RecordingHost *>(self->reserved1);
        host->reports.push_back({text, localized != nullptr, severity});
        host->buffer_size = malloc_usable_size(const_cast<char *>(text));
    }
    qfi_handler handler_{};
};

} // namespace log_support
