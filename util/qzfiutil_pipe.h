// Whole transfers through pipes: interrupted and short calls are continued.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#pragma GCC visibility push(hidden)

namespace qzfi {

/// Size of the pieces in which command output is taken from a pipe.
inline constexpr std::size_t pipe_chunk = 256;

/// Reads once, up to `size` bytes: the number read, 0 at the end of the file, -1 with errno. Never EINTR.
ssize_t read_some(int fd, void *buffer, std::size_t size) noexcept;

/// Reads `size` bytes: `size`, fewer at the end of the file, -1 with errno.
ssize_t read_whole(int fd, void *buffer, std::size_t size) noexcept;

/// True when a read would give bytes at once.
bool has_input(int fd) noexcept;

/// Writes all bytes; the number written, smaller than `size` with errno. A pipe without a reader is EPIPE, never a
/// SIGPIPE of the calling thread.
std::size_t write_counted(int fd, const void *buffer, std::size_t size) noexcept;

/// Writes all bytes; false with errno. A pipe without a reader is EPIPE, never a SIGPIPE of the calling thread.
bool write_whole(int fd, const void *buffer, std::size_t size) noexcept;

/// The number of bytes that wait in a pipe, -1 with errno.
int pending_bytes(int fd) noexcept;

} // namespace qzfi

#pragma GCC visibility pop
