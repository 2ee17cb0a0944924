// A store with an image in it, for tests of what happens to it while others are made.
#pragma once

#include <set>

#include "images_support.h"

namespace images {

/// The parameter names the file system, which names the method: "copy", "xfs" (reflink) or "btrfs".
class EarlierImage : public Images {
protected:
    void SetUp() override {
        if (const char *const usual = getenv("TMPDIR"))
            usual_ = usual;
        Images::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        fs::remove_all(object);
        fs::create_directories(object / "sub");
        write_file(object / "sub" / "file", "frozen");
        write_file(object / "plain", std::string(10000, 'p'));
        fs::create_hard_link(object / "plain", object / "sub" / "other name");
        fs::create_symlink("file", object / "sub" / "link");
        earlier = freeze({object}, store, method()).image_id();
        fs::create_directory(top / "tmp");
        setenv("TMPDIR", (top / "tmp").c_str(), 1);
        stop(); // hosts in processes of their own have the framework to themselves
    }

    void TearDown() override {
        usual_ ? setenv("TMPDIR", usual_->c_str(), 1) : unsetenv("TMPDIR");
        Images::TearDown();
    }

    const char *method() const {
        const std::string type = GetParam();
        return type == "xfs" ? "reflink" : type == "btrfs" ? "btrfs" : "copy";
    }

    /// Freezes the object again, with commands where they are not empty; `begin` is called right before.
    int32_t make(const std::string &pre, const std::string &post, const std::function<void()> &begin) const {
        const Tree tree({object});
        qfi_freeze_options options;
        QFI_INIT(options);
        options.fim_id = method();
        options.store = store.c_str();
        options.digest = 1;
        options.workers = 2;
        options.pre_command = pre.empty() ? nullptr : pre.c_str();
        options.post_command = post.empty() ? nullptr : post.c_str();
        begin();
        return qfi_op_make(tree.get(), &options, nullptr);
    }

    /// The ids of the images in the store.
    std::set<std::string> listed() const {
        std::set<std::string> ids;
        qfi_image_list *list = nullptr;
        EXPECT_EQ(qfi_op_snapreplica_list(nullptr, store.c_str(), &list), 0) << last_error();
        for (const qfi_image_list *one = list; one != nullptr; one = one->next) {
            EXPECT_EQ(one->image.state, 1u);
            ids.insert(one->image.image_id);
        }
        qfi_op_free_snapreplica_list(list);
        return ids;
    }
    /// What the store holds, debris included.
    std::set<std::string> folders() const {
        std::set<std::string> names;
        for (const fs::directory_entry &entry : fs::directory_iterator(store / "images"))
            names.insert(entry.path().filename());
        return names;
    }
    /// Every image in the store is what it was made of, or says what it had to leave out; gives their ids.
    std::set<std::string> expect_whole() const {
        const std::set<std::string> ids = listed();
        EXPECT_EQ(ids.count(earlier), 1u);
        for (const std::string &id : ids) {
            const Tree tree = Tree::of_image(id, store);
            EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << id << last_error();
            EXPECT_EQ(remarks_of(tree) == 0 ? differences(object, tree.image_path()) : "", "");
        }
        return ids;
    }
    int32_t repair() const { return qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, store.c_str(), nullptr); }
    /// Removes all images but the earlier one, after which nothing else is left.
    void remove_others() const {
        std::set<std::string> ids = listed();
        ids.erase(earlier);
        for (const std::string &id : ids)
            EXPECT_EQ(qfi_op_detach(Tree::of_image(id, store).release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0)
                << last_error();
        EXPECT_EQ(folders(), std::set<std::string>{earlier});
    }

    std::string earlier; // the image's id

private:
    std::optional<std::string> usual_;
};

} // namespace images
