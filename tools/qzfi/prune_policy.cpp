#include "tools/qzfi/prune_policy.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <tuple>

namespace qzfi::tool {

namespace {

using Indexes = std::vector<std::size_t>;

bool is_newer(const PruneCandidate &one, const PruneCandidate &other) {
    return std::tie(one.seconds, one.nanoseconds, one.id) > std::tie(other.seconds, other.nanoseconds, other.id);
}

// The name of the local period that a time lies in; a time that has none is a period by itself.
std::string period(int64_t seconds, const char *format) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts = {};
    std::array<char, 64> text;
    if (localtime_r(&time, &parts) == nullptr)
        return std::to_string(seconds);
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

void keep_last(const Indexes &newest_first, std::optional<uint32_t> count, std::vector<PruneDecision> &decisions) {
    for (std::size_t place = 0; place < std::min<std::size_t>(count.value_or(0), newest_first.size()); ++place)
        decisions[newest_first[place]].reasons.push_back("last " + std::to_string(place + 1));
}

// Equal periods need not be neighbours where the clock was set back over midnight, so all that were seen are known.
void keep_periods(const std::vector<PruneCandidate> &candidates, const Indexes &newest_first,
                  std::optional<uint32_t> count, const char *name, const char *format,
                  std::vector<PruneDecision> &decisions) {
    std::vector<std::string> seen;
    for (const std::size_t index : newest_first) {
        if (seen.size() >= count.value_or(0))
            return;
        const std::string present = period(candidates[index].seconds, format);
        if (std::find(seen.begin(), seen.end(), present) != seen.end())
            continue;
        seen.push_back(present);
        decisions[index].reasons.push_back(std::string(name) + " " + present);
    }
}

} // namespace

std::vector<PruneDecision> decide(const std::vector<PruneCandidate> &candidates, const PrunePolicy &policy) {
    std::vector<PruneDecision> decisions(candidates.size());
    std::map<std::string, Indexes> groups;
    for (std::size_t index = 0; index < candidates.size(); ++index) {
        if (candidates[index].is_complete)
            groups[candidates[index].group].push_back(index);
        else
            decisions[index].action = PruneAction::leave;
    }
    for (auto &[name, newest_first] : groups) {
        std::sort(newest_first.begin(), newest_first.end(),
                  [&](std::size_t one, std::size_t other) { return is_newer(candidates[one], candidates[other]); });
        decisions[newest_first.front()].is_newest = true;
        keep_last(newest_first, policy.last, decisions);
        keep_periods(candidates, newest_first, policy.daily, "day", "%Y-%m-%d", decisions);
        keep_periods(candidates, newest_first, policy.weekly, "week", "%G-W%V", decisions);
        keep_periods(candidates, newest_first, policy.monthly, "month", "%Y-%m", decisions);
        for (const std::size_t index : newest_first)
            if (!policy.has_rule() || !decisions[index].reasons.empty())
                decisions[index].action = PruneAction::keep;
    }
    return decisions;
}

std::vector<std::size_t> spare(const std::vector<PruneCandidate> &candidates,
                               const std::vector<PruneDecision> &decisions) {
    Indexes indexes;
    for (std::size_t index = 0; index < candidates.size(); ++index)
        if (decisions[index].action == PruneAction::keep && !decisions[index].is_newest)
            indexes.push_back(index);
    std::sort(indexes.begin(), indexes.end(),
              [&](std::size_t one, std::size_t other) { return is_newer(candidates[other], candidates[one]); });
    return indexes;
}

} // namespace qzfi::tool
