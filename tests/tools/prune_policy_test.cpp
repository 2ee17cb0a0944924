// Which images pruning keeps.
#include "tools/qzfi/prune_policy.h"

#include <cstdlib>
#include <ctime>
#include <map>

#include <gtest/gtest.h>

namespace {

using namespace qzfi::tool;

constexpr int64_t hour = 3600, day = 24 * hour;

// Central European time by its rule, so that no time zone files are needed.
class Prune : public testing::Test {
protected:
    void SetUp() override {
        if (const char *const zone = std::getenv("TZ"))
            earlier_zone_ = zone;
        set_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    }
    void TearDown() override {
        if (earlier_zone_)
            set_zone(earlier_zone_->c_str());
        else
            unsetenv("TZ");
        tzset();
    }
    static void set_zone(const char *zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    static int64_t local(int year, int month, int day_of_month, int hour_of_day, int minute = 0) {
        std::tm parts = {};
        parts.tm_year = year - 1900;
        parts.tm_mon = month - 1;
        parts.tm_mday = day_of_month;
        parts.tm_hour = hour_of_day;
        parts.tm_min = minute;
        parts.tm_isdst = -1;
        return std::mktime(&parts);
    }

    void add(const std::string &id, int64_t seconds, const std::string &group = "data") {
        candidates.push_back({id, group, seconds, 0, true});
    }

    // The kept ones with their reasons.
    using Kept = std::map<std::string, std::vector<std::string>>;
    Kept kept(const PrunePolicy &policy) const {
        Kept result;
        const std::vector<PruneDecision> decisions = decide(candidates, policy);
        EXPECT_EQ(decisions.size(), candidates.size());
        for (std::size_t index = 0; index < decisions.size(); ++index)
            if (decisions[index].action == PruneAction::keep)
                result[candidates[index].id] = decisions[index].reasons;
        return result;
    }

    std::vector<PruneCandidate> candidates;

private:
    std::optional<std::string> earlier_zone_;
};

PrunePolicy last(uint32_t count) {
    return {count, {}, {}, {}};
}
PrunePolicy daily(uint32_t count) {
    return {{}, count, {}, {}};
}
PrunePolicy weekly(uint32_t count) {
    return {{}, {}, count, {}};
}
PrunePolicy monthly(uint32_t count) {
    return {{}, {}, {}, count};
}

TEST_F(Prune, nothing_is_decided_about_nothing) {
    EXPECT_TRUE(decide({}, last(3)).empty());
    EXPECT_TRUE(spare({}, {}).empty());
}

TEST_F(Prune, without_a_rule_everything_is_kept) {
    add("a", 1000);
    add("b", 2000);
    EXPECT_EQ(kept({}), (Kept{{"a", {}}, {"b", {}}}));
}

TEST_F(Prune, the_last_are_the_newest_whatever_their_order) {
    add("b", 2000);
    add("d", 4000);
    add("a", 1000);
    add("c", 3000);
    EXPECT_EQ(kept(last(2)), (Kept{{"d", {"last 1"}}, {"c", {"last 2"}}}));
}

TEST_F(Prune, fewer_images_than_a_rule_wants_are_all_kept) {
    add("a", local(2026, 11, 20, 12));
    add("b", local(2026, 11, 21, 12));
    EXPECT_EQ(kept(last(5)).size(), 2u);
    EXPECT_EQ(kept(daily(5)).size(), 2u);
    EXPECT_EQ(kept(monthly(5)), (Kept{{"b", {"month 2026-11"}}}));
}

TEST_F(Prune, a_rule_for_none_keeps_none) {
    add("a", 1000);
    for (const PrunePolicy &policy : {last(0), daily(0), weekly(0), monthly(0)})
        EXPECT_TRUE(kept(policy).empty());
    EXPECT_EQ(kept({1, 0, 0, 0}), (Kept{{"a", {"last 1"}}}));
}

TEST_F(Prune, of_each_day_the_newest_is_kept) {
    add("a", local(2026, 11, 19, 23, 59));
    add("b", local(2026, 11, 20, 0, 0));
    add("c", local(2026, 11, 20, 23, 59));
    add("d", local(2026, 11, 21, 0, 0));
    EXPECT_EQ(kept(daily(2)), (Kept{{"d", {"day 2026-11-21"}}, {"c", {"day 2026-11-20"}}}));
}

TEST_F(Prune, days_without_images_do_not_count) {
    add("a", local(2026, 1, 1, 12));
    add("b", local(2026, 6, 1, 12));
    add("c", local(2026, 11, 21, 12));
    EXPECT_EQ(kept(daily(2)), (Kept{{"c", {"day 2026-11-21"}}, {"b", {"day 2026-06-01"}}}));
}

TEST_F(Prune, days_are_those_of_the_local_time_zone) {
    add("a", local(2026, 11, 20, 23, 30)); // both 22:30 and 23:30 of the same day in UTC
    add("b", local(2026, 11, 21, 0, 30));
    EXPECT_EQ(kept(daily(5)).size(), 2u);
    set_zone("UTC0");
    EXPECT_EQ(kept(daily(5)), (Kept{{"b", {"day 2026-11-20"}}}));
}

TEST_F(Prune, the_day_of_25_hours_is_one_day) {
    const int64_t midnight = local(2026, 10, 25, 0);
    ASSERT_EQ(local(2026, 10, 26, 0) - midnight, 25 * hour);
    add("a", midnight);
    add("b", midnight + 2 * hour + 1800); // 2:30 in summer time
    add("c", midnight + 3 * hour + 1800); // 2:30 again
    add("d", midnight + 25 * hour - 1);
    add("e", midnight + 25 * hour);
    EXPECT_EQ(kept(daily(5)), (Kept{{"d", {"day 2026-10-25"}}, {"e", {"day 2026-10-26"}}}));
}

TEST_F(Prune, the_day_of_23_hours_is_one_day) {
    const int64_t midnight = local(2026, 3, 29, 0);
    ASSERT_EQ(local(2026, 3, 30, 0) - midnight, 23 * hour);
    add("a", midnight - 1);
    add("b", midnight);
    add("c", midnight + 23 * hour - 1);
    add("d", midnight + 23 * hour);
    EXPECT_EQ(kept(daily(5)), (Kept{{"a", {"day 2026-03-28"}}, {"c", {"day 2026-03-29"}}, {"d", {"day 2026-03-30"}}}));
}

TEST_F(Prune, a_clock_set_back_over_midnight_makes_no_second_day) {
    set_zone("XXX3YYY2,M10.3.0/0,M2.3.0/0"); // summer time ends at midnight, which becomes 23:00 again
    const int64_t before = local(2026, 2, 14, 22, 30);
    add("a", before);
    add("b", before + hour);     // 23:30
    add("c", before + 2 * hour); // 23:30 again
    add("d", before + 3 * hour); // 0:30
    EXPECT_EQ(kept(daily(5)), (Kept{{"c", {"day 2026-02-14"}}, {"d", {"day 2026-02-15"}}}));
}

TEST_F(Prune, weeks_begin_on_mondays) {
    add("sunday", local(2026, 11, 15, 23, 59));
    add("monday", local(2026, 11, 16, 0, 0));
    add("next_sunday", local(2026, 11, 22, 23, 59));
    EXPECT_EQ(kept(weekly(5)), (Kept{{"sunday", {"week 2026-W46"}}, {"next_sunday", {"week 2026-W47"}}}));
}

TEST_F(Prune, the_week_over_new_year_is_one_week) {
    add("a", local(2025, 12, 28, 12)); // Sunday of week 52
    add("b", local(2025, 12, 29, 12)); // Monday of week 1 of 2026
    add("c", local(2026, 1, 1, 12));
    add("d", local(2026, 1, 4, 12)); // its Sunday
    add("e", local(2026, 1, 5, 12));
    EXPECT_EQ(kept(weekly(5)), (Kept{{"a", {"week 2025-W52"}}, {"d", {"week 2026-W01"}}, {"e", {"week 2026-W02"}}}));
}

TEST_F(Prune, a_year_may_have_53_weeks) {
    add("a", local(2026, 12, 27, 12)); // Sunday of week 52
    add("b", local(2026, 12, 31, 12));
    add("c", local(2027, 1, 3, 12)); // Sunday of week 53 of 2026
    add("d", local(2027, 1, 4, 12));
    EXPECT_EQ(kept(weekly(5)), (Kept{{"a", {"week 2026-W52"}}, {"c", {"week 2026-W53"}}, {"d", {"week 2027-W01"}}}));
}

TEST_F(Prune, the_same_week_of_another_year_is_another_week) {
    add("a", local(2025, 11, 19, 12));
    add("b", local(2026, 11, 18, 12));
    EXPECT_EQ(kept(weekly(2)), (Kept{{"a", {"week 2025-W47"}}, {"b", {"week 2026-W47"}}}));
}

TEST_F(Prune, of_each_month_the_newest_is_kept) {
    add("a", local(2025, 11, 30, 12));
    add("b", local(2026, 1, 31, 23, 59));
    add("c", local(2026, 2, 1, 0, 0));
    add("d", local(2026, 2, 28, 23, 59));
    EXPECT_EQ(kept(monthly(2)), (Kept{{"d", {"month 2026-02"}}, {"b", {"month 2026-01"}}}));
    EXPECT_EQ(kept(monthly(3)).count("a"), 1u);
}

TEST_F(Prune, what_one_rule_keeps_stays) {
    add("a", local(2026, 9, 30, 12));
    add("b", local(2026, 10, 31, 12));
    add("c", local(2026, 11, 13, 12));
    add("d", local(2026, 11, 20, 12));
    add("e", local(2026, 11, 21, 11));
    add("f", local(2026, 11, 21, 12));
    EXPECT_EQ(kept({2, 2, 2, 2}), (Kept{{"f", {"last 1", "day 2026-11-21", "week 2026-W47", "month 2026-11"}},
                                        {"e", {"last 2"}},
                                        {"d", {"day 2026-11-20"}},
                                        {"c", {"week 2026-W46"}},
                                        {"b", {"month 2026-10"}}}));
}

TEST_F(Prune, of_images_of_the_same_time_the_greater_id_is_the_newer) {
    add("b", 1000);
    add("c", 1000);
    add("a", 1000);
    EXPECT_EQ(kept(last(2)), (Kept{{"c", {"last 1"}}, {"b", {"last 2"}}}));
    EXPECT_EQ(kept(daily(3)), (Kept{{"c", {"day 1970-01-01"}}}));
}

TEST_F(Prune, nanoseconds_count_before_ids) {
    candidates = {{"b", "data", 1000, 5, true}, {"a", "data", 1000, 6, true}};
    EXPECT_EQ(kept(last(1)), (Kept{{"a", {"last 1"}}}));
}

TEST_F(Prune, groups_do_not_take_each_others_places) {
    for (int number = 0; number < 3; ++number) {
        add("one" + std::to_string(number), 1000 + number, "one");
        add("two" + std::to_string(number), 5000 + number, "two");
    }
    EXPECT_EQ(kept(last(1)), (Kept{{"one2", {"last 1"}}, {"two2", {"last 1"}}}));
}

TEST_F(Prune, damaged_images_neither_count_nor_go) {
    add("a", 1000);
    add("b", 2000);
    add("c", 3000);
    candidates[2].is_complete = false;
    const std::vector<PruneDecision> decisions = decide(candidates, last(1));
    EXPECT_EQ(decisions[2].action, PruneAction::leave);
    EXPECT_FALSE(decisions[2].is_newest);
    EXPECT_TRUE(decisions[2].reasons.empty());
    EXPECT_TRUE(decisions[1].is_newest);
    EXPECT_EQ(kept(last(1)), (Kept{{"b", {"last 1"}}}));
    EXPECT_EQ(decisions[0].action, PruneAction::remove);
    EXPECT_EQ(decide(candidates, {})[2].action, PruneAction::leave);
}

TEST_F(Prune, a_group_of_damaged_images_only_is_left_alone) {
    add("a", 1000);
    candidates[0].is_complete = false;
    EXPECT_EQ(decide(candidates, last(0))[0].action, PruneAction::leave);
    EXPECT_TRUE(spare(candidates, decide(candidates, {})).empty());
}

TEST_F(Prune, spare_are_the_oldest_kept_ones_but_never_the_newest_of_a_group) {
    add("b", 2000, "one");
    add("c", 3000, "one"); // the newest of its group
    add("a", 1000, "two"); // the only one of its group
    add("e", 1500, "one");
    add("f", 1600, "one");
    candidates[4].is_complete = false;
    const std::vector<PruneDecision> all = decide(candidates, {});
    EXPECT_EQ(spare(candidates, all), (std::vector<std::size_t>{3, 0}));
    const std::vector<PruneDecision> two = decide(candidates, last(2)); // what goes anyway is not spare
    EXPECT_EQ(spare(candidates, two), (std::vector<std::size_t>{0}));
}

TEST_F(Prune, times_before_1970_have_days_too) {
    add("a", -2 * day);
    add("b", -2 * day + hour);
    add("c", -1);
    EXPECT_EQ(kept(daily(2)), (Kept{{"c", {"day 1970-01-01"}}, {"b", {"day 1969-12-30"}}}));
}

} // namespace
