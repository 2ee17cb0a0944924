// What is a store, what only looks like one, and what is still in one.
#include "images_support.h"

#include <csignal>
#include <fstream>
#include <future>
#include <thread>

namespace images {
namespace {

class Stores : public Images {};

INSTANTIATE_TEST_SUITE_P(On, Stores, testing::Values("ext4", "btrfs", "xfs"), name_of);

int32_t make(const Tree &tree, const std::string &store) {
    qfi_freeze_options options;
    QFI_INIT(options);
    options.fim_id = "copy";
    options.store = store.c_str();
    return qfi_op_make(tree.get(), &options, nullptr);
}

TEST_P(Stores, take_no_object_that_lies_in_them) {
    const Tree first = freeze({object}, store);
    fs::create_directory_symlink(top, top / "link");
    const std::string by_link = top / "link" / "store", image = first.image_path();
    for (const std::string &path : {store.string(), (store / "images").string(), image})
        for (const std::string &into : {store.string(), by_link}) {
            const Tree tree({path});
            const std::string why = path + " is or lies in store " + into + ", into which it would be frozen";
            EXPECT_EQ(qfi_op_select(tree.get(), nullptr, "copy", into.c_str()), QFI_FI_NO_METHOD);
            std::string said = last_error();
            EXPECT_NE(said.find(why), std::string::npos) << said;
            EXPECT_EQ(make(tree, into), QFI_FI_NO_METHOD);
            said = last_error();
            EXPECT_NE(said.find(why), std::string::npos) << said;
        }
    EXPECT_EQ(std::distance(fs::directory_iterator(store / "images"), {}), 1);
    // An old image can be frozen elsewhere.
    const Tree copied({image});
    ASSERT_EQ(make(copied, top / "other"), 0) << last_error();
    EXPECT_EQ(differences(image, copied.image_path()), "");
}

TEST_P(Stores, are_not_made_in_the_object_itself) {
    const fs::path empty = top / "empty";
    fs::create_directory(empty);
    const Tree tree({empty});
    EXPECT_EQ(make(tree, empty), QFI_FI_NO_METHOD);
    EXPECT_TRUE(fs::is_empty(empty));
    EXPECT_EQ(make(tree, empty / "store"), 0) << last_error();
    EXPECT_TRUE(fs::is_empty(tree.image_path()));
}

TEST_P(Stores, are_not_what_only_has_the_default_ones_name) {
    const fs::path own = top / ".qzfi";
    fs::create_directories(own / "images");
    write_file(own / "notes", "mine");
    const Tree tree = freeze({top}, store);
    const fs::path image = tree.image_path();
    EXPECT_EQ(content_of(image / ".qzfi" / "notes"), "mine");
    EXPECT_TRUE(fs::is_directory(image / ".qzfi" / "images"));
    EXPECT_FALSE(fs::exists(image / "store" / "catalog.db")) << "that one is a store";
    write_file(own / "notes", "changed");
    qfi_diff *diff = nullptr;
    ASSERT_EQ(qfi_op_get_snapdiff(tree.get(), nullptr, nullptr, &diff), 0) << last_error();
    bool is_seen = false;
    for (uint64_t index = 0; index < diff->count; ++index)
        is_seen = is_seen || std::string(diff->entries[index].path) == ".qzfi/notes";
    EXPECT_TRUE(is_seen);
    qfi_op_free_buffer(diff);
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(own / "notes"), "mine");
}

TEST_P(Stores, that_lost_their_catalog_are_still_no_part_of_an_object) {
    fs::create_directories(top / ".qzfi" / "images" / "20260101T000000Z-00000000");
    write_file(top / ".qzfi" / "lock", "");
    const Tree tree = freeze({top}, store);
    EXPECT_FALSE(fs::exists(tree.image_path() + "/.qzfi/images/20260101T000000Z-00000000"));
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_TRUE(fs::exists(top / ".qzfi" / "images" / "20260101T000000Z-00000000"));
}

// A file system whose server stands still: whoever asks it for anything waits.
class StandsStill {
public:
    explicit StandsStill(const std::string &mount_point) {
        for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
            const std::string name = entry.path().filename();
            std::ifstream file(entry.path() / "cmdline");
            const std::string words{std::istreambuf_iterator<char>(file), {}};
            if (words.find("exfat") != std::string::npos && words.find(mount_point) != std::string::npos)
                server_ = std::stoi(name);
        }
        EXPECT_GT(server_, 0) << "no server of " << mount_point;
        if (server_ > 0)
            kill(server_, SIGSTOP);
        waker_ = std::thread([this] {
            if (over_.get_future().wait_for(std::chrono::seconds(120)) == std::future_status::timeout)
                ADD_FAILURE() << "it was asked";
            if (server_ > 0)
                kill(server_, SIGCONT);
        });
    }
    ~StandsStill() {
        over_.set_value();
        waker_.join();
    }
    StandsStill(const StandsStill &) = delete;
    StandsStill &operator=(const StandsStill &) = delete;

private:
    pid_t server_ = 0;
    std::promise<void> over_;
    std::thread waker_;
};

TEST_P(Stores, of_a_server_that_does_not_answer_are_in_nobodys_way_who_works_elsewhere) {
    if (const auto obstacle = LoopFilesystem::obstacle("exfat"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem served("exfat", 64);
    const fs::path away = fs::path(served.path()) / "store";
    fs::create_directory(top / "simple");
    write_file(top / "simple" / "file", "content");
    freeze({top / "simple"}, away, "copy");
    const StandsStill still(served.path());
    const Tree tree = freeze({object}, store, "copy");
    const std::string id = tree.image_id();
    write_file(object / "plain", "changed");
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    write_file(object / "plain", "changed");
    ASSERT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    qfi_diff *diff = nullptr;
    ASSERT_EQ(qfi_op_get_snapdiff(tree.get(), nullptr, nullptr, &diff), 0) << last_error();
    qfi_op_free_buffer(diff);
    const Tree again = Tree::of_image(id, store);
    ASSERT_EQ(qfi_op_deport_tree(again.get(), (top / "exported").c_str(), nullptr), 0) << last_error();
}

TEST_P(Stores, have_an_image_for_either_question_only_with_its_files) {
    const Tree tree = freeze({object}, store);
    const std::string id = tree.image_id();
    const fs::path folder = store / "images" / id;
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_get_fiid(tree.get(), &fiid), 0) << last_error();
    char *set = nullptr;
    ASSERT_EQ(qfi_op_getSnapshotSetId(id.c_str(), &set), 0) << last_error();
    const auto expect = [&](int32_t imported, int32_t status) {
        for (const char *const name : {id.c_str(), static_cast<const char *>(set)}) {
            int32_t is_imported = -1;
            EXPECT_EQ(qfi_op_is_snap_imported(name, &is_imported), 0) << last_error();
            EXPECT_EQ(is_imported, imported) << name;
        }
        int32_t result = -1;
        EXPECT_EQ(qfi_op_process_fiids(1, 0, &fiid, &result, nullptr), 0) << last_error();
        EXPECT_EQ(result, status);
    };
    expect(1, 0);
    fs::rename(folder, top / "away");
    expect(0, QFI_FI_DAMAGED);
    // One of two copies is enough.
    fs::copy(store, top / "copied", fs::copy_options::recursive);
    fs::rename(top / "away", top / "copied" / "images" / id);
    ASSERT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_REMEMBER, (top / "copied").c_str(), nullptr), 0) << last_error();
    expect(1, 0);
    qfi_op_free_fiid(fiid);
    qfi_op_free_buffer(set);
}

} // namespace
} // namespace images
