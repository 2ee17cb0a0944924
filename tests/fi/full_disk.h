// A small file system that is filled up but for a certain room.
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "images_support.h"

namespace images {

class FullDisk : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = LoopFilesystem::obstacle(type()))
            GTEST_SKIP() << *obstacle;
        disk_ = std::make_unique<LoopFilesystem>(type(), megabytes());
        disk = disk_->path();
        std::string pattern = testing::TempDir() + "/qzfi-full-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        top = fs::canonical(pattern);
        framework_.emplace(top / "root");
    }
    void TearDown() override {
        framework_.reset();
        if (!top.empty())
            fs::remove_all(top);
    }

    virtual const char *type() const { return "ext4"; }
    // The size decides the size of blocks: 4 KiB.
    virtual unsigned megabytes() const { return 600; }

    void make_object(const fs::path &object, bool with_data = true) const {
        fs::create_directory(object);
        for (int each = 0; each < 300; ++each)
            write_file(object / ("file with a rather long name, for the manifest, " + std::to_string(each)),
                       with_data && each % 10 == 0 ? std::string(8000, 'd') : "");
    }
    // Takes all room but so many bytes.
    void leave(int64_t bytes) const {
        const int file = open((disk / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(file, 0);
        int64_t size = 0;
        for (int64_t piece = int64_t{1} << 28; piece >= 1024; piece /= 2)
            while (fallocate(file, 0, size, piece) == 0)
                size += piece;
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(ftruncate(file, size - bytes), 0);
        EXPECT_EQ(syncfs(file), 0);
        close(file);
    }
    // The file system gives the room back with its next commit only.
    void make_room() const {
        fs::remove(disk / "filler");
        run({"sync", "-f", disk.string()});
    }

    std::unique_ptr<LoopFilesystem> disk_;
    fs::path disk, top;
    std::optional<Framework> framework_;
};

} // namespace images
