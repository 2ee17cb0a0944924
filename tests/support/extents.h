// Where a file's data lies on its device.
#pragma once

#include <string>

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

/// The extent of a file's beginning, once it is on the disk.
inline fiemap_extent first_extent(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    fsync(fd);
    alignas(fiemap) char memory[sizeof(fiemap) + sizeof(fiemap_extent)] = {};
    fiemap *const map = reinterpret_cast<fiemap *>(memory);
    map->fm_length = 4096;
    map->fm_extent_count = 1;
    EXPECT_EQ(ioctl(fd, FS_IOC_FIEMAP, map), 0) << path;
    EXPECT_EQ(map->fm_mapped_extents, 1u) << path;
    close(fd);
    return map->fm_extents[0];
}
