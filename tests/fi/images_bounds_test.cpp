// The bounds of images: of their folder, which no link leads out of, and of what an id document can hold.
#include "images_support.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/sanitized.h"

namespace {
bool knows_flags = true;          // the file system, of renaming
std::filesystem::path not_synced; // a directory that cannot be
} // namespace

extern "C" int fsync(int file) {
    std::error_code error;
    if (!not_synced.empty() &&
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), error) == not_synced) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, file));
}

// Found by libfi.so before the C library's: a file system that knows no flags, as some network file systems.
extern "C" int renameat2(int from, const char *name, int to, const char *new_name, unsigned flags) noexcept {
    if (!knows_flags && flags != 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(SYS_renameat2, from, name, to, new_name, flags));
}

namespace images {
namespace {

using Bounds = Images;
INSTANTIATE_TEST_SUITE_P(On, Bounds, testing::Values("copy"), name_of);

// What `access` says of an image's object; the path when it succeeds.
std::string access_to(const Tree &tree, const char *subpath) {
    char *path = nullptr;
    const int32_t status = qfi_op_access(tree.get()->fid_children->fid_children, subpath, &path);
    const std::string said = status == 0 ? path : std::to_string(status) + " " + last_error();
    qfi_op_free_buffer(path);
    return said;
}

TEST_P(Bounds, a_link_in_a_stored_image_leads_nowhere) {
    const fs::path outside = top / "outside", aside = top / "aside";
    fs::create_directories(outside / "0" / "sub");
    write_file(outside / "0" / "sub" / "file", "of another");
    write_file(object / "sub" / "file", "frozen");
    const Tree tree = freeze({object}, store, "copy");
    const fs::path image = store / "images" / tree.image_id(), objects = image / "objects";
    ASSERT_EQ(access_to(tree, nullptr), (objects / "0").string());
    ASSERT_EQ(access_to(tree, "sub/file"), (objects / "0" / "sub" / "file").string());
    const std::string damaged =
        "1032 qzfi_access: image " + tree.image_id() + " is damaged: " + (objects / "0").string() + ": ";

    const auto with_link = [&](const fs::path &at, const fs::path &to, const auto &look) {
        fs::rename(at, aside);
        fs::create_directory_symlink(to, at);
        look();
        fs::remove(at);
        fs::rename(aside, at);
    };
    const auto expect_damaged = [&] {
        for (const char *const subpath : {static_cast<const char *>(nullptr), "", "sub", "sub/file"})
            EXPECT_EQ(access_to(tree, subpath), damaged + "Too many levels of symbolic links (40)\n");
    };
    with_link(objects, outside, expect_damaged);
    with_link(objects / "0", outside / "0", expect_damaged);
    with_link(image, outside.parent_path() / "aside", [&] {
        EXPECT_EQ(access_to(tree, nullptr), "1032 qzfi_access: image " + tree.image_id() +
                                                " is damaged: " + image.string() + ": Not a directory (20)\n");
    });
    with_link(objects / "0" / "sub", outside / "0" / "sub", [&] {
        EXPECT_EQ(access_to(tree, nullptr), (objects / "0").string());
        EXPECT_EQ(access_to(tree, "sub"), (objects / "0" / "sub").string()) << "a link is shown as it is";
        EXPECT_EQ(access_to(tree, "sub/file"), "1038 qzfi_access: " + (objects / "0" / "sub/file").string() +
                                                   " leaves its place: Too many levels of symbolic links (40)\n");
    });
    EXPECT_EQ(access_to(tree, "sub/file"), (objects / "0" / "sub" / "file").string());
}

TEST_P(Bounds, a_restore_that_may_not_be_on_the_disk_removes_neither_tree) {
    const Tree tree = freeze({object}, store, "copy");
    write_file(object / "plain", "changed");
    not_synced = top;
    EXPECT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), QFI_FI_WRITE);
    not_synced.clear();
    EXPECT_EQ(content_of(object / "plain"), "changed");
    std::vector<std::string> contents;
    for (const fs::directory_entry &entry : fs::directory_iterator(top))
        if (entry.path().filename().string().ends_with("-tree"))
            contents.push_back(content_of(entry.path() / "plain"));
    EXPECT_EQ(contents, std::vector<std::string>{"plain content"});
    EXPECT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    for (const fs::directory_entry &entry : fs::directory_iterator(top))
        EXPECT_NE(entry.path().filename().string().rfind(".qzfi", 0), 0u) << entry.path();
}

TEST_P(Bounds, what_an_id_document_could_not_hold_is_refused_before_anything_is_made) {
    constexpr std::size_t most = std::size_t{1} << 20;
    const Tree tree({object});
    ASSERT_EQ(qfi_op_select(tree.get(), nullptr, "copy", store.c_str()), 0) << last_error();
    ASSERT_EQ(qfi_op_config(tree.get(), "label", 0, std::string(most + 1, 'l').c_str()), 0);
    const std::string cause = ": invalid argument: the id document could not be read again: the label is 1048577 bytes "
                              "long, and 1048576 are the most\n";
    EXPECT_EQ(qfi_op_pre_prepare(tree.get()), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "qzfi_pre_prepare" + cause);
    EXPECT_EQ(qfi_op_prepare(tree.get(), 0, nullptr, nullptr), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "qzfi_prepare" + cause);
    EXPECT_FALSE(fs::exists(store));

    // Of these each becomes four in the document.
    const std::string longest(most, '\x01');
    ASSERT_EQ(qfi_op_config(tree.get(), "label", 0, longest.c_str()), 0);
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_make(tree.get(), nullptr, &fiid), 0) << last_error();
    Tree again;
    EXPECT_EQ(qfi_op_reaccess_tree(fiid, &again, nullptr, store.c_str(), nullptr, 0), 0) << last_error();
    qfi_op_free_fiid(fiid);
    qfi_image_list *list = nullptr;
    ASSERT_EQ(qfi_op_query_tree_status(again.get(), nullptr, &list), 0) << last_error();
    EXPECT_TRUE(list->image.label == longest);
    qfi_op_free_valid_sec_list(list);
}

TEST_P(Bounds, a_file_system_that_cannot_exchange_directories_is_named_as_the_cause) {
    struct Known {
        Known() { knows_flags = false; }
        ~Known() { knows_flags = true; }
    } const known;
    const Tree tree = freeze({object}, store, "copy");
    write_file(object / "plain", "changed");
    EXPECT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(last_error(), "qzfi_restore: " + object.string() +
                                " cannot be replaced: this file system cannot exchange directories atomically; "
                                "restore to another place, or resynchronise it\n");
    EXPECT_EQ(content_of(object / "plain"), "changed");
    const std::string to = top / "restored";
    qfi_restore_options options;
    QFI_INIT(options);
    options.to = to.c_str();
    ASSERT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(top / "restored" / "plain"), "plain content");
    ASSERT_EQ(qfi_op_deport_tree(tree.get(), (top / "exported").c_str(), nullptr), 0) << last_error();
    EXPECT_TRUE(fs::exists(top / "exported" / tree.image_id()));
}

TEST_P(Bounds, the_memory_of_a_freeze_does_not_grow_with_the_number_of_files) {
    if (is_sanitized)
        GTEST_SKIP() << "a sanitizer's own memory grows with what is allocated and released";
    const bool is_long = getenv("QZFI_TEST_LONG") != nullptr;
    const int files = is_long ? 1'000'000 : 200'000;
    const long most_kib = (is_long ? 64 : 24) * 1024; // far less than as many names and records would take
    char memory[] = "/dev/shm/qzfi_bounds_XXXXXX";    // no disk waits
    ASSERT_NE(mkdtemp(memory), nullptr);
    const fs::path many = fs::path(memory) / "object";
    fs::create_directory(many);
    const int directory = open(many.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int file = 0; file < files; ++file) {
        const std::string name = "an empty file with a name of some length, number " + std::to_string(file);
        const int made = openat(directory, name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        ASSERT_GE(made, 0) << name;
        close(made);
    }
    close(directory);
    rusage before{}, after{};
    ASSERT_EQ(getrusage(RUSAGE_SELF, &before), 0);
    const fs::path there = fs::path(memory) / "store";
    {
        const Tree tree = freeze({many}, there, "copy");
        ASSERT_EQ(getrusage(RUSAGE_SELF, &after), 0);
        qfi_image_list *list = nullptr;
        ASSERT_EQ(qfi_op_snapreplica_list(nullptr, there.c_str(), &list), 0) << last_error();
        EXPECT_EQ(list->image.entries, static_cast<uint64_t>(files) + 1);
        qfi_op_free_snapreplica_list(list);
    }
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, most_kib);
    RecordProperty("growth_kib", static_cast<int>(after.ru_maxrss - before.ru_maxrss));
    fs::remove_all(memory);
}

} // namespace
} // namespace images
