// Trees for the engine's tests: a folder of its own for each test, a host that notes what it is told, a comparison of
// two trees that shares no code with the engine, and rsync's opinion.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "providers/engine/engine.h"

struct TestHost {
    struct Remark {
        uint32_t kind;
        std::string path, detail;
        int error;
    };
    struct Entry {
        qfi_entry entry;
        std::string target, digest;
    };
    std::mutex mutex;
    std::vector<Remark> remarks;
    std::map<std::string, Entry> entries;
    std::string failed_operation, failed_object;
    int failed_error = 0;
    int progress_calls = 0;
    int cancel_at = 0;       // this call of progress, from 1
    int refuse_entry_at = 0; // this entry, from 1
    qfi_provider_host record{};

    TestHost();
    bool has_remark(uint32_t kind, const std::string &path) const;
};

/// The digest of data, as entries have it.
std::string digest_of(const std::string &data);

/// A descriptor of a directory for the test's length.
struct Folder {
    explicit Folder(const std::string &path);
    ~Folder();
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    int fd;
};

class EngineTest : public testing::Test {
protected:
    EngineTest();
    ~EngineTest() override;

    /// Runs a shell command in `at`; fails the test when that fails.
    void sh(const std::string &command);
    std::string output(const std::string &command);
    void write(const std::string &path, const std::string &data);
    void make_zoo(const std::string &path);
    void use(const std::string &directory); // further work is there
    qzfi::engine::Result copy(const std::string &from, const std::string &name);
    qzfi::engine::Result update(const std::string &from, const std::string &name);
    qzfi::engine::Result remove(const std::string &name);
    qzfi::engine::Result walk(const std::string &from);
    void expect_equal(const std::string &a, const std::string &b);
    /// Every attribute of every entry below a directory, as text.
    std::vector<std::string> described(const std::string &path);

    std::string at; // without "/" at the end
    TestHost host;
    qzfi::engine::Options options;
};
