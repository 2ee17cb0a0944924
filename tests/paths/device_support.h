// Real block and character nodes below a root directory of the test's own, so that names such as /dev/dsk/c0 are real.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <qzfi/paths.h>

namespace device {

/// The names that `stat` was asked for, in order, while it lives.
class StatRecord {
public:
    StatRecord();
    ~StatRecord();
    StatRecord(const StatRecord &) = delete;
    StatRecord &operator=(const StatRecord &) = delete;
    const std::vector<std::string> &names() const { return names_; }
    /// The names without the given one: the candidates.
    std::vector<std::string> candidates(const std::string &given) const;

private:
    friend void record_stat(const char *path);
    std::vector<std::string> names_;
};
void record_stat(const char *path);

/// Makes a tree's directory the root directory and the current one while it lives.
class Inside {
public:
    explicit Inside(const std::string &root);
    ~Inside();
    Inside(const Inside &) = delete;
    Inside &operator=(const Inside &) = delete;

private:
    int root_;
    int directory_;
};

/// A directory to be a root directory. Its tests are skipped where this process may not make device nodes.
class Devices : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Nodes and links by the names that they have inside, with their directories.
    void block(const std::string &path, unsigned major, unsigned minor);
    void character(const std::string &path, unsigned major, unsigned minor);
    void file(const std::string &path);
    void directory(const std::string &path);
    void link(const std::string &path, const std::string &target);

    std::string root;

private:
    std::string made(const std::string &path) const;
    void node(const std::string &path, unsigned type, unsigned major, unsigned minor);
};

using Name = std::optional<std::string>;

/// The mappings' results, nothing for null. The whole buffer of 2049 bytes is written to before it is freed.
Name raw_of(const std::string &block);
Name block_of(const std::string &raw);

} // namespace device
