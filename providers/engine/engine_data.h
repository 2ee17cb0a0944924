// File data: clones, copies that keep holes, digests.
#pragma once

#include <xxhash.h>

#include "providers/engine/engine_work.h"

namespace qzfi::engine {

/// How moving data ended: `operation` is null when it went well, else the call that failed and on which side.
struct Moved {
    const char *operation = nullptr;
    int error = 0;
    bool on_target = false;
    bool is_short = false; // the source ended early: it was cut meanwhile
    bool is_clone = false; // all of one instant
    int clone_error = 0;   // what a clone failed with that was wanted, and is a copy
};

/// Learned while a run goes on, so that what cannot work is not tried for each file.
struct Means {
    std::atomic<bool> clones{true};
    std::atomic<bool> copies_in_kernel{true};
    uint64_t least_in_kernel = 16384; // smaller files are read and written sooner than XFS shares them
};

/// A digest in the making: of one buffer, or of many.
class Digest {
public:
    void start(); // throws std::bad_alloc
    void add(const char *data, std::size_t size) noexcept { XXH3_128bits_update(state_.get(), data, size); }
    void add_zeros(uint64_t size) noexcept;
    void end(uint8_t (&out)[16]) const noexcept;
    static void of_buffer(const char *data, std::size_t size, uint8_t (&out)[16]) noexcept;

private:
    struct Release {
        void operator()(XXH3_state_t *state) const noexcept { XXH3_freeState(state); }
    };
    std::unique_ptr<XXH3_state_t, Release> state_;
};

/// Whether the size on disk tells of holes.
inline bool is_sparse(const Stat &stat) noexcept {
    return stat.stx_blocks * 512 < stat.stx_size;
}

/// Whether two files can have the same blocks, as far as their beginnings tell, which are shared then: an XFS may be
/// one that cannot, and a copy of nothing succeeds on it all the same.
bool shares_beginning(const Means &means, int from, int to) noexcept;
/// Moves the data of a file to an empty one, in the way that the options ask for; its digest too when `out` is given.
Moved move_data(Run &run, Worker &worker, Means &means, int from, int to, const Stat &stat, uint8_t (*out)[16]);
/// Copies a range of data; the target has its size already. `digest` may be null.
Moved copy_range_of(Run &run, Worker &worker, int from, int to, uint64_t start, uint64_t end, bool is_sparse,
                    Digest *digest);
/// The digest of a file that is read.
Moved digest_of(Run &run, Worker &worker, int from, const Stat &stat, uint8_t (&out)[16]);

} // namespace qzfi::engine
