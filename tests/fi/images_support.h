// Stored images as a host sees them: the built libfi.so and its plugins behind the front end, on real file systems.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi_fi.h>

#include "support/loop_filesystem.h"

namespace images {

namespace fs = std::filesystem;

void write_file(const fs::path &path, const std::string &content);
std::string content_of(const fs::path &path);
/// A tree of odd entries: links of both kinds, holes, attributes, times, names of any bytes, a FIFO.
void make_zoo(const fs::path &directory);
inline constexpr std::size_t zoo_entries = 12; // with the directory itself
/// What rsync would change to make `copy` equal to `original` in every respect; empty when nothing.
std::string differences(const fs::path &original, const fs::path &copy);
/// A faithful copy by cp.
void keep(const fs::path &tree, const fs::path &copy);
/// Runs a program; fails the test unless it gives 0. Gives its output.
std::string run(const std::vector<std::string> &arguments);

/// The framework, started with a root of its own until the end of the scope.
class Framework {
public:
    explicit Framework(const fs::path &root, qfi_handler *handler = nullptr);
    ~Framework();
    Framework(const Framework &) = delete;
    Framework &operator=(const Framework &) = delete;
};

/// The calling thread's last error as text; empty when there is none.
std::string last_error();

/// A tree, let go of at the end.
class Tree {
public:
    Tree() = default;
    explicit Tree(const std::vector<std::string> &objects);
    Tree(Tree &&other) noexcept;
    Tree &operator=(Tree &&other) noexcept;
    ~Tree();
    /// The tree of a stored image.
    static Tree of_image(const std::string &id, const fs::path &store);
    qfi_domain *get() const { return tree_; }
    /// No longer let go of here.
    qfi_domain *release() { return std::exchange(tree_, nullptr); }
    qfi_domain **operator&() { return &tree_; }
    /// The id of its first image.
    std::string image_id() const;
    /// The first object's frozen image.
    std::string image_path() const;

private:
    qfi_domain *tree_ = nullptr;
};

/// How many remarks its first image has.
uint64_t remarks_of(const Tree &tree);

/// Freezes objects; fails the test when that fails. `method` null: the best.
Tree freeze(const std::vector<std::string> &objects, const fs::path &store, const char *method = nullptr,
            bool digest = true);

struct Line {
    uint32_t kind;
    std::string object, path, detail;
    bool operator==(const Line &) const = default;
    bool operator<(const Line &other) const { return path < other.path; }
};
std::ostream &operator<<(std::ostream &out, const Line &line);
/// A report's lines, sorted by path; releases it.
struct Report {
    explicit Report(qfi_report *report);
    uint64_t entries = 0, bytes = 0, changed = 0, count = 0;
    std::vector<Line> lines;
};

/// Runs a body in a child process, which must not fail the test; gives its exit code, or minus its signal.
int in_child(const std::function<void()> &body);

/// A folder of the test's own, on the file system that the test's parameter names: "copy" for any.
class Images : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override;
    void TearDown() override;
    /// Starts the framework; done by most tests at once.
    void start(qfi_handler *handler = nullptr) { framework_.emplace(top / "root", handler); }
    void stop() { framework_.reset(); }
    fs::path top;    // the folder
    fs::path object; // a zoo in it
    fs::path store;

private:
    std::unique_ptr<LoopFilesystem> disk_;
    std::optional<Framework> framework_;
};

/// The parameter, for the tests' names.
inline std::string name_of(const testing::TestParamInfo<const char *> &parameter) {
    return parameter.param;
}

} // namespace images
