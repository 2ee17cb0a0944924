// Restores that are killed at each step that changes something: the object is the old one or the new one.
#include "images_support.h"

#include <csignal>
#include <qzfi_provider.h>
#include <sys/wait.h>
#include <unistd.h>

#include "traced_process.h"

namespace images {
namespace {

using Kill = Images;
INSTANTIATE_TEST_SUITE_P(On, Kill, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

void restore_alone(const std::string &id, const fs::path &store) {
    const Tree tree = Tree::of_image(id, store);
    qfi_restore_options options;
    QFI_INIT(options);
    options.workers = 1;
    if (qfi_op_restore(tree.get(), &options, nullptr) != 0)
        _exit(1);
}

TEST_P(Kill, of_a_restore_leaves_the_old_tree_or_the_new_one) {
    fs::remove_all(object);
    fs::create_directories(object / "sub");
    write_file(object / "sub" / "file", "frozen");
    fs::create_symlink("file", object / "sub" / "link");
    const std::string id = freeze({object}, store, "copy").image_id();
    keep(object, top / "new");
    write_file(object / "sub" / "file", "old, and longer");
    write_file(object / "added", "old");
    keep(object, top / "old");
    stop(); // a child that is killed has the framework to itself
    if (const auto obstacle = traced::obstacle())
        GTEST_SKIP() << *obstacle;
    const auto counts = [&](const traced::Call &call) {
        return traced::changes_something(call) && call.path().rfind(top.string() + "/", 0) == 0;
    };
    int olds = 0, news = 0;
    bool was_killed = true;
    for (int step = 1; was_killed; ++step) {
        const traced::Outcome outcome = traced::run({step, 0, counts, false, step % 2 == 0}, [&] {
            const Framework framework(top / "root");
            traced::begin();
            restore_alone(id, store);
        });
        was_killed = outcome.was_reached;
        ASSERT_EQ(outcome.exit_code, was_killed ? -SIGKILL : 0) << "step " << step;
        const std::string from_old = differences(top / "old", object), from_new = differences(top / "new", object);
        const bool is_old = from_old.empty(), is_new = from_new.empty();
        ASSERT_TRUE(is_old != is_new) << "step " << step << "\n" << from_old << "or\n" << from_new;
        (is_old ? olds : news) += 1;
        if (!is_new)
            continue;
        // The next one begins from the old tree again.
        fs::remove_all(object);
        keep(top / "old", object);
    }
    EXPECT_GE(olds, 5);
    EXPECT_GE(news, 3);
    // What the killed ones left is gone with the next restore, which is through by now.
    for (const fs::directory_entry &entry : fs::directory_iterator(top))
        EXPECT_EQ(entry.path().filename().string().rfind(".qzfi", 0), std::string::npos) << entry.path();
}

TEST_P(Kill, a_second_restore_of_the_same_object_is_told_that_it_is_busy) {
    const Tree tree = freeze({object}, store);
    const std::string id = tree.image_id();
    int to_child[2], to_parent[2];
    ASSERT_EQ(pipe(to_child), 0);
    ASSERT_EQ(pipe(to_parent), 0);
    struct Wait : qfi_progress_handler {
        int in, out;
    };
    static Wait wait{};
    wait.size = sizeof(qfi_progress_handler);
    wait.in = to_child[0];
    wait.out = to_parent[1];
    wait.progress = [](qfi_progress_handler *self, const qfi_progress *told) -> int32_t {
        static bool once = false;
        char byte = 0;
        if (told->entries_done == 0) // nothing is made yet; the next call is due at once after this one
            usleep(200'000);
        else if (!std::exchange(once, true) && write(static_cast<Wait *>(self)->out, "x", 1) == 1 &&
                 read(static_cast<Wait *>(self)->in, &byte, 1) != 1)
            return 1;
        return 0;
    };
    stop();
    const pid_t child = fork();
    if (child == 0) {
        static qfi_handler handler{};
        handler.reserved1 = static_cast<qfi_progress_handler *>(&wait);
        setenv("QFI_API_LIB", FI_LIBRARY, 1);
        setenv("QFI_DIR", FI_PLUGINS, 1);
        qzfiapi_set_init_env((top / "root").c_str(), "images_test");
        qzfiapi_start(&handler, QFI_API_VERSION);
        restore_alone(id, store);
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(to_parent[0], &byte, 1), 1); // the child is in the middle of its restore
    start();
    {
        const Tree again = Tree::of_image(id, store);
        EXPECT_EQ(qfi_op_restore(again.get(), nullptr, nullptr), QFI_FI_BUSY);
        EXPECT_EQ(last_error(), "qzfi_restore: " + object.string() + " is in use by another operation\n");
        // Nor can the image be removed while it is read.
        EXPECT_EQ(qfi_op_detach(again.get(), nullptr, QFI_DETACH_REMOVE, nullptr), QFI_FI_BUSY);
    }
    ASSERT_EQ(write(to_child[1], "x", 1), 1);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace images
