#include "providers/engine/engine_data.h"

#include <algorithm>
#include <cstring>
#include <linux/fs.h>
#include <new>
#include <sys/ioctl.h>

#include <qzfi_fi.h>

namespace qzfi::engine {
namespace {

constexpr char zeros[65536] = {};
constexpr uint64_t piece_of_progress = 64; // weight of one buffer: as much as a progress interval
constexpr std::size_t most_in_kernel = std::size_t{64} << 20;
constexpr uint64_t hole_of_progress = uint64_t{64} << 20; // some milliseconds of hashing zeros

Moved failed(const char *operation, bool on_target) {
    return {operation, errno, on_target, false, false};
}

ssize_t read_at(int from, char *data, std::size_t size, uint64_t position) {
    ssize_t got;
    do
        got = pread(from, data, size, static_cast<off_t>(position));
    while (got < 0 && errno == EINTR);
    return got;
}

bool write_at(int to, const char *data, std::size_t size, uint64_t position) {
    while (size > 0) {
        const ssize_t put = pwrite(to, data, size, static_cast<off_t>(position));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0) {
            errno = put == 0 ? EIO : errno;
            return false;
        }
        data += put;
        size -= static_cast<std::size_t>(put);
        position += static_cast<uint64_t>(put);
    }
    return true;
}

/// The next piece of data from a position on; `data` is `end` when there is none.
struct Extent {
    uint64_t data, data_end;
};
Extent next_extent(int from, uint64_t position, uint64_t end) {
    const off_t data = lseek(from, static_cast<off_t>(position), SEEK_DATA);
    if (data < 0)
        return errno == ENXIO ? Extent{end, end} : Extent{position, end}; // told by no file system: all is data
    const off_t hole = lseek(from, data, SEEK_HOLE);
    const auto start = std::min(static_cast<uint64_t>(data), end);
    return {start, hole < 0 ? end : std::min(static_cast<uint64_t>(hole), end)};
}

/// One call of copy_file_range at the same place of both files; learns what never works between two file systems.
ssize_t copy_piece(Means &means, int from, int to, uint64_t position, std::size_t size) {
    ssize_t moved;
    do {
        off64_t in = static_cast<off64_t>(position), out = in;
        moved = copy_file_range(from, &in, to, &out, size, 0);
    } while (moved < 0 && errno == EINTR);
    if (moved < 0 && (errno == EXDEV || errno == EOPNOTSUPP || errno == ENOSYS))
        means.copies_in_kernel.store(false, std::memory_order_relaxed);
    return moved;
}

/// Copies what it can without a way through this process; the new position. Errors are left to those who read: they
/// know on which side it fails.
uint64_t copy_in_kernel(Run &run, Worker &worker, Means &means, int from, int to, uint64_t position, uint64_t end) {
    while (position < end && !run.is_stopped()) {
        const ssize_t moved = copy_piece(means, from, to, position, std::min(end - position, most_in_kernel));
        if (moved <= 0)
            break;
        position += static_cast<uint64_t>(moved);
        worker.bytes += static_cast<uint64_t>(moved);
        run.progress(worker, static_cast<uint32_t>(moved / static_cast<ssize_t>(data_size)));
    }
    return position;
}

/// Reads a range, and writes it unless `to` is -1.
Moved pass_range(Run &run, Worker &worker, int from, int to, uint64_t position, uint64_t end, Digest *digest) {
    char *const data = worker.buffer();
    while (position < end && !run.is_stopped()) {
        const auto size = static_cast<std::size_t>(std::min<uint64_t>(end - position, data_size));
        const ssize_t got = read_at(from, data, size, position);
        if (got < 0)
            return failed("pread", false);
        if (got == 0)
            return {nullptr, 0, false, true, false};
        if (to >= 0 && !write_at(to, data, static_cast<std::size_t>(got), position))
            return failed("pwrite", true);
        if (digest != nullptr)
            digest->add(data, static_cast<std::size_t>(got));
        position += static_cast<uint64_t>(got);
        worker.bytes += static_cast<uint64_t>(got);
        if (end > data_size)
            run.progress(worker, piece_of_progress / 8);
    }
    return {};
}

/// A hole takes no time to copy, but may be of any size.
void pass_hole(Run &run, Worker &worker, Digest &digest, uint64_t size) {
    while (size > 0 && !run.is_stopped()) {
        const uint64_t piece = std::min(size, hole_of_progress);
        digest.add_zeros(piece);
        size -= piece;
        if (piece == hole_of_progress)
            run.progress(worker, piece_of_progress);
    }
}

Moved pass_data(Run &run, Worker &worker, int from, int to, uint64_t start, uint64_t end, bool is_sparse,
                Digest *digest, Means *means) {
    uint64_t position = start;
    while (position < end && !run.is_stopped()) {
        const Extent extent = is_sparse ? next_extent(from, position, end) : Extent{position, end};
        if (digest != nullptr)
            pass_hole(run, worker, *digest, extent.data - position);
        position = extent.data;
        if (means != nullptr && means->copies_in_kernel.load(std::memory_order_relaxed))
            position = copy_in_kernel(run, worker, *means, from, to, position, extent.data_end);
        const Moved moved = pass_range(run, worker, from, to, position, extent.data_end, digest);
        if (moved.operation != nullptr || moved.is_short)
            return moved;
        position = extent.data_end;
    }
    return {};
}

/// Most files fit the buffer: one read, one write.
Moved copy_small(Worker &worker, int from, int to, uint64_t size, uint8_t (*out)[16]) {
    char *const data = worker.buffer();
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t got = read_at(from, data + filled, size - filled, filled);
        if (got < 0)
            return failed("pread", false);
        if (got == 0)
            break;
        filled += static_cast<std::size_t>(got);
    }
    reached(Point::read_once, nullptr);
    if (to >= 0 && !write_at(to, data, filled, 0))
        return failed("pwrite", true);
    if (out != nullptr)
        Digest::of_buffer(data, filled, *out);
    worker.bytes += filled;
    return {nullptr, 0, false, filled < size, false};
}

bool clone(Run &run, Means &means, int from, int to, Moved &moved) {
    if (!means.clones.load(std::memory_order_relaxed))
        return false;
    if (ioctl(to, FICLONE, from) == 0)
        return true;
    if (run.options.data == Data::clone && errno == EINVAL) { // of this file: Btrfs says so of one without checksums
        moved.clone_error = EINVAL;
        return false;
    }
    const bool is_without = errno == EXDEV || errno == EOPNOTSUPP || errno == ENOTTY || errno == ENOSYS;
    if (run.options.data == Data::clone || errno == ENOSPC || errno == EDQUOT) {
        moved = failed("FICLONE", errno != ETXTBSY); // that says of the source that it is a swap file in use
        return false;
    }
    if (is_without)
        means.clones.store(false, std::memory_order_relaxed);
    return false;
}

} // namespace

void Digest::start() {
    if (!state_)
        state_.reset(XXH3_createState());
    if (!state_)
        throw std::bad_alloc();
    XXH3_128bits_reset(state_.get());
}

void Digest::add_zeros(uint64_t size) noexcept {
    for (; size > 0; size -= std::min<uint64_t>(size, sizeof zeros))
        add(zeros, static_cast<std::size_t>(std::min<uint64_t>(size, sizeof zeros)));
}

void Digest::end(uint8_t (&out)[16]) const noexcept {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_.get()));
    memcpy(out, canonical.digest, sizeof out);
}

void Digest::of_buffer(const char *data, std::size_t size, uint8_t (&out)[16]) noexcept {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(data, size));
    memcpy(out, canonical.digest, sizeof out);
}

Moved digest_of(Run &run, Worker &worker, int from, const Stat &stat, uint8_t (&out)[16]) {
    if (stat.stx_size <= data_size && !is_sparse(stat))
        return copy_small(worker, from, -1, stat.stx_size, &out);
    Digest digest;
    digest.start();
    const Moved moved = pass_data(run, worker, from, -1, 0, stat.stx_size, is_sparse(stat), &digest, nullptr);
    digest.end(out);
    return moved;
}

Moved copy_range_of(Run &run, Worker &worker, int from, int to, uint64_t start, uint64_t end, bool sparse,
                    Digest *digest) {
    return pass_data(run, worker, from, to, start, end, sparse, digest, nullptr);
}

bool shares_beginning(const Means &means, int from, int to) noexcept {
    const file_clone_range beginning{from, 0, 65536, 0}; // of whole blocks, whatever their size
    return means.copies_in_kernel.load(std::memory_order_relaxed) && ioctl(to, FICLONERANGE, &beginning) == 0;
}

namespace {

Moved copy_data(Run &run, Worker &worker, Means &means, int from, int to, const Stat &stat, uint8_t (*out)[16]) {
    const bool sparse = is_sparse(stat);
    Means *const in_kernel = out != nullptr ? nullptr : &means; // a digest is of data that came by here
    if (stat.stx_size <= data_size && !sparse) {
        uint64_t done = 0;
        if (in_kernel != nullptr && stat.stx_size >= means.least_in_kernel &&
            means.copies_in_kernel.load(std::memory_order_relaxed))
            done = copy_in_kernel(run, worker, means, from, to, 0, stat.stx_size);
        if (done == 0)
            return copy_small(worker, from, to, stat.stx_size, out);
        return pass_range(run, worker, from, to, done, stat.stx_size, nullptr);
    }
    Digest digest;
    if (out != nullptr)
        digest.start();
    const Moved moved =
        pass_data(run, worker, from, to, 0, stat.stx_size, sparse, out != nullptr ? &digest : nullptr, in_kernel);
    if (moved.operation == nullptr && sparse && ftruncate(to, static_cast<off_t>(stat.stx_size)) != 0)
        return failed("ftruncate", true);
    if (out != nullptr)
        digest.end(*out);
    return moved;
}

} // namespace

Moved move_data(Run &run, Worker &worker, Means &means, int from, int to, const Stat &stat, uint8_t (*out)[16]) {
    if (stat.stx_size == 0) {
        if (out != nullptr)
            Digest::of_buffer(nullptr, 0, *out);
        return {};
    }
    Moved moved;
    if (run.options.data != Data::copy) {
        if (clone(run, means, from, to, moved)) {
            Stat made;
            if (out != nullptr && stat_of(to, made) != 0)
                return failed("statx", true);
            if (out != nullptr)
                moved = digest_of(run, worker, to, made, *out);
            else
                worker.bytes += stat.stx_size;
            moved.is_clone = true;
            return moved;
        }
        if (moved.operation != nullptr)
            return moved;
    }
    const int clone_error = moved.clone_error;
    moved = copy_data(run, worker, means, from, to, stat, out);
    moved.clone_error = clone_error;
    return moved;
}

} // namespace qzfi::engine
