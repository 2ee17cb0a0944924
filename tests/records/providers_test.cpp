// Merging lists of providers by their levels.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>
#include <qzfi/records.h>

namespace {

using Levels = std::vector<uint64_t>;

/// Linked nodes of the given levels.
class List {
public:
    explicit List(const Levels &levels) : nodes_(levels.size()) {
        for (std::size_t i = 0; i < levels.size(); ++i) {
            nodes_[i].provider.hlevel = levels[i];
            nodes_[i].next = i + 1 < levels.size() ? &nodes_[i + 1] : nullptr;
        }
    }

    qfi_provider_list *head() { return nodes_.data(); }
    qfi_provider_list *at(std::size_t index) { return &nodes_[index]; }

private:
    std::vector<qfi_provider_list> nodes_;
};

using Nodes = std::vector<qfi_provider_list *>;

Nodes nodes_of(qfi_provider_list *head) {
    Nodes nodes;
    for (; head != nullptr; head = head->next)
        nodes.push_back(head);
    return nodes;
}

TEST(Merge, five_three_with_four_three_gives_the_equal_one_of_b_first) {
    List a({5, 3}), b({4, 3});
    EXPECT_EQ(nodes_of(qzfi_merge_provider_lists(a.head(), b.head())), (Nodes{a.at(0), b.at(0), b.at(1), a.at(1)}));
}

TEST(Merge, a_null_list_gives_the_other) {
    List list({2, 1});
    EXPECT_EQ(qzfi_merge_provider_lists(list.head(), nullptr), list.head());
    EXPECT_EQ(qzfi_merge_provider_lists(nullptr, list.head()), list.head());
    EXPECT_EQ(nodes_of(list.head()), (Nodes{list.at(0), list.at(1)}));
    EXPECT_EQ(qzfi_merge_provider_lists(nullptr, nullptr), nullptr);
}

TEST(Merge, of_equal_levels_all_of_b_go_first) {
    List a({3, 3}), b({3, 3});
    EXPECT_EQ(nodes_of(qzfi_merge_provider_lists(a.head(), b.head())), (Nodes{b.at(0), b.at(1), a.at(0), a.at(1)}));
}

TEST(Merge, the_rest_of_the_longer_list_is_appended) {
    List a({9, 8}), b({1});
    EXPECT_EQ(nodes_of(qzfi_merge_provider_lists(a.head(), b.head())), (Nodes{a.at(0), a.at(1), b.at(0)}));
    List c({1}), d({9, 8});
    EXPECT_EQ(nodes_of(qzfi_merge_provider_lists(c.head(), d.head())), (Nodes{d.at(0), d.at(1), c.at(0)}));
}

TEST(Merge, levels_are_unsigned_numbers) {
    List a({UINT64_MAX}), b({1});
    EXPECT_EQ(nodes_of(qzfi_merge_provider_lists(a.head(), b.head())), (Nodes{a.at(0), b.at(0)}));
    List c({1}), d({UINT64_MAX});
    EXPECT_EQ(nodes_of(qzfi_merge_provider_lists(c.head(), d.head())), (Nodes{d.at(0), c.at(0)}));
}

TEST(Merge, long_lists_are_interleaved) {
    constexpr uint64_t length = 100000; // of each list; more than a recursion over them could go
    Levels even, odd;
    for (uint64_t i = 0; i < length; ++i) {
        even.push_back(2 * (length - i));
        odd.push_back(2 * (length - i) - 1);
    }
    List a(even), b(odd);
    const Nodes merged = nodes_of(qzfi_merge_provider_lists(a.head(), b.head()));
    ASSERT_EQ(merged.size(), 2 * length);
    for (std::size_t i = 0; i < merged.size(); ++i)
        ASSERT_EQ(merged[i], i % 2 == 0 ? a.at(i / 2) : b.at(i / 2)) << i;
}

} // namespace
