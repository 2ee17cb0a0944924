// A system's own files, frozen and restored: rsync finds nothing to change. All of /usr with QZFI_TEST_LONG in the
// environment, in a file system that is large enough for that.
#include "images_support.h"

namespace images {
namespace {

class Fidelity : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        const std::string type = GetParam();
        const bool is_long = getenv("QZFI_TEST_LONG") != nullptr;
        sources = is_long ? std::vector<fs::path>{"/usr"} : std::vector<fs::path>{"/usr/bin", "/usr/share/doc"};
        if (type != "copy") {
            if (const auto obstacle = LoopFilesystem::obstacle(type))
                GTEST_SKIP() << *obstacle;
            disk_ = std::make_unique<LoopFilesystem>(type, is_long ? 24000 : 1600);
            top = fs::canonical(disk_->path());
        } else {
            std::string pattern = testing::TempDir() + "/qzfi-fidelity-XXXXXX";
            ASSERT_NE(mkdtemp(pattern.data()), nullptr);
            top = fs::canonical(pattern);
        }
        framework_.emplace(top / "root");
    }
    void TearDown() override {
        framework_.reset();
        if (disk_ == nullptr && !top.empty())
            fs::remove_all(top);
    }
    std::vector<fs::path> sources;
    fs::path top;

private:
    std::unique_ptr<LoopFilesystem> disk_;
    std::optional<Framework> framework_;
};
INSTANTIATE_TEST_SUITE_P(On, Fidelity, testing::Values("copy", "xfs", "btrfs"), name_of);

TEST_P(Fidelity, of_system_files_is_whole_in_the_image_and_after_a_restore) {
    const std::string type = GetParam();
    for (const fs::path &source : sources) {
        fs::path object = source;
        // Snapshots and clones need their object on the file system itself.
        if (type != "copy") {
            object = top / source.filename();
            keep(source, object);
        }
        const Tree tree = freeze({object}, top / "store",
                                 type == "xfs"     ? "reflink"
                                 : type == "btrfs" ? "btrfs"
                                                   : "copy",
                                 false);
        EXPECT_EQ(differences(object, tree.image_path()), "");
        const std::string to = top / "restored";
        qfi_restore_options options;
        QFI_INIT(options);
        options.to = to.c_str();
        ASSERT_EQ(qfi_op_restore(tree.get(), &options, nullptr), 0) << last_error();
        EXPECT_EQ(differences(object, to), "");
        fs::remove_all(to);
    }
}

} // namespace
} // namespace images
