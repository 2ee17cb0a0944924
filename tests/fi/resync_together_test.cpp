// Hosts that bring one object up to date, or restore it, at the same time: one after the other, or one of them is told
// that it is busy; the object is one image's in the end, and never a part of each.
#include <sys/wait.h>
#include <unistd.h>

#include "resync_support.h"

namespace images {
namespace {

using Change = int32_t (*)(const Tree &);
int32_t do_resync(const Tree &tree) {
    return resync(tree, nullptr, 2);
}
int32_t do_resync_of_a_part(const Tree &tree) {
    return resync(tree, "sub", 2);
}
int32_t do_restore(const Tree &tree) {
    return qfi_op_restore(tree.get(), nullptr, nullptr);
}

class ResyncTogether : public Images {
protected:
    void SetUp() override {
        Images::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        fs::remove_all(object);
        make_original(object);
        add_files("first");
        keep(object, top / "first");
        first = freeze({object}, store).image_id();
        spoil(object);
        add_files("second, longer");
        keep(object, top / "second");
        second = freeze({object}, store).image_id();
        write_file(object / "plain", "neither");
        fs::remove_all(object / "sub");
        add_files("neither of them");
        keep(object, top / "neither");
        stop(); // hosts in processes of their own have the framework to themselves
    }
    // So that it takes its time.
    void add_files(const std::string &content) const {
        fs::create_directories(object / "files");
        for (int file = 0; file < 60; ++file)
            write_file(object / "files" / std::to_string(file), content);
    }
    bool is(const char *kept) const { return differences(top / kept, object).empty(); }

    // A host that is ready, and does its part when it is told to; its exit code says what came of it.
    enum Result { done = 10, busy = 11 };
    pid_t start_host(const std::string &id, Change change, int gate) const {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0) {
            const Framework framework(top / "root");
            const Tree tree = Tree::of_image(id, store);
            char byte = 0;
            if (write(ready[1], "x", 1) != 1 || read(gate, &byte, 1) != 1)
                _exit(2);
            const int32_t status = change(tree);
            const std::string text = last_error();
            if (status == QFI_FI_BUSY) {
                EXPECT_TRUE(text.ends_with(object.string() + " is in use by another operation\n")) << text;
            } else {
                EXPECT_EQ(status, 0) << text;
            }
            fflush(stdout);
            _exit(HasFailure() ? 1 : status == 0 ? done : busy);
        }
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        return child;
    }

    // Both begin at once, again and again; of those that were told that they had done it, one's image is there.
    void race(Change of_first, Change of_second) {
        int refused = 0;
        for (int round = 0; round < 15 && !HasFailure(); ++round) {
            int gate[2];
            ASSERT_EQ(pipe(gate), 0);
            const pid_t hosts[] = {start_host(first, of_first, gate[0]), start_host(second, of_second, gate[0])};
            ASSERT_EQ(write(gate[1], "xx", 2), 2);
            int codes[2];
            for (const int host : {0, 1}) {
                int status = 0;
                ASSERT_EQ(waitpid(hosts[host], &status, 0), hosts[host]);
                codes[host] = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                EXPECT_TRUE(codes[host] == done || codes[host] == busy) << codes[host];
            }
            EXPECT_TRUE(codes[0] == done || codes[1] == done) << "somebody must get through";
            EXPECT_TRUE((codes[0] == done && is("first")) || (codes[1] == done && is("second")))
                << differences(top / "first", object) << "or\n"
                << differences(top / "second", object);
            EXPECT_EQ(temporary_names(top), std::set<std::string>{});
            refused += codes[0] == busy || codes[1] == busy ? 1 : 0;
            close(gate[0]);
            close(gate[1]);
            fs::remove_all(object);
            keep(top / "neither", object);
        }
        printf("refused in %d rounds\n", refused);
    }

    // While one host is in the middle of its work another one is refused.
    void expect_excluded(Change running, const std::vector<Change> &others) {
        struct Wait : qfi_progress_handler {
            int in, out;
        };
        static Wait wait{};
        int to_child[2], to_parent[2];
        ASSERT_EQ(pipe(to_child), 0);
        ASSERT_EQ(pipe(to_parent), 0);
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
        const pid_t child = fork();
        if (child == 0) {
            static qfi_handler handler{};
            handler.reserved1 = static_cast<qfi_progress_handler *>(&wait);
            setenv("QFI_API_LIB", FI_LIBRARY, 1);
            setenv("QFI_DIR", FI_PLUGINS, 1);
            qzfiapi_set_init_env((top / "root").c_str(), "resync_together_test");
            qzfiapi_start(&handler, QFI_API_VERSION);
            _exit(running(Tree::of_image(first, store)) == 0 ? 0 : 1);
        }
        char byte = 0;
        ASSERT_EQ(read(to_parent[0], &byte, 1), 1); // the child is in the middle of it
        for (const Change other : others)
            EXPECT_EQ(in_child([&] {
                          const Framework framework(top / "root");
                          const Tree tree = Tree::of_image(second, store);
                          EXPECT_EQ(other(tree), QFI_FI_BUSY);
                          EXPECT_NE(last_error().find(object.string() + " is in use by another operation\n"),
                                    std::string::npos);
                      }),
                      0);
        ASSERT_EQ(write(to_child[1], "x", 1), 1);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(differences(top / "first", object), "");
        EXPECT_EQ(temporary_names(top), std::set<std::string>{});
        // It was let go of.
        EXPECT_EQ(in_child([&] {
                      const Framework framework(top / "root");
                      EXPECT_EQ(do_resync(Tree::of_image(second, store)), 0) << last_error();
                  }),
                  0);
        EXPECT_EQ(differences(top / "second", object), "");
    }

    std::string first, second; // images
};
INSTANTIATE_TEST_SUITE_P(On, ResyncTogether, testing::Values("copy", "xfs", "btrfs"), name_of);

TEST_P(ResyncTogether, two_of_them_end_with_one_image) {
    race(do_resync, do_resync);
}

TEST_P(ResyncTogether, while_one_works_another_and_one_of_a_part_are_refused) {
    expect_excluded(do_resync, {do_resync, do_resync_of_a_part});
}

TEST_P(ResyncTogether, and_a_restore_end_with_one_image) {
    race(do_resync, do_restore);
}

TEST_P(ResyncTogether, while_one_works_a_restore_is_refused) {
    expect_excluded(do_resync, {do_restore});
}

TEST_P(ResyncTogether, are_refused_while_a_restore_works) {
    expect_excluded(do_restore, {do_resync, do_resync_of_a_part, do_restore});
}

} // namespace
} // namespace images
