#include "log/log_support.h"
#include "support/fault.h"

#include <cerrno>
#include <climits>
#include <dlfcn.h>
#include <fcntl.h>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <qzfi/system.h>

#include <gtest/gtest.h>

namespace {

using namespace log_support;

class System : public testing::Test {
protected:
    std::string path(const std::string &name) const { return scratch.path() / name; }
    ScratchDir scratch;
};

/// Runs a check in a child without root's rights, to which every file is accessible; true when it held.
template <class Check>
bool holds_for_a_user(Check check) {
    const pid_t child = fork();
    if (child == 0) {
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(2);
        _exit(check() ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(System, pathaccess_tests_existence_for_mode_0) {
    write_file(path("f"), "");
    EXPECT_EQ(qzfi_pathaccess(path("f").c_str(), 0), 0);
    EXPECT_EQ(qzfi_pathaccess(path("none").c_str(), 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(System, pathaccess_tests_each_combination_of_rights) {
    chmod(scratch.path().c_str(), 0755);
    for (mode_t rights = 0; rights < 8; ++rights) {
        const std::string file = path("f" + std::to_string(rights));
        write_file(file, "");
        chmod(file.c_str(), rights * 0111); // for the owner, too, when the tests run as a user
        for (int32_t mode = 0; mode < 16; ++mode) {
            // Mode bit 4 asks for nothing here.
            const mode_t asked =
                ((mode & 1) != 0 ? 4u : 0u) | ((mode & 2) != 0 ? 2u : 0u) | ((mode & 8) != 0 ? 1u : 0u);
            const int32_t expected = (rights & asked) == asked ? 0 : -1;
            EXPECT_TRUE(holds_for_a_user([&] {
                const int32_t result = qzfi_pathaccess(file.c_str(), mode);
                return result == expected && (result == 0 || qzfi_errno() == EACCES);
            })) << "rights "
                << rights << " mode " << mode;
        }
    }
}

TEST_F(System, directory_streams_give_every_name_and_then_null) {
    write_file(path("a"), "");
    write_file(path(".b"), "");
    DIR *stream = qzfi_opendir(scratch.path().c_str());
    ASSERT_NE(stream, nullptr);
    std::set<std::string> names;
    while (const char *name = qzfi_dir(stream))
        names.insert(name);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", ".b"}));
    EXPECT_EQ(qzfi_dir(stream), nullptr);
    const int fd = dirfd(stream);
    EXPECT_EQ(qzfi_closedir(stream), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(System, opendir_of_nothing_is_null) {
    EXPECT_EQ(qzfi_opendir(path("none").c_str()), nullptr);
    EXPECT_EQ(qzfi_errno(), ENOENT);
}

TEST_F(System, a_directory_that_cannot_be_read_has_no_next_name) {
    DIR *stream = qzfi_opendir(scratch.path().c_str());
    ASSERT_NE(stream, nullptr);
    {
        const fault::Armed failing(fault::Call::readdir, 1);
        EXPECT_EQ(qzfi_dir(stream), nullptr);
    }
    EXPECT_EQ(qzfi_closedir(stream), 0);
}

struct OpenMode {
    int32_t mode;
    int access;    // as fcntl gives it
    mode_t rights; // of a file created by it; 0 when the mode creates none
};

void PrintTo(const OpenMode &row, std::ostream *out) {
    *out << row.mode;
}

class OpenFile : public testing::TestWithParam<OpenMode> {
protected:
    ScratchDir scratch;
};

TEST_P(OpenFile, opens_for_reading_and_writing_as_told) {
    const std::string file = scratch.path() / "f";
    write_file(file, "kept");
    const int32_t fd = qzfi_openfile(file.c_str(), GetParam().mode);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, GetParam().access);
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(qzfi_closefile(fd), 0);
    EXPECT_EQ(content_of(file), "kept");
}

TEST_P(OpenFile, creates_with_the_flags_plus_0x40_as_rights) {
    const std::string file = scratch.path() / "f";
    const mode_t before = umask(0);
    const int32_t fd = qzfi_openfile(file.c_str(), GetParam().mode);
    const int error = qzfi_errno();
    umask(before);
    if (GetParam().rights == 0) {
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(error, ENOENT);
        EXPECT_FALSE(fs::exists(file));
        return;
    }
    ASSERT_GE(fd, 0);
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, GetParam().rights);
    EXPECT_EQ(qzfi_closefile(fd), 0);
}

INSTANTIATE_TEST_SUITE_P(System, OpenFile,
                         testing::Values(OpenMode{0, O_RDONLY, 0}, OpenMode{1, O_RDONLY, 0}, OpenMode{2, O_WRONLY, 0},
                                         OpenMode{3, O_RDWR, 0}, OpenMode{4, O_RDONLY, 0x80},
                                         OpenMode{5, O_RDONLY, 0x80}, OpenMode{6, O_WRONLY, 0x81},
                                         OpenMode{7, O_RDWR, 0x82}));

TEST_F(System, descriptors_are_written_read_and_closed) {
    write_file(path("f"), "");
    const int32_t fd = qzfi_openfile(path("f").c_str(), QFI_FILE_READ | QFI_FILE_WRITE);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(qzfi_writefile(fd, "abc", 3), 3);
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    char buffer[8] = "";
    EXPECT_EQ(qzfi_readfile(fd, buffer, sizeof buffer), 3);
    EXPECT_EQ(std::string(buffer, 3), "abc");
    EXPECT_EQ(qzfi_readfile(fd, buffer, sizeof buffer), 0);
    EXPECT_EQ(qzfi_closefile(fd), 0);
    EXPECT_EQ(qzfi_readfile(fd, buffer, sizeof buffer), -1);
    EXPECT_EQ(qzfi_errno(), EBADF);
    errno = 0;
    EXPECT_EQ(qzfi_writefile(fd, "x", 1), -1);
    EXPECT_EQ(qzfi_errno(), EBADF);
    errno = 0;
    EXPECT_EQ(qzfi_closefile(fd), -1);
    EXPECT_EQ(qzfi_errno(), EBADF);
}

TEST_F(System, a_transfer_is_one_call_that_may_be_short_or_fail) {
    write_file(path("f"), "abcdef");
    const int32_t fd = qzfi_openfile(path("f").c_str(), QFI_FILE_READ | QFI_FILE_WRITE);
    ASSERT_GE(fd, 0);
    char buffer[6];
    {
        const fault::ShortTransfers shortened(2);
        EXPECT_EQ(qzfi_readfile(fd, buffer, sizeof buffer), 2);
        EXPECT_EQ(qzfi_writefile(fd, "xyz", 3), 2);
    }
    {
        const fault::Armed interrupted(fault::Call::read, 1, {.error = EINTR});
        EXPECT_EQ(qzfi_readfile(fd, buffer, sizeof buffer), -1);
        EXPECT_EQ(qzfi_errno(), EINTR);
    }
    {
        const fault::Armed interrupted(fault::Call::write, 1, {.error = EINTR});
        EXPECT_EQ(qzfi_writefile(fd, "x", 1), -1);
        EXPECT_EQ(qzfi_errno(), EINTR);
    }
    EXPECT_EQ(qzfi_closefile(fd), 0);
    EXPECT_EQ(content_of(path("f")), "abxyef");
}

struct LoaderCall {
    const char *name;
    void *(*load)(const char *path);
};

void PrintTo(const LoaderCall &row, std::ostream *out) {
    *out << row.name;
}

class Loader : public testing::TestWithParam<LoaderCall> {};

TEST_P(Loader, resolves_symbols_lazily) {
    void *library = GetParam().load(SYSTEM_PROBE); // it calls what nobody defines
    ASSERT_NE(library, nullptr) << qzfi_dlerror();
    auto *answer = reinterpret_cast<int (*)()>(qzfi_dlsym(library, "system_probe_answer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(qzfi_dlclose(library), 0);
    EXPECT_EQ(dlopen(SYSTEM_PROBE, RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

TEST_P(Loader, keeps_a_librarys_names_to_itself) {
    void *library = GetParam().load(SYSTEM_PROBE);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(qzfi_dlsym(nullptr, "system_probe_answer"), nullptr);
    EXPECT_EQ(qzfi_dlclose(library), 0);
}

TEST_P(Loader, of_nothing_gives_null_and_an_error_text_once) {
    qzfi_dlerror();
    EXPECT_EQ(GetParam().load("/nowhere/none.so"), nullptr);
    const char *text = qzfi_dlerror();
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "/nowhere/none.so: cannot open shared object file: No such file or directory");
    EXPECT_EQ(qzfi_dlerror(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(System, Loader,
                         testing::Values(LoaderCall{"pgn", &qzfi_dlopen_pgn}, LoaderCall{"lib", &qzfi_dlopen_lib}));

TEST_F(System, dlsym_of_a_missing_symbol_gives_null_and_an_error_text) {
    void *library = qzfi_dlopen_lib(SYSTEM_PROBE);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(qzfi_dlsym(library, "system_probe_none"), nullptr);
    EXPECT_NE(qzfi_dlerror(), nullptr);
    EXPECT_EQ(qzfi_dlclose(library), 0);
}

TEST_F(System, mmap_maps_a_file_read_only_and_private_from_its_start) {
    write_file(path("f"), "mapped");
    const int32_t fd = qzfi_openfile(path("f").c_str(), QFI_FILE_READ);
    ASSERT_GE(fd, 0);
    void *address = qzfi_mmap(6, fd);
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(std::string(static_cast<const char *>(address), 6), "mapped");
    char start[20];
    snprintf(start, sizeof start, "%lx-", reinterpret_cast<unsigned long>(address));
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line) && line.rfind(start, 0) != 0)
        continue;
    EXPECT_NE(line.find(" r--p 00000000 "), std::string::npos) << line;
    EXPECT_EQ(qzfi_munmap(address, 6), 0);
    EXPECT_EQ(msync(address, 6, MS_ASYNC), -1); // as nothing is mapped there
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(qzfi_closefile(fd), 0);
}

TEST_F(System, mmap_gives_null_on_failure) {
    EXPECT_EQ(qzfi_mmap(1, -1), nullptr);
    EXPECT_EQ(qzfi_errno(), EBADF);
    write_file(path("f"), "x");
    const int32_t fd = qzfi_openfile(path("f").c_str(), QFI_FILE_READ);
    EXPECT_EQ(qzfi_mmap(0, fd), nullptr);
    EXPECT_EQ(qzfi_errno(), EINVAL);
    EXPECT_EQ(qzfi_closefile(fd), 0);
}

TEST_F(System, munmap_gives_its_failure) {
    EXPECT_EQ(qzfi_munmap(reinterpret_cast<void *>(1), 1), -1);
    EXPECT_EQ(qzfi_errno(), EINVAL);
}

TEST_F(System, errno_is_the_calling_threads) {
    int32_t others = 123;
    errno = 123;
    std::thread([&] {
        errno = 7;
        others = qzfi_errno();
    }).join();
    EXPECT_EQ(others, 7);
    EXPECT_EQ(qzfi_errno(), 123);
    errno = 0;
    EXPECT_EQ(qzfi_errno(), 0);
}

TEST_F(System, snprintf_is_bounded_and_gives_the_whole_length) {
    char buffer[5] = "xxxx";
    EXPECT_EQ(qzfi_snprintf(buffer, sizeof buffer, "%d-%s", 12, "ab"), 5);
    EXPECT_STREQ(buffer, "12-a");
    EXPECT_EQ(qzfi_snprintf(buffer, sizeof buffer, "%s", "abcd"), 4);
    EXPECT_STREQ(buffer, "abcd");
    EXPECT_EQ(qzfi_snprintf(buffer, 1, "%s", "abcd"), 4);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(qzfi_snprintf(nullptr, 0, "%s", "abcd"), 4);
    const wchar_t unrepresentable[] = {0x110000, 0};
    EXPECT_EQ(qzfi_snprintf(buffer, sizeof buffer, "%ls", unrepresentable), -1);
}

struct Number {
    int32_t number;
    const char *text;
};

void PrintTo(const Number &row, std::ostream *out) {
    *out << row.number;
}

class Mysprintf : public testing::TestWithParam<Number> {};

TEST_P(Mysprintf, fills_ten_bytes) {
    char *out = nullptr;
    char *text = qzfi_mysprintf(GetParam().number, &out);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(out, text);
    std::string expected = GetParam().text;
    expected.resize(10, '\0');
    EXPECT_EQ(std::string(text, 10), expected);
    free(text);
}

INSTANTIATE_TEST_SUITE_P(System, Mysprintf,
                         testing::Values(Number{0, "0"}, Number{-1, "-1"}, Number{2, "2"},
                                         Number{999999999, "999999999"}, Number{-99999999, "-99999999"},
                                         Number{1234567890, "123456789"}, Number{INT_MAX, "214748364"},
                                         Number{INT_MIN, "-21474836"}));

TEST_F(System, mysprintf_takes_no_place_for_the_text) {
    char *text = qzfi_mysprintf(5, nullptr);
    EXPECT_STREQ(text, "5");
    free(text);
}

TEST_F(System, mysprintf_gives_null_when_memory_is_short) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        char place = 'x';
        char *out = &place;
        trial.arm();
        char *text = qzfi_mysprintf(7, &out);
        trial.disarm();
        EXPECT_EQ(text == nullptr, trial.fired());
        EXPECT_EQ(out, text);
        free(text);
    });
}

} // namespace
