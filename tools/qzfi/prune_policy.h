// Which images `qzfi prune` keeps. It looks at nothing but its arguments and the local time zone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qzfi::tool {

/// An image, or the images of a set together.
struct PruneCandidate {
    std::string id;
    std::string group;   ///< of images of the same objects in the same store; the rules count within each
    int64_t seconds = 0; ///< since 1970
    uint32_t nanoseconds = 0;
    bool is_complete = true; ///< else nothing is decided about it: it neither counts nor goes
};

/// How many are kept by each rule. A rule that is not given keeps nothing; with none given everything is kept.
struct PrunePolicy {
    std::optional<uint32_t> last;    ///< the newest ones
    std::optional<uint32_t> daily;   ///< the newest one of each of the newest days that have any
    std::optional<uint32_t> weekly;  ///< of ISO weeks, which begin on Mondays
    std::optional<uint32_t> monthly; ///< of months

    bool has_rule() const { return last || daily || weekly || monthly; }
    bool keeps_any() const {
        return last.value_or(0) > 0 || daily.value_or(0) > 0 || weekly.value_or(0) > 0 || monthly.value_or(0) > 0;
    }
};

enum class PruneAction { keep, remove, leave };

struct PruneDecision {
    PruneAction action = PruneAction::remove; ///< `leave` for what is not complete
    std::vector<std::string> reasons; ///< of `keep`: "last 2", "day 2026-11-21", "week 2026-W47", "month 2026-11"
    bool is_newest = false;           ///< of the complete ones of its group
};

/// A decision for each candidate, in their order. Days, weeks and months are those of the local time zone. Of images of
/// the same time, the one with the greater id is the newer one.
std::vector<PruneDecision> decide(const std::vector<PruneCandidate> &candidates, const PrunePolicy &policy);

/// Those that are kept, but may go for space: all but the newest of each group, the oldest first. Indexes.
std::vector<std::size_t> spare(const std::vector<PruneCandidate> &candidates,
                               const std::vector<PruneDecision> &decisions);

} // namespace qzfi::tool
