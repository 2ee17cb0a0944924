#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <qzfi/paths.h>

#include "support/fault.h"

namespace {

const char *stated_directory = nullptr;

/// Lets a test say what the current directory is called.
class CurrentDirectory {
public:
    explicit CurrentDirectory(const char *name) { stated_directory = name; }
    ~CurrentDirectory() { stated_directory = nullptr; }
    CurrentDirectory(const CurrentDirectory &) = delete;
    CurrentDirectory &operator=(const CurrentDirectory &) = delete;
};

/// A real, empty directory that is the current one while it lives.
class RealDirectory {
public:
    RealDirectory() : before_(std::filesystem::current_path()) {
        std::string name = std::filesystem::canonical(testing::TempDir()).string() + "/pathcanonXXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            std::abort();
        path_ = name;
        std::filesystem::current_path(path_);
    }
    ~RealDirectory() {
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(path_);
    }
    RealDirectory(const RealDirectory &) = delete;
    RealDirectory &operator=(const RealDirectory &) = delete;
    const std::string &path() const { return path_; }

private:
    std::filesystem::path before_;
    std::string path_;
};

/// What pathcanon gives, nothing for null.
std::optional<std::string> canonical(const std::string &path) {
    char sentinel = 'x';
    char *out = &sentinel;
    pathcanon(path.c_str(), &out);
    EXPECT_NE(out, &sentinel);
    if (out == nullptr)
        return std::nullopt;
    const std::string text = out;
    std::free(out);
    return text;
}

std::string repeated(const std::string &text, std::size_t times) {
    std::string all;
    for (std::size_t i = 0; i < times; ++i)
        all += text;
    return all;
}

struct Row {
    const char *directory;
    const char *path;
    const char *expected;
};

void expect_rows(std::initializer_list<Row> rows) {
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.path) + " in " + row.directory);
        const CurrentDirectory current(row.directory);
        EXPECT_EQ(canonical(row.path), row.expected);
    }
}

constexpr std::size_t longest = 2047;

} // namespace

// Takes the place of the system's call for the whole program. Under a name of its own in the source, since a hardened
// build has the other defined inline.
extern "C" char *replaced_getcwd(char *buffer, size_t size) noexcept __asm__("getcwd");

char *replaced_getcwd(char *buffer, size_t size) noexcept {
    static const auto real = reinterpret_cast<char *(*)(char *, size_t)>(dlsym(RTLD_NEXT, "getcwd"));
    if (stated_directory == nullptr)
        return real(buffer, size);
    if (std::strlen(stated_directory) >= size) {
        errno = ERANGE;
        return nullptr;
    }
    return std::strcpy(buffer, stated_directory);
}

TEST(Pathcanon, separators_and_single_dots_are_dropped) {
    expect_rows({{"/x", "/", "/"},
                 {"/x", "//", "/"},
                 {"/x", "///", "/"},
                 {"/x", "/a", "/a"},
                 {"/x", "//a", "/a"},
                 {"/x", "/a/", "/a"},
                 {"/x", "/a///", "/a"},
                 {"/x", "/a//b", "/a/b"},
                 {"/x", "/.", "/"},
                 {"/x", "/./", "/"},
                 {"/x", "/./a/./b/.", "/a/b"},
                 {"/x", "/a/b/c", "/a/b/c"}});
}

TEST(Pathcanon, a_relative_path_begins_in_the_current_directory) {
    expect_rows({{"/x", "a//b/./c/..", "/x/a/b"},
                 {"/x", "", "/x"},
                 {"/x", ".", "/x"},
                 {"/x", "./", "/x"},
                 {"/x", "a", "/x/a"},
                 {"/x", "a/", "/x/a"},
                 {"/x", "./a", "/x/a"},
                 {"/x/y", "a", "/x/y/a"},
                 {"/", "", "/"},
                 {"/", ".", "/"},
                 {"/", "a", "/a"},
                 {"/", "a/..", "/"}});
}

TEST(Pathcanon, two_dots_remove_the_last_component_and_stay_at_the_root) {
    expect_rows({{"/x", "/..", "/"},
                 {"/x", "/../..", "/"},
                 {"/x", "/../a", "/a"},
                 {"/x", "/../../a", "/a"},
                 {"/x", "/a/..", "/"},
                 {"/x", "/a/../", "/"},
                 {"/x", "/a/../..", "/"},
                 {"/x", "/a/../../b", "/b"},
                 {"/x", "/a/b/../c", "/a/c"},
                 {"/x", "/a/b/../../c", "/c"},
                 {"/x", "/a/b//.././/..//c", "/c"},
                 {"/x", "..", "/"},
                 {"/x", "../..", "/"},
                 {"/x", "../a", "/a"},
                 {"/x/y", "..", "/x"},
                 {"/x/y", "../..", "/"},
                 {"/x/y", "../z", "/x/z"},
                 {"/x/y", "../../../z", "/z"},
                 {"/", "..", "/"},
                 {"/", "../..", "/"},
                 {"/", "../a", "/a"}});
}

TEST(Pathcanon, other_components_with_dots_are_names) {
    expect_rows({{"/x", "/...", "/..."},
                 {"/x", "/a/.../..", "/a"},
                 {"/x", "/.a/..b/c./d..", "/.a/..b/c./d.."},
                 {"/x", "/a../..", "/"},
                 {"/x", "/a/ ", "/a/ "},
                 {"/x", "/\xff\x01\n", "/\xff\x01\n"}});
}

TEST(Pathcanon, two_dots_after_two_dots_of_the_current_directory_are_kept) {
    expect_rows({{"/x/..", "", "/x/.."},
                 {"/x/..", "a", "/x/../a"},
                 {"/x/..", "..", "/x/../.."},
                 {"/x/..", "../..", "/x/../../.."},
                 {"/x/..", "a/..", "/x/.."},
                 {"/x/..", "a/../..", "/x/../.."},
                 {"/x/..", "../a/..", "/x/../.."},
                 {"/x/..", "./..", "/x/../.."},
                 {"/..", "..", "/../.."},
                 {"/x/...", "..", "/x"},
                 {"/x..", "..", "/"}});
    // Also below something that did not fit.
    const CurrentDirectory current("/x/..");
    EXPECT_EQ(canonical(std::string(3000, 'a') + "/../.."), "/x/../..");
}

TEST(Pathcanon, an_absolute_path_never_keeps_two_dots) {
    const CurrentDirectory current("/x/..");
    EXPECT_EQ(canonical("/../.."), "/");
    EXPECT_EQ(canonical("/a/../../../b/../.."), "/");
}

TEST(Pathcanon, links_are_not_followed) {
    const RealDirectory here;
    ASSERT_EQ(mkdir("real", 0700), 0);
    ASSERT_EQ(mkdir("real/inner", 0700), 0);
    ASSERT_EQ(symlink("real/inner", "link"), 0);
    EXPECT_EQ(canonical("link/.."), here.path());
    EXPECT_EQ(canonical("link/a"), here.path() + "/link/a");
    EXPECT_EQ(canonical("absent/../real"), here.path() + "/real");
}

TEST(Pathcanon, a_result_of_2047_characters_fits_and_one_more_gives_null) {
    for (const std::string &tail : {std::string(), std::string("/"), std::string("/."), std::string("/b/..")}) {
        SCOPED_TRACE("followed by \"" + tail + "\"");
        const std::string fits = "/" + std::string(longest - 1, 'a');
        EXPECT_EQ(canonical(fits + tail), fits);
        EXPECT_EQ(canonical(fits + "a" + tail), std::nullopt);
    }
    const std::string many = repeated("/d", longest / 2) + "d";
    ASSERT_EQ(many.size(), longest);
    EXPECT_EQ(canonical(many), many);
    EXPECT_EQ(canonical(many + "d"), std::nullopt);
    EXPECT_EQ(canonical(many + "/e"), std::nullopt);
}

TEST(Pathcanon, the_current_directory_counts) {
    const std::string directory = "/" + std::string(999, 'x');
    const CurrentDirectory current(directory.c_str());
    const std::string fits(longest - directory.size() - 1, 'a');
    EXPECT_EQ(canonical(fits), directory + "/" + fits);
    EXPECT_EQ(canonical(fits + "a"), std::nullopt);
    EXPECT_EQ(canonical("../" + fits + std::string(directory.size(), 'a')),
              "/" + fits + std::string(directory.size(), 'a'));
}

TEST(Pathcanon, a_current_directory_of_2047_characters_fits_and_one_more_gives_null) {
    const std::string directory = "/" + std::string(longest - 1, 'x');
    const std::string longer = directory + "x";
    {
        const CurrentDirectory current(directory.c_str());
        EXPECT_EQ(canonical(""), directory);
        EXPECT_EQ(canonical("a"), std::nullopt);
        EXPECT_EQ(canonical("../a"), "/a");
    }
    const CurrentDirectory current(longer.c_str());
    EXPECT_EQ(canonical(""), std::nullopt);
    EXPECT_EQ(canonical("../a"), std::nullopt);
    EXPECT_EQ(canonical("/a"), "/a");
}

TEST(Pathcanon, a_real_current_directory_too_deep_gives_null) {
    const RealDirectory here;
    const std::string name(250, 'd');
    for (int i = 0; i < 9; ++i) {
        ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
    }
    EXPECT_EQ(canonical("a"), std::nullopt);
    EXPECT_EQ(canonical("../../../a"), std::nullopt);
    EXPECT_EQ(canonical("/a"), "/a");
    ASSERT_EQ(chdir(here.path().c_str()), 0);
    EXPECT_EQ(canonical("a"), here.path() + "/a");
}

TEST(Pathcanon, a_path_of_any_length_gives_what_remains_of_it) {
    const std::size_t many = 100000;
    EXPECT_EQ(canonical(std::string(many, '/')), "/");
    EXPECT_EQ(canonical(repeated("/.", many)), "/");
    EXPECT_EQ(canonical(repeated("/..", many)), "/");
    EXPECT_EQ(canonical("/" + std::string(many, 'a')), std::nullopt);
    EXPECT_EQ(canonical("/" + std::string(many, 'a') + "/../b"), "/b");
    EXPECT_EQ(canonical(repeated("/a", many)), std::nullopt);
    EXPECT_EQ(canonical("/r" + repeated("/a", many) + repeated("/..", many) + "/b"), "/r/b");
    EXPECT_EQ(canonical("/r" + repeated("/a", many) + repeated("/..", many - 1) + "/b"), "/r/a/b");
    // A short component after a long one that did not fit does not take its place.
    EXPECT_EQ(canonical("/r/" + std::string(many, 'a') + "/b"), std::nullopt);
    EXPECT_EQ(canonical("/r/" + std::string(many, 'a') + "/b/.."), std::nullopt);
    EXPECT_EQ(canonical("/r/" + std::string(many, 'a') + "/b/../../c"), "/r/c");
}

TEST(Pathcanon, the_buffer_holds_zeros_after_the_text) {
    for (const char *path : {"/aaaa/bbbbbbbb/../c", "/aaaa/../..", "bbb/..", "/"}) {
        SCOPED_TRACE(path);
        char *out = nullptr;
        pathcanon(path, &out);
        ASSERT_NE(out, nullptr);
        for (std::size_t i = std::strlen(out); i < longest + 1; ++i)
            ASSERT_EQ(out[i], '\0') << i;
        std::free(out);
    }
}

TEST(Pathcanon, a_deleted_current_directory_gives_null_for_relative_paths_only) {
    const RealDirectory here;
    ASSERT_EQ(rmdir(here.path().c_str()), 0);
    EXPECT_EQ(canonical("a"), std::nullopt);
    EXPECT_EQ(canonical(""), std::nullopt);
    EXPECT_EQ(canonical("../a"), std::nullopt);
    EXPECT_EQ(canonical("/a/../b"), "/b");
}

TEST(Pathcanon, a_current_directory_without_an_absolute_name_gives_null) {
    for (const char *name : {"(unreachable)/x", "(unreachable)", "x", ""}) {
        SCOPED_TRACE(name);
        const CurrentDirectory current(name);
        EXPECT_EQ(canonical("a"), std::nullopt);
        EXPECT_EQ(canonical(".."), std::nullopt);
        EXPECT_EQ(canonical("/a"), "/a");
    }
}

TEST(Pathcanon, a_current_directory_outside_the_root_gives_null) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may change the root directory";
    const RealDirectory here;
    ASSERT_EQ(mkdir("root", 0700), 0);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        if (chroot("root") != 0)
            _exit(errno == EPERM ? 77 : 2);
        char *relative = nullptr;
        pathcanon("a", &relative);
        char *absolute = nullptr;
        pathcanon("/a", &absolute);
        _exit(relative == nullptr && absolute != nullptr && std::strcmp(absolute, "/a") == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "this process may not change the root directory";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Pathcanon, a_null_path_gives_null_and_a_null_out_does_nothing) {
    char sentinel = 'x';
    char *out = &sentinel;
    pathcanon(nullptr, &out);
    EXPECT_EQ(out, nullptr);
    fault::Armed armed(fault::Call::allocation, 1);
    pathcanon("/a", nullptr);
    pathcanon(nullptr, nullptr);
    EXPECT_FALSE(fault::Armed::fired());
}

TEST(Pathcanon, without_memory_gives_null) {
    for (const char *path : {"a", "/a/.."}) {
        fault::for_each(fault::Call::allocation, [path](fault::Trial &trial) {
            char sentinel = 'x';
            char *out = &sentinel;
            trial.arm();
            pathcanon(path, &out);
            trial.disarm();
            EXPECT_EQ(out == nullptr, trial.fired());
            EXPECT_NE(out, &sentinel);
            std::free(out);
        });
    }
}

TEST(Pathcanon, without_a_current_directory_gives_null) {
    for (const int error : {ENOENT, EACCES, ERANGE}) {
        fault::for_each(fault::Call::getcwd,
                        [](fault::Trial &trial) {
                            char sentinel = 'x';
                            char *out = &sentinel;
                            trial.arm();
                            pathcanon("a", &out);
                            trial.disarm();
                            EXPECT_EQ(out == nullptr, trial.fired());
                            EXPECT_NE(out, &sentinel);
                            std::free(out);
                        },
                        {.error = error});
    }
}

TEST(Pathcanon, an_absolute_path_does_not_ask_for_the_current_directory) {
    const fault::Armed armed(fault::Call::getcwd, 1);
    EXPECT_EQ(canonical("/a/../.."), "/");
    EXPECT_FALSE(fault::Armed::fired());
}
