// Where stores lie: what their paths may say, whose they are, and what is read where nothing can be written.
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fi/fi_fiid.h"
#include "fi/fi_temporary.h"
#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;

namespace {

constexpr const char *op = "qzfi_test";
constexpr uid_t nobody = 65534;

class PlacesTest : public testing::Test {
protected:
    // Empty when a tmpfs is mounted, for this process alone.
    std::string mount_tmpfs(const std::string &at) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return "no mount namespace: " + error_text(errno);
        std::filesystem::create_directories(at);
        if (mount("tmpfs", at.c_str(), "tmpfs", 0, "size=8m,mode=0700") != 0)
            return "no right to mount: " + error_text(errno);
        mounted = at;
        return "";
    }
    void remount(unsigned long flags) {
        ASSERT_EQ(mount(nullptr, mounted.c_str(), nullptr, MS_REMOUNT | flags, nullptr), 0) << error_text(errno);
    }
    ~PlacesTest() override {
        if (!mounted.empty())
            umount2(mounted.c_str(), MNT_DETACH);
    }
    Folder folder;
    std::string path = folder.path() + "/store";
    std::string mounted;
};

// A set with one image in each store, whose maker was killed before any was settled.
std::vector<std::string> make_killed_set(const std::vector<std::string> &paths) {
    std::vector<std::string> ids;
    Fiid set{new_image_id(), {}};
    for (const std::string &path : paths) {
        ids.push_back(new_image_id());
        set.images.push_back({record_of(ids.back()), path});
    }
    const int end = in_child([&] {
        std::vector<std::shared_ptr<Store>> stores;
        std::vector<NewImage> images;
        for (const std::string &path : paths)
            stores.push_back(Store::open(path, true, op));
        for (std::size_t index = 0; index < paths.size(); ++index) {
            images.push_back(stores[index]->begin(ids[index], op));
            ImageRecord record = record_of(ids[index]);
            record.state = 0;
            images.back().note_stores(stores, op);
            images.back().commit(record, write_fiid(set, op), op);
        }
        kill(getpid(), SIGKILL);
    });
    EXPECT_EQ(end, -SIGKILL);
    return ids;
}

mode_t mode_of(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

} // namespace

TEST_F(PlacesTest, looking_for_a_store_where_none_is_leaves_nothing_there) {
    std::filesystem::create_directories(path);
    std::ofstream(path + "/letter") << "x";
    EXPECT_EQ(status_of_call([&] { Store::open(path, false, op); }), QFI_FI_STORE);
    EXPECT_EQ(last_error(),
              "1028 MSG_QFI_E2011: %s: store %s cannot be used: %s\n|qzfi_test|" + path + "|it has no catalog");
    EXPECT_EQ(names_in(path), std::vector<std::string>{"letter"});
}

TEST_F(PlacesTest, a_path_is_kept_in_the_form_that_id_documents_hold) {
    const std::shared_ptr<Store> store = Store::open(folder.path() + "//./above//store/./", true, op);
    EXPECT_EQ(store->path(), folder.path() + "/above/store");
    const Fiid fiid{"20260101T000000Z-00000000", {{record_of(new_image_id()), store->path()}}};
    EXPECT_EQ(read_fiid(write_fiid(fiid, op), op).images.at(0).store, store->path());
    const std::string above = folder.path() + "/above/../store";
    EXPECT_EQ(status_of_call([&] { Store::open(above, true, op); }), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(),
              "3 MSG_QFI_E2003: %s: invalid argument: %s\n|qzfi_test|a store's path must be without \"..\"");
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PlacesTest, what_is_in_a_store_is_its_owners_alone_whatever_the_folder_is) {
    std::filesystem::create_directories(path);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    const mode_t mask = umask(0);
    const std::shared_ptr<Store> store = Store::open(path, true, op);
    const std::string id = make_image(*store);
    umask(mask);
    for (const char *const name : {"catalog.db", "catalog.db-wal", "catalog.db-shm", "lock", "reserve"})
        EXPECT_EQ(mode_of(path + "/" + name), 0600u) << name;
    EXPECT_EQ(mode_of(path + "/images"), 0700u);
    EXPECT_EQ(mode_of(path + "/images/" + id), 0700u);
    EXPECT_EQ(mode_of(path + "/images/" + id + "/fiid.xml"), 0600u);
}

TEST_F(PlacesTest, a_reserve_that_was_begun_only_is_filled_and_one_with_another_name_is_not) {
    const std::string reserve = path + "/reserve";
    const auto blocks = [](const std::string &file) {
        struct stat status {};
        return stat(file.c_str(), &status) == 0 ? status.st_blocks : -1;
    };
    Store::open(path, true, op);
    ASSERT_EQ(truncate(reserve.c_str(), 0), 0);
    ASSERT_EQ(blocks(reserve), 0);
    Store::open(path, false, op);
    EXPECT_GE(blocks(reserve) * 512, 64 * 1024);
    const std::string other = folder.path() + "/other";
    std::ofstream(other) << "mine";
    std::filesystem::remove(reserve);
    std::filesystem::create_hard_link(other, reserve);
    Store::open(path, false, op);
    EXPECT_EQ(std::filesystem::file_size(other), 4u);
}

TEST_F(PlacesTest, a_store_that_is_known_by_two_paths_is_listed_once) {
    ASSERT_EQ(qzfi_set_install_root((folder.path() + "//root/").c_str()), 0);
    EXPECT_EQ(default_store_path(), folder.path() + "/root/arcvault/images");
    Store::open(path, true, op);
    std::filesystem::create_directory_symlink(folder.path(), folder.path() + "/link");
    remember_store(path);
    remember_store(folder.path() + "/link//store");
    remember_store(folder.path() + "/gone");
    EXPECT_EQ(known_stores(), (std::vector<std::string>{default_store_path(), path, folder.path() + "/gone"}));
    forget_store(folder.path() + "/link/store/", op);
    forget_store(path + "/.", op);
    EXPECT_EQ(known_stores(), (std::vector<std::string>{default_store_path(), folder.path() + "/gone"}));
}

TEST_F(PlacesTest, who_cannot_write_to_the_register_knows_stores_for_the_life_of_the_process) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs the right to become another user";
    const std::string root = folder.path() + "/root";
    ASSERT_EQ(qzfi_set_install_root(root.c_str()), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    ASSERT_EQ(in_child([&] { remember_store(path); }), 0);
    for (const bool can_look : {false, true}) {
        for (const char *const below : {"/arcvault/images", "/arcvault/images/images"})
            ASSERT_EQ(chmod((root + below).c_str(), can_look ? 0755 : 0700), 0);
        EXPECT_EQ(in_child([&] {
                      ASSERT_EQ(setresuid(nobody, nobody, nobody), 0);
                      remember_store("/own");
                      const std::vector<std::string> stores = known_stores();
                      EXPECT_EQ(stores, (std::vector<std::string>{default_store_path(), "/own"}));
                      forget_store("/own", op);
                      EXPECT_EQ(known_stores(), std::vector<std::string>{default_store_path()});
                  }),
                  0);
    }
    EXPECT_EQ(known_stores(), (std::vector<std::string>{default_store_path(), path}));
}

TEST_F(PlacesTest, forgetting_fails_where_the_register_cannot_be_written) {
    const std::string root = folder.path() + "/root";
    if (const std::string obstacle = mount_tmpfs(root); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    ASSERT_EQ(qzfi_set_install_root(root.c_str()), 0);
    // A crash leaves the log behind.
    EXPECT_EQ(in_child([&] {
                  const auto kept = Store::open(default_store_path(), true, op);
                  remember_store(path);
                  kill(getpid(), SIGKILL);
              }),
              -SIGKILL);
    remount(MS_RDONLY);
    EXPECT_EQ(known_stores(), (std::vector<std::string>{default_store_path(), path}));
    EXPECT_EQ(status_of_call([&] { forget_store(path, op); }), QFI_FI_NO_RIGHT);
    EXPECT_EQ(last_error(), "1041 MSG_QFI_E2024: %s: no right to %s %s\n|qzfi_test|write to store|" +
                                default_store_path() + ": " + error_text(EROFS));
    EXPECT_EQ(known_stores(), (std::vector<std::string>{default_store_path(), path}));
    remount(0);
    forget_store(path, op);
    EXPECT_EQ(known_stores(), std::vector<std::string>{default_store_path()});
}

TEST_F(PlacesTest, repairing_what_cannot_be_written_tells_of_damage_and_fails_for_debris_only) {
    if (const std::string obstacle = mount_tmpfs(path); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const std::string id = make_image(*Store::open(path, true, op));
    std::filesystem::remove_all(path + "/images/" + id);
    remount(MS_RDONLY);
    const Store::Repair repair = Store::open(path, false, op)->repair(op);
    EXPECT_EQ(repair.damaged, std::vector<std::string>{id});
    EXPECT_EQ(repair.debris, 0u);
    remount(0);
    std::filesystem::create_directory(path + "/images/.new-20260101T000000Z-00000001");
    remount(MS_RDONLY);
    EXPECT_EQ(status_of_call([&] { Store::open(path, false, op)->repair(op); }), QFI_FI_NO_RIGHT);
}

TEST_F(PlacesTest, an_image_whose_set_lies_elsewhere_too_waits_for_that_store_which_a_repair_tells) {
    const std::string other = folder.path() + "/other", id = new_image_id(), sister = new_image_id();
    const auto make_pending = [&](const std::string &at, const std::string &image) {
        const std::shared_ptr<Store> store = Store::open(at, true, op);
        NewImage made = store->begin(image, op);
        ImageRecord record = record_of(image);
        record.state = 0;
        made.commit(record, write_fiid({record.set_id, {{record_of(id), path}, {record_of(sister), other}}}, op), op);
        kill(getpid(), SIGKILL);
    };
    EXPECT_EQ(in_child([&] { make_pending(path, id); }), -SIGKILL);
    EXPECT_EQ(in_child([&] { make_pending(other, sister); }), -SIGKILL);
    std::filesystem::rename(other, folder.path() + "/away");
    const std::shared_ptr<Store> store = Store::open(path, false, op);
    const Store::Repair repair = store->repair(op);
    EXPECT_EQ(repair.waiting, std::vector<std::string>{id});
    EXPECT_EQ(repair.debris, 0u);
    EXPECT_TRUE(store->list(op).empty());
    std::filesystem::rename(folder.path() + "/away", other);
    EXPECT_TRUE(store->repair(op).waiting.empty());
    EXPECT_EQ(ids_of(*store), std::vector<std::string>{id});
    EXPECT_EQ(ids_of(*Store::open(other, false, op)), std::vector<std::string>{sister});
}

TEST_F(PlacesTest, another_store_in_the_place_of_a_sets_says_nothing_of_the_set) {
    const std::string other = folder.path() + "/other", id = new_image_id(), sister = new_image_id();
    EXPECT_EQ(
        in_child([&] {
            const std::vector<std::shared_ptr<Store>> stores{Store::open(path, true, op), Store::open(other, true, op)};
            std::vector<NewImage> images;
            images.push_back(stores[0]->begin(id, op));
            images.push_back(stores[1]->begin(sister, op));
            for (std::size_t index = 0; index < images.size(); ++index) {
                ImageRecord record = record_of(index == 0 ? id : sister);
                record.state = 0;
                const Fiid set{record.set_id, {{record_of(id), path}, {record_of(sister), other}}};
                images[index].note_stores(stores, op);
                images[index].commit(record, write_fiid(set, op), op);
            }
            kill(getpid(), SIGKILL);
        }),
        -SIGKILL);
    std::filesystem::rename(other, folder.path() + "/away");
    Store::open(other, true, op); // as on another disk that is mounted there
    const std::shared_ptr<Store> store = Store::open(path, false, op);
    const Store::Repair repair = store->repair(op);
    EXPECT_EQ(repair.waiting, std::vector<std::string>{id});
    EXPECT_EQ(repair.debris, 0u);
    std::filesystem::remove_all(other);
    std::filesystem::rename(folder.path() + "/away", other);
    EXPECT_TRUE(store->repair(op).waiting.empty());
    EXPECT_EQ(ids_of(*store), std::vector<std::string>{id});
    EXPECT_EQ(ids_of(*Store::open(other, false, op)), std::vector<std::string>{sister});
}

TEST_F(PlacesTest, an_image_of_a_whole_set_stays_when_another_one_is_removed_before_its_store_is_opened) {
    const std::vector<std::string> paths{folder.path() + "/a", folder.path() + "/b", folder.path() + "/c"};
    const std::vector<std::string> ids = make_killed_set(paths);
    for (const std::size_t index : {std::size_t{1}, std::size_t{0}, std::size_t{2}}) {
        const std::shared_ptr<Store> store = Store::open(paths[index], false, op);
        EXPECT_EQ(ids_of(*store), std::vector<std::string>{ids[index]});
        if (!ids_of(*store).empty())
            store->remove(ids[index], op, remove_all);
    }
}

TEST_F(PlacesTest, no_image_of_a_whole_set_is_seen_while_a_store_of_the_set_cannot_be_written) {
    if (const std::string obstacle = mount_tmpfs(path); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const std::vector<std::string> paths{folder.path() + "/a", path};
    const std::vector<std::string> ids = make_killed_set(paths);
    remount(MS_RDONLY);
    const std::shared_ptr<Store> store = Store::open(paths[0], false, op);
    EXPECT_TRUE(store->list(op).empty());
    EXPECT_EQ(store->repair(op).waiting, std::vector<std::string>{ids[0]});
    remount(0);
    EXPECT_TRUE(store->repair(op).waiting.empty());
    EXPECT_EQ(ids_of(*store), std::vector<std::string>{ids[0]});
    store->remove(ids[0], op, remove_all);
    EXPECT_EQ(ids_of(*Store::open(path, false, op)), std::vector<std::string>{ids[1]});
}

TEST_F(PlacesTest, a_temporary_folder_goes_also_when_there_are_no_more_descriptors) {
    const char *const before = getenv("TMPDIR");
    const std::string usual = before != nullptr ? before : "";
    setenv("TMPDIR", folder.path().c_str(), 1);
    std::optional<TemporaryFolder> temporary;
    temporary.emplace("qzfi-test-", op);
    for (const char *const name : {"one", "two"})
        ASSERT_GE(Descriptor(openat(temporary->directory(), name, O_WRONLY | O_CREAT | O_CLOEXEC, 0600)).get(), 0);
    EXPECT_EQ(names_in(folder.path()).size(), 1u);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    temporary.reset();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(names_in(folder.path()).empty());
    usual.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", usual.c_str(), 1);
}

TEST_F(PlacesTest, a_repair_tells_of_images_that_wait_also_when_another_cannot_be_removed) {
    if (const std::string obstacle = mount_tmpfs(path); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const std::string gone = folder.path() + "/gone", waits = new_image_id(), stays = new_image_id();
    const auto make_pending = [&](const std::string &image, const std::string &sisters_store) {
        NewImage made = Store::open(path, true, op)->begin(image, op);
        mkdirat(made.objects(), "0", 0700);
        ImageRecord record = record_of(image);
        record.state = 0;
        const Fiid set{record.set_id, {{record_of(image), path}, {record_of(new_image_id()), sisters_store}}};
        made.commit(record, write_fiid(set, op), op);
        kill(getpid(), SIGKILL);
    };
    EXPECT_EQ(in_child([&] { make_pending(waits, gone); }), -SIGKILL);
    EXPECT_EQ(in_child([&] { make_pending(stays, path); }), -SIGKILL);
    const std::string busy = path + "/images/" + stays + "/objects/0";
    ASSERT_EQ(mount("none", busy.c_str(), "tmpfs", 0, nullptr), 0);
    const Store::Repair repair = Store::open(path, false, op)->repair(op);
    EXPECT_EQ(repair.waiting, std::vector<std::string>{waits});
    EXPECT_TRUE(repair.failure);
    const std::string aside = path + "/images/.old-" + stays + "/objects/0";
    EXPECT_EQ(umount(aside.c_str()), 0);
    const Store::Repair again = Store::open(path, false, op)->repair(op);
    EXPECT_EQ(again.waiting, std::vector<std::string>{waits});
    EXPECT_FALSE(again.failure);
    EXPECT_EQ(again.debris, 1u);
}

TEST_F(PlacesTest, who_cannot_write_reads_whole_catalogs_while_others_write) {
    if (const std::string obstacle = mount_tmpfs(path); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    Store::open(path, true, op);
    const std::string view = folder.path() + "/view";
    std::filesystem::create_directory(view);
    ASSERT_EQ(mount(path.c_str(), view.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, view.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    constexpr std::size_t image_count = 60;
    const pid_t writer = fork();
    if (writer == 0) {
        try {
            for (std::size_t made = 0; made < image_count; ++made)
                make_image(*Store::open(path, true, op)); // closing writes the log back
        } catch (...) {
            _exit(99);
        }
        _exit(0);
    }
    std::set<std::string> seen;
    while (seen.size() < image_count && !HasFailure()) {
        std::vector<std::string> listed;
        EXPECT_EQ(status_of_call([&] { listed = ids_of(*Store::open(view, false, op)); }), 0) << last_error();
        const std::set<std::string> ids(listed.begin(), listed.end());
        EXPECT_EQ(ids.size(), listed.size());
        EXPECT_TRUE(std::includes(ids.begin(), ids.end(), seen.begin(), seen.end())) << "an image was lost to sight";
        seen = ids;
        int status = 0;
        if (waitpid(writer, &status, WNOHANG) == writer) {
            EXPECT_EQ(status, 0);
            EXPECT_EQ(ids_of(*Store::open(view, false, op)).size(), image_count);
            break;
        }
    }
    umount2(view.c_str(), MNT_DETACH);
}

TEST_F(PlacesTest, a_strangers_catalog_is_copied_with_its_holes_and_up_to_a_bound) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs the right to give files away";
    const std::string temporary = folder.path() + "/temporary", catalog = path + "/catalog.db";
    if (const std::string obstacle = mount_tmpfs(temporary); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const char *const before = getenv("TMPDIR");
    const std::string usual = before != nullptr ? before : "";
    setenv("TMPDIR", temporary.c_str(), 1);
    const std::string id = make_image(*Store::open(path, true, op));
    ASSERT_EQ(chown(path.c_str(), nobody, nobody), 0);
    std::filesystem::resize_file(catalog, std::uintmax_t{100} << 20);
    EXPECT_EQ(ids_of(*Store::open(path, false, op)), std::vector<std::string>{id}) << last_error();
    std::filesystem::resize_file(catalog, std::uintmax_t{3} << 30);
    EXPECT_EQ(status_of_call([&] { Store::open(path, false, op); }), QFI_FI_CATALOG);
    EXPECT_NE(last_error().find(path + "|it is larger than 256 MiB, and only a copy can be read"), std::string::npos);
    std::filesystem::resize_file(catalog, std::uintmax_t{64} << 10);
    std::ofstream(catalog, std::ios::app) << std::string(std::size_t{5} << 20, 'x');
    EXPECT_EQ(status_of_call([&] { Store::open(path, false, op); }), QFI_FI_NO_SPACE);
    EXPECT_NE(last_error().find("the folder for temporary files"), std::string::npos);
    std::filesystem::remove(catalog);
    ASSERT_EQ(mkfifo(catalog.c_str(), 0600), 0);
    EXPECT_EQ(status_of_call([&] { Store::open(path, false, op); }), QFI_FI_CATALOG);
    EXPECT_TRUE(names_in(temporary).empty());
    usual.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", usual.c_str(), 1);
}
