// Stores: what is there is complete, whatever happens, and whoever else works on it.
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "step_faults.h"
#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;
using step_faults::Kind;

namespace {

constexpr const char *op = "qzfi_test";

class StoreTest : public testing::Test {
protected:
    StoreTest() { step_faults::install(); }
    std::shared_ptr<Store> open(bool create = true) { return Store::open(path, create, op); }
    std::string read(const std::string &id) {
        std::ifstream file(path + "/images/" + id + "/objects/0/data");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // Every image that is listed is whole, and nothing else is there.
    void expect_consistent() {
        const std::shared_ptr<Store> store = open(false);
        store->repair(op);
        for (const ImageRecord &record : store->list(op)) {
            EXPECT_EQ(record.state, 1u);
            EXPECT_EQ(read(record.id), "data");
        }
        EXPECT_EQ(names_in(path + "/images"), ids_of(*store));
        EXPECT_EQ(store->debris_count(), 0u);
    }
    // In memory: a store syncs whole file systems, and these tests make thousands of them.
    Folder folder{access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp"};
    std::string path = folder.path() + "/store";
};

} // namespace

TEST(ImageId, new_ids_differ_and_are_ids) {
    const std::string id = new_image_id();
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9]{8}T[0-9]{6}Z-[0-9a-f]{8}"))) << id;
    EXPECT_TRUE(is_image_id(id));
    EXPECT_NE(new_image_id(), new_image_id());
}

TEST(ImageId, nothing_else_is_an_id) {
    for (const char *const text :
         {"", ".", "..", "../../etc", "20261121T041500Z-8f3a2c1", "20261121T041500Z-8f3a2c1d0",
          "20261121T041500Z-8F3A2C1D", "20261321T041500Z-8f3a2c1d", "20260021T041500Z-8f3a2c1d",
          "20261132T041500Z-8f3a2c1d", "20261121T241500Z-8f3a2c1d", "20261121T046000Z-8f3a2c1d",
          "20261121T041561Z-8f3a2c1d", "20261121T041500Z/8f3a2c1d", "2026112/T041500Z-8f3a2c1d"})
        EXPECT_FALSE(is_image_id(text)) << text;
}

TEST_F(StoreTest, an_image_is_there_once_committed) {
    const std::shared_ptr<Store> store = open();
    const std::string id = make_image(*store);

    const std::optional<ImageRecord> found = open(false)->find(id, op);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->label, "a label");
    EXPECT_EQ(found->time_ns, 1'700'000'000'123'456'789);
    EXPECT_EQ(found->objects.at(0).path, "/home");
    EXPECT_EQ(names_in(path + "/images/" + id), (std::vector<std::string>{"fiid.xml", "lock", "objects"}));
    expect_consistent();
}

TEST_F(StoreTest, a_store_is_made_for_its_owner_alone) {
    const mode_t mask = umask(0);
    open();
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST_F(StoreTest, an_image_that_is_not_committed_leaves_nothing) {
    const std::shared_ptr<Store> store = open();
    {
        NewImage image = store->begin(new_image_id(), op);
        ASSERT_EQ(mkdirat(image.objects(), "0", 0755), 0);
        EXPECT_TRUE(store->list(op).empty());
        EXPECT_EQ(open(false)->debris_count(), 0u) << "somebody works on it";
    }
    EXPECT_TRUE(names_in(path + "/images").empty());
}

TEST_F(StoreTest, a_removed_image_is_gone_and_its_objects_were_given_to_the_remover) {
    const std::shared_ptr<Store> store = open();
    const std::string id = make_image(*store), other = make_image(*store);
    std::vector<std::string> removed;
    store->remove(id, op, [&](int directory, const char *name) {
        removed.push_back(name);
        EXPECT_EQ(ids_of(*store), std::vector<std::string>{other}) << "out of sight first";
        remove_all(directory, name);
    });
    EXPECT_EQ(removed, std::vector<std::string>{"0"});
    EXPECT_EQ(names_in(path + "/images"), std::vector<std::string>{other});
    EXPECT_EQ(status_of_call([&] { store->remove(id, op, remove_all); }), QFI_FI_NO_SUCH_IMAGE);
    EXPECT_EQ(last_error(), "1024 MSG_QFI_E2005: %s: no known store has image %s\n|qzfi_test|" + id);
}

TEST_F(StoreTest, a_removal_that_failed_goes_on_when_it_is_called_again) {
    const std::shared_ptr<Store> store = open();
    const std::string id = make_image(*store);
    EXPECT_EQ(status_of_call([&] { store->remove(id, op, [](int, const char *) { throw Failure{QFI_FI_NO_RIGHT}; }); }),
              QFI_FI_NO_RIGHT);
    EXPECT_TRUE(store->list(op).empty());
    EXPECT_EQ(store->debris_count(), 1u);

    store->remove(id, op, remove_all);
    EXPECT_TRUE(names_in(path + "/images").empty());
}

TEST_F(StoreTest, an_image_that_somebody_works_on_is_busy_and_is_no_debris) {
    const std::shared_ptr<Store> store = open(), other = open();
    const std::string id = make_image(*store);
    store->remove(id, op, [&](int directory, const char *name) {
        EXPECT_EQ(status_of_call([&] { other->remove(id, op, remove_all); }), QFI_FI_BUSY);
        EXPECT_EQ(other->repair(op).debris, 0u);
        remove_all(directory, name);
    });
    EXPECT_TRUE(names_in(path + "/images").empty());
}

TEST_F(StoreTest, an_id_is_made_once) {
    const std::shared_ptr<Store> store = open();
    const std::string id = make_image(*store);
    EXPECT_EQ(status_of_call([&] { store->begin(id, op); }), QFI_FI_EXISTS);
    const NewImage image = store->begin("20260101T000000Z-00000001", op);
    EXPECT_EQ(status_of_call([&] { store->begin("20260101T000000Z-00000001", op); }), QFI_FI_EXISTS);
}

TEST_F(StoreTest, what_is_no_id_never_becomes_a_name) {
    const std::shared_ptr<Store> store = open();
    for (const char *const id : {"", "..", "../../../etc", ".new-20260101T000000Z-00000001"}) {
        EXPECT_EQ(status_of_call([&] { store->begin(id, op); }), QFI_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(status_of_call([&] { store->find(id, op); }), QFI_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(status_of_call([&] { store->remove(id, op, remove_all); }), QFI_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(status_of_call([&] { store->open_image(id, op); }), QFI_STATUS_INVALID_ARGUMENT);
    }
}

TEST_F(StoreTest, a_missing_folder_makes_an_image_damaged) {
    const std::shared_ptr<Store> store = open();
    const std::string id = make_image(*store);
    std::filesystem::remove_all(path + "/images/" + id);
    EXPECT_EQ(store->find(id, op)->state, 3u);
    EXPECT_EQ(store->list(op).at(0).state, 3u);
    EXPECT_EQ(store->repair(op).damaged, std::vector<std::string>{id});
    EXPECT_EQ(status_of_call([&] { store->open_image(id, op); }), QFI_FI_DAMAGED);
    store->remove(id, op, remove_all);
    EXPECT_TRUE(store->list(op).empty());
}

// Found, and removed by another process before it is opened.
TEST_F(StoreTest, an_image_removed_meanwhile_is_no_damaged_one) {
    const std::shared_ptr<Store> store = open();
    const std::string id = make_image(*store);
    ASSERT_TRUE(store->find(id, op));
    open()->remove(id, op, remove_all);
    EXPECT_EQ(status_of_call([&] { store->open_image(id, op); }), QFI_FI_NO_SUCH_IMAGE);
}

TEST_F(StoreTest, links_in_the_place_of_store_images_or_image_are_refused) {
    open();
    std::filesystem::rename(path, folder.path() + "/moved");
    std::filesystem::create_symlink("moved", path);
    EXPECT_EQ(status_of_call([&] { open(); }), QFI_FI_UNSAFE);
    EXPECT_EQ(last_error(),
              "1038 MSG_QFI_E2021: %s: %s leaves its place: %s\n|qzfi_test|" + path + "|a symbolic link is no store");
    EXPECT_EQ(status_of_call([&] { Store::open(path + "//", false, op); }), QFI_FI_UNSAFE);

    path = folder.path() + "/moved";
    const std::string id = make_image(*open());
    const std::string images = path + "/images/";
    std::filesystem::rename(images + id, folder.path() + "/elsewhere");
    std::filesystem::create_symlink(folder.path() + "/elsewhere", images + id);
    EXPECT_EQ(status_of_call([&] { open()->open_image(id, op); }), QFI_FI_DAMAGED);

    std::filesystem::rename(path + "/images", folder.path() + "/images");
    std::filesystem::create_symlink("../images", path + "/images");
    EXPECT_EQ(status_of_call([&] { open(); }), QFI_FI_UNSAFE);
}

TEST_F(StoreTest, a_catalog_that_is_a_link_is_refused) {
    open();
    std::filesystem::rename(path + "/catalog.db", folder.path() + "/catalog.db");
    std::filesystem::create_symlink("../catalog.db", path + "/catalog.db");
    EXPECT_NE(status_of_call([&] { open(); }), 0);
}

TEST_F(StoreTest, what_is_missing_foreign_or_open_to_all_is_no_store) {
    EXPECT_EQ(status_of_call([&] { open(false); }), QFI_FI_STORE);
    EXPECT_EQ(last_error(), "1028 MSG_QFI_E2011: %s: store %s cannot be used: %s\n|qzfi_test|" + path +
                                "|No such file or directory (2)");
    EXPECT_EQ(status_of_call([&] { Store::open("relative", true, op); }), QFI_STATUS_INVALID_ARGUMENT);

    std::filesystem::create_directories(path);
    EXPECT_EQ(status_of_call([&] { open(false); }), QFI_FI_STORE);
    std::ofstream(path + "/letter") << "x";
    EXPECT_EQ(status_of_call([&] { open(); }), QFI_FI_STORE);
    std::filesystem::remove(path + "/letter");
    ASSERT_EQ(chmod(path.c_str(), 0777), 0);
    EXPECT_EQ(status_of_call([&] { open(); }), QFI_FI_UNSAFE);
}

TEST_F(StoreTest, an_update_keeps_what_others_changed) {
    const std::shared_ptr<Store> store = open(), other = open();
    const std::string id = make_image(*store);
    store->update(id, op, [](ImageRecord &record) { record.label = "new"; });
    other->update(id, op, [](ImageRecord &record) {
        record.backed_up = 1;
        record.objects[0].status_text = "taken";
    });
    const ImageRecord record = *store->find(id, op);
    EXPECT_EQ(record.label, "new");
    EXPECT_EQ(record.backed_up, 1u);
    EXPECT_EQ(record.objects[0].status_text, "taken");
    EXPECT_EQ(status_of_call([&] { store->update(record_of("20260101T000000Z-00000001"), op); }), QFI_FI_NO_SUCH_IMAGE);
}

TEST_F(StoreTest, known_stores_are_remembered_for_later_processes_and_forgotten) {
    ASSERT_EQ(qzfi_set_install_root((folder.path() + "/root").c_str()), 0);
    EXPECT_EQ(known_stores(), std::vector<std::string>{default_store_path()});
    EXPECT_EQ(in_child([&] { remember_store(path + "/"); }), 0);
    EXPECT_EQ(known_stores(), (std::vector<std::string>{default_store_path(), path}));
    forget_store(path, op);
    EXPECT_EQ(known_stores(), std::vector<std::string>{default_store_path()});
    EXPECT_EQ(status_of_call([&] { forget_store(path, op); }), QFI_FI_STORE);
    EXPECT_EQ(status_of_call([&] { forget_store(default_store_path(), op); }), QFI_STATUS_INVALID_ARGUMENT);
}

namespace {

// Fails each step of an operation in turn. The operation gives the id of what it made, or "" when it makes nothing.
template <class Operation>
void fail_each_step(Kind kind, int error, bool removes, const std::function<void()> &consistent,
                    const std::string &base, Operation &&operation) {
    for (int nth = 1;; ++nth) {
        ASSERT_LT(nth, 5000);
        const std::string path = base + "/store";
        std::filesystem::remove_all(path);
        const std::string earlier = make_image(*Store::open(path, true, op));
        step_faults::arm(kind, nth, error);
        std::string made;
        const int32_t status = status_of_call([&] { made = operation(path, earlier); });
        const bool fired = step_faults::disarm();
        SCOPED_TRACE("step " + std::to_string(nth) + ", status " + std::to_string(status));
        const std::set<int32_t> honest{0,           QFI_STATUS_NO_MEMORY, QFI_FI_STORE, QFI_FI_NO_SPACE, QFI_FI_CATALOG,
                                       QFI_FI_READ, QFI_FI_WRITE};
        EXPECT_TRUE(honest.count(status) == 1);
        EXPECT_TRUE(fired || status == 0);
        consistent();
        std::vector<std::string> expected{earlier};
        if (status == 0 && removes)
            expected.clear();
        if (status == 0 && !made.empty())
            expected.push_back(made);
        const std::vector<std::string> ids = ids_of(*Store::open(path, false, op));
        const bool may_be_either = status != 0 && removes;
        EXPECT_LE(ids.size(), expected.size());
        if (!may_be_either) {
            EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()),
                      std::set<std::string>(expected.begin(), expected.end()));
        }
        if (!fired || testing::Test::HasFailure())
            return;
    }
}

const std::pair<Kind, int> faults[] = {
    {Kind::calls, EIO}, {Kind::calls, ENOSPC}, {Kind::constructions, ENOMEM}, {Kind::sqlite_allocations, ENOMEM}};

} // namespace

TEST_F(StoreTest, whatever_fails_in_making_an_image_earlier_ones_stay_and_it_is_there_or_not_at_all) {
    for (const auto &[kind, error] : faults)
        fail_each_step(
            kind, error, false, [&] { expect_consistent(); }, folder.path(),
            [](const std::string &at, const std::string &) { return make_image(*Store::open(at, true, op)); });
}

TEST_F(StoreTest, whatever_fails_in_a_removal_nothing_is_left_half) {
    for (const auto &[kind, error] : faults)
        fail_each_step(
            kind, error, true, [&] { expect_consistent(); }, folder.path(),
            [](const std::string &at, const std::string &id) {
                Store::open(at, false, op)->remove(id, op, [](int directory, const char *name) {
                    std::error_code ignored;
                    std::filesystem::remove_all("/proc/self/fd/" + std::to_string(directory) + "/" + name, ignored);
                });
                return std::string();
            });
}

TEST_F(StoreTest, whatever_fails_in_listing_and_repairing_nothing_is_lost) {
    for (const auto &[kind, error] : faults)
        fail_each_step(
            kind, error, false, [&] { expect_consistent(); }, folder.path(),
            [](const std::string &at, const std::string &id) {
                const std::shared_ptr<Store> store = Store::open(at, false, op);
                store->list(op);
                store->find(id, op);
                if (const Store::Repair repaired = store->repair(op); repaired.failure)
                    std::rethrow_exception(repaired.failure);
                store->debris_count();
                return std::string();
            });
}

namespace {

// Kills a child at each step of an operation, and looks at the store afterwards.
void kill_at_each_step(const std::string &base,
                       const std::function<void(const std::string &, const std::string &)> &body,
                       const std::function<void(const std::string &earlier)> &check) {
    for (int nth = 1;; ++nth) {
        ASSERT_LT(nth, 5000);
        const std::string path = base + "/store";
        std::filesystem::remove_all(path);
        const std::string earlier = make_image(*Store::open(path, true, op));
        const int ended = in_child([&] {
            step_faults::arm(Kind::calls, nth, 0);
            body(path, earlier);
        });
        SCOPED_TRACE("step " + std::to_string(nth));
        ASSERT_TRUE(ended == 0 || ended == -SIGKILL) << ended;
        check(earlier);
        if (ended == 0 || testing::Test::HasFailure())
            return;
    }
}

} // namespace

TEST_F(StoreTest, a_maker_killed_at_any_step_leaves_a_whole_image_or_none) {
    kill_at_each_step(
        folder.path(), [](const std::string &at, const std::string &) { make_image(*Store::open(at, true, op)); },
        [&](const std::string &earlier) {
            expect_consistent();
            EXPECT_EQ(read(earlier), "data");
        });
}

TEST_F(StoreTest, a_remover_killed_at_any_step_leaves_a_whole_image_or_none) {
    kill_at_each_step(
        folder.path(),
        [](const std::string &at, const std::string &id) { Store::open(at, false, op)->remove(id, op, remove_all); },
        [&](const std::string &) { expect_consistent(); });
}

TEST_F(StoreTest, debris_of_a_killed_maker_goes_with_the_next_opening) {
    open();
    EXPECT_EQ(in_child([&] {
                  NewImage image = open()->begin(new_image_id(), op);
                  kill(getpid(), SIGKILL);
              }),
              -SIGKILL);
    EXPECT_EQ(names_in(path + "/images").size(), 1u);
    open(false);
    EXPECT_TRUE(names_in(path + "/images").empty());
}

TEST_F(StoreTest, processes_that_make_remove_and_list_together_see_whole_images_only) {
    open();
    const auto maker = [&] {
        for (int round = 0; round < 25; ++round) {
            const std::string id = make_image(*open());
            if (round % 2 == 0)
                open()->remove(id, op, remove_all);
        }
    };
    pid_t makers[2];
    for (pid_t &child : makers) {
        child = fork();
        if (child == 0)
            _exit(status_of_call(maker) == 0 ? 0 : 1);
    }
    int running = 2, failed = 0;
    while (running != 0) {
        for (const ImageRecord &record : open(false)->list(op))
            EXPECT_EQ(record.objects.size(), 1u);
        int status = 0;
        if (waitpid(-1, &status, WNOHANG) > 0) {
            --running;
            failed += status != 0;
        }
    }
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(open(false)->list(op).size(), 24u);
    expect_consistent();
}

TEST_F(StoreTest, threads_make_and_remove_in_one_store_together) {
    const std::shared_ptr<Store> store = open();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread)
        threads.emplace_back([&] {
            for (int round = 0; round < 8; ++round) {
                const std::string id = make_image(*store);
                store->list(op);
                if (round != 0)
                    store->remove(id, op, remove_all);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(store->list(op).size(), 3u);
    expect_consistent();
}

namespace {

// A mount of our own at a folder; why not, where that is not permitted.
std::string mount_tmpfs(const std::string &at, const char *options) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return "no right to a mount namespace: " + error_text(errno);
    if (mount("tmpfs", at.c_str(), "tmpfs", 0, options) != 0)
        return "no right to mount: " + error_text(errno);
    return "";
}

} // namespace

TEST_F(StoreTest, a_full_file_system_is_told_and_images_can_be_removed_from_it) {
    std::filesystem::create_directories(path);
    const std::string obstacle = mount_tmpfs(path, "size=2m,mode=0700");
    if (!obstacle.empty())
        GTEST_SKIP() << obstacle;
    const std::string earlier = make_image(*open());
    {
        const Descriptor filler(::open((path + "/images/filler").c_str(), O_WRONLY | O_CREAT, 0600));
        const std::string block(4096, 'x');
        while (write(filler.get(), block.data(), block.size()) > 0) {
        }
    }
    // What is left in blocks that are begun takes some small images still.
    std::set<std::string> made{earlier};
    const auto fill = [&] {
        for (;;)
            made.insert(make_image(*open()));
    };
    EXPECT_EQ(status_of_call(fill), QFI_FI_NO_SPACE) << last_error();
    const std::vector<std::string> listed = ids_of(*open(false));
    EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()), made);
    for (const std::string &id : listed)
        EXPECT_EQ(read(id), "data");

    for (const std::string &id : listed)
        open(false)->remove(id, op, remove_all);
    EXPECT_TRUE(open(false)->list(op).empty());
    std::filesystem::remove(path + "/images/filler");
    expect_consistent();
    EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0);
}

TEST_F(StoreTest, a_store_that_cannot_be_written_is_listed_and_read) {
    std::filesystem::create_directories(path);
    const std::string obstacle = mount_tmpfs(path, "size=8m,mode=0700");
    if (!obstacle.empty())
        GTEST_SKIP() << obstacle;
    const std::string id = make_image(*open());
    // A crash leaves the newest record in the log only.
    EXPECT_EQ(in_child([&] {
                  make_image(*open());
                  const auto kept = open();
                  make_image(*kept);
                  kill(getpid(), SIGKILL);
              }),
              -SIGKILL);
    ASSERT_GT(std::filesystem::file_size(path + "/catalog.db-wal"), 0u);
    ASSERT_EQ(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);

    const std::shared_ptr<Store> store = open(false);
    EXPECT_EQ(store->list(op).size(), 3u);
    EXPECT_TRUE(store->open_image(id, op));
    EXPECT_EQ(store->debris_count(), 0u);
    EXPECT_EQ(status_of_call([&] { store->begin(new_image_id(), op); }), QFI_FI_NO_RIGHT);
    EXPECT_EQ(status_of_call([&] { store->remove(id, op, remove_all); }), QFI_FI_NO_RIGHT);
    EXPECT_EQ(status_of_call([&] { store->update(record_of(id), op); }), QFI_FI_NO_RIGHT);
    ASSERT_EQ(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    open(false); // writes the log back
    ASSERT_EQ(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(open(false)->list(op).size(), 3u);
    EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0);
}
