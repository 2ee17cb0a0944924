// Changing originals: one at a time, and looking at no more than what is changed.
#include "images_support.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace images {
namespace {

class Parts : public Images {};

INSTANTIATE_TEST_SUITE_P(On, Parts, testing::Values("copy", "btrfs", "xfs"), name_of);

TEST_P(Parts, are_changed_by_one_at_a_time) {
    const Tree tree = freeze({object}, store);
    const int directory = open(object.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(directory, LOCK_EX), 0); // as another process does that changes it
    write_file(object / "plain", "changed");
    qfi_restore_options options;
    QFI_INIT(options);
    for (const char *const only : {static_cast<const char *>(nullptr), "sub", "plain"}) {
        options.only = only;
        EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), QFI_FI_BUSY);
        const std::string error = last_error();
        EXPECT_NE(error.find(object.string() + " is in use"), std::string::npos) << error;
        EXPECT_EQ(qfi_op_resync(tree.get(), &options, nullptr), QFI_FI_BUSY);
    }
    EXPECT_EQ(content_of(object / "plain"), "changed");
    // What changes nothing there may go on.
    options.only = nullptr;
    options.dry_run = 1;
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error();
    EXPECT_EQ(qfi_op_resync(tree.get(), &options, nullptr), 0) << last_error();
    options.dry_run = 0;
    const std::string elsewhere = top / "elsewhere";
    options.to = elsewhere.c_str();
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error();
    options.to = nullptr;
    close(directory);
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    // Neither what took the original's place nor its absence is in the way.
    fs::remove_all(object);
    write_file(object, "a file");
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error();
    fs::remove_all(object);
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
}

// The names in a folder that are opened while a body runs, "" for its own.
std::vector<std::string> opened_in(const fs::path &folder, const std::function<void()> &body) {
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    EXPECT_GE(inotify_add_watch(watch, folder.c_str(), IN_OPEN), 0);
    body();
    std::vector<std::string> names;
    alignas(inotify_event) char buffer[65536];
    for (ssize_t size; (size = read(watch, buffer, sizeof buffer)) > 0;)
        for (ssize_t at = 0; at < size;) {
            const auto *const event = reinterpret_cast<const inotify_event *>(buffer + at);
            names.emplace_back(event->len != 0 ? event->name : "");
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    close(watch);
    return names;
}

TEST_P(Parts, that_are_restored_are_all_of_the_image_that_is_looked_at) {
    write_file(object / "sub" / "beside", "beside");
    const Tree tree = freeze({object}, store);
    const fs::path image = tree.image_path();
    qfi_restore_options options;
    QFI_INIT(options);
    options.digest = 1;
    const auto restore = [&] { EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error(); };
    const auto resync = [&] { EXPECT_EQ(qfi_op_resync(tree.get(), &options, nullptr), 0) << last_error(); };
    for (const std::function<void()> &change : {std::function<void()>(restore), std::function<void()>(resync)}) {
        options.only = "sub";
        EXPECT_EQ(opened_in(image / "empty", change), std::vector<std::string>());
        options.only = "sub/two names";
        EXPECT_EQ(opened_in(image / "sub" / "deeper", change), std::vector<std::string>());
        for (const std::string &name : opened_in(image / "sub", change))
            EXPECT_NE(name, "beside");
    }
    // All of it is, when all is restored: so what was watched for can be seen.
    options.only = nullptr;
    EXPECT_NE(opened_in(image / "empty", restore), std::vector<std::string>());
}

TEST_P(Parts, that_are_damaged_are_found_and_what_is_around_them_is_not_looked_at) {
    if (std::string(GetParam()) == "btrfs")
        return; // nobody changes a snapshot
    const Tree tree = freeze({object}, store);
    const fs::path image = tree.image_path();
    const std::string missing = object.string() + "/sub/deeper/other name";
    fs::remove(image / "sub" / "deeper" / "other name");
    qfi_restore_options options;
    QFI_INIT(options);
    const auto restored = [&](const char *only) {
        options.only = only;
        return qfi_op_restore(tree.get(), &options, nullptr);
    };
    for (const char *const only : {"sub", "sub/deeper", "sub/deeper/other name"}) {
        EXPECT_EQ(restored(only), QFI_FI_DAMAGED) << only;
        const std::string error = last_error();
        EXPECT_NE(error.find(missing + ": missing"), std::string::npos) << error;
    }
    fs::remove(object / "sub" / "dangling"); // no link is replaced
    fs::remove(object / "absolute");
    for (const char *const only : {"empty", "sub/two names", "sub/dangling", "absolute", "plain", "fifo"})
        EXPECT_EQ(restored(only), 0) << only << ": " << last_error();
    // A link's target, a file's size, and a file in a directory's place.
    fs::remove(image / "absolute");
    fs::create_symlink("/usr", image / "absolute");
    fs::remove(object / "absolute");
    EXPECT_EQ(restored("absolute"), QFI_FI_DAMAGED);
    write_file(image / "plain", "more than it was");
    EXPECT_EQ(restored("plain"), QFI_FI_DAMAGED);
    fs::remove(image / "empty");
    write_file(image / "empty", "");
    EXPECT_EQ(restored("empty"), QFI_FI_DAMAGED);
    fs::remove(image / "empty");
    EXPECT_EQ(restored("empty"), QFI_FI_DAMAGED);
    EXPECT_TRUE(fs::is_directory(object / "empty"));
}

} // namespace
} // namespace images
