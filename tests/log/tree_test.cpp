#include "log/log_support.h"
#include "support/fault.h"

#include <climits>
#include <cstring>
#include <deque>
#include <memory>

#include <gtest/gtest.h>

namespace {

using namespace log_support;

/// Nodes with unterminated names, each name in an allocation of its own size, so that a read beyond is found out.
class Tree {
public:
    qfi_domain *node(const std::string &name) {
        auto bytes = std::make_unique<char[]>(name.size());
        name.copy(bytes.get(), name.size());
        ids_.push_back({bytes.get(), static_cast<int32_t>(name.size()), 0});
        names_.push_back(std::move(bytes));
        nodes_.push_back({});
        nodes_.back().objid = &ids_.back();
        return &nodes_.back();
    }

private:
    std::deque<qfi_domain> nodes_;
    std::deque<qfi_objid_t> ids_;
    std::deque<std::unique_ptr<char[]>> names_;
};

std::vector<std::string> lines_of(const qfi_domain *root, int32_t depth = 0) {
    RecordingHost host;
    qzfi_print_tree(root, depth);
    std::vector<std::string> lines;
    for (const Report &report : host.reports) {
        EXPECT_EQ(report.severity, 4u);
        EXPECT_FALSE(report.is_localized);
        lines.push_back(report.text);
    }
    return lines;
}

using Lines = std::vector<std::string>;

TEST(PrintTree, of_null_prints_nothing) {
    EXPECT_EQ(lines_of(nullptr), Lines{});
}

TEST(PrintTree, prints_later_siblings_first_then_the_node_then_its_children_two_deeper) {
    Tree tree;
    qfi_domain *a = tree.node("a"), *b = tree.node("b"), *c = tree.node("c");
    qfi_domain *a1 = tree.node("a1"), *a2 = tree.node("a2"), *b1 = tree.node("b1"), *a2x = tree.node("a2x");
    a->fid_siblings = b;
    b->fid_siblings = c;
    a->fid_children = a1;
    a1->fid_siblings = a2;
    a2->fid_children = a2x;
    b->fid_children = b1;
    EXPECT_EQ(lines_of(a), (Lines{" c", " b", "   b1", " a", "   a2", "     a2x", "   a1"}));
    EXPECT_EQ(lines_of(b), (Lines{" c", " b", "   b1"}));
}

TEST(PrintTree, prints_sibling_chains_of_any_length_backwards) {
    for (int length = 1; length <= 70; ++length) {
        Tree tree;
        qfi_domain *first = tree.node("0");
        qfi_domain *last = first;
        Lines expected{" 0"};
        for (int i = 1; i < length; ++i) {
            last = last->fid_siblings = tree.node(std::to_string(i));
            expected.insert(expected.begin(), " " + std::to_string(i));
        }
        EXPECT_EQ(lines_of(first), expected) << length;
    }
}

TEST(PrintTree, indents_by_depth_up_to_23_blanks) {
    Tree tree;
    qfi_domain *node = tree.node("n");
    for (const int depth : {0, 1, 2, 22, 23})
        EXPECT_EQ(lines_of(node, depth), Lines{std::string(static_cast<std::size_t>(depth), ' ') + " n"});
    for (const int depth : {24, 25, 1000, INT_MAX})
        EXPECT_EQ(lines_of(node, depth), Lines{std::string(23, ' ') + " n"});
    for (const int depth : {-1, -24, INT_MIN})
        EXPECT_EQ(lines_of(node, depth), Lines{" n"});
}

TEST(PrintTree, counts_the_depth_of_children_from_the_given_one) {
    Tree tree;
    qfi_domain *node = tree.node("n");
    node->fid_children = tree.node("c");
    node->fid_children->fid_children = tree.node("d");
    EXPECT_EQ(lines_of(node, -3), (Lines{" n", " c", "  d"}));
    EXPECT_EQ(lines_of(node, 20),
              (Lines{std::string(20, ' ') + " n", std::string(22, ' ') + " c", std::string(23, ' ') + " d"}));
    EXPECT_EQ(lines_of(node, INT_MAX),
              (Lines{std::string(23, ' ') + " n", std::string(23, ' ') + " c", std::string(23, ' ') + " d"}));
}

TEST(PrintTree, prints_an_alternate_with_a_name_behind_an_arrow) {
    Tree tree;
    qfi_domain *node = tree.node("origin");
    node->fid_altnode = tree.node("image");
    EXPECT_EQ(lines_of(node, 2), Lines{"   origin --> image"});
    node->fid_altnode->fid_children = tree.node("not printed");
    EXPECT_EQ(lines_of(node, 2), Lines{"   origin --> image"});
    node->objid = nullptr;
    EXPECT_EQ(lines_of(node), Lines{" NULL --> image"});
}

TEST(PrintTree, leaves_an_alternate_without_a_name_out) {
    Tree tree;
    qfi_domain *node = tree.node("origin");
    qfi_domain alternate{};
    node->fid_altnode = &alternate;
    EXPECT_EQ(lines_of(node), Lines{" origin"});
    qfi_objid_t nameless{nullptr, 5, 0};
    alternate.objid = &nameless;
    EXPECT_EQ(lines_of(node), Lines{" origin"});
}

TEST(PrintTree, prints_a_missing_name_as_null) {
    qfi_domain node{};
    EXPECT_EQ(lines_of(&node), Lines{" NULL"});
    qfi_objid_t nameless{nullptr, 5, 0};
    node.objid = &nameless;
    EXPECT_EQ(lines_of(&node), Lines{" NULL"});
}

TEST(PrintTree, ends_a_name_at_its_length_or_its_terminator) {
    qfi_domain node{};
    qfi_objid_t id{"name", 4, 0};
    node.objid = &id;
    EXPECT_EQ(lines_of(&node), Lines{" name"});
    id.vid_length = 2;
    EXPECT_EQ(lines_of(&node), Lines{" na"});
    id.vid_length = 5;
    EXPECT_EQ(lines_of(&node), Lines{" name"});
    id.vid_length = INT_MAX;
    EXPECT_EQ(lines_of(&node), Lines{" name"});
    id.vid_length = 0;
    EXPECT_EQ(lines_of(&node), Lines{" "});
    id.vid_length = -1;
    EXPECT_EQ(lines_of(&node), Lines{" "});
    id = {"a\0b", 3, 0};
    EXPECT_EQ(lines_of(&node), Lines{" a"});
    id = {"%s\xff%n", 5, 0};
    EXPECT_EQ(lines_of(&node), Lines{" %s\xff%n"});
}

TEST(PrintTree, prints_long_names_whole) {
    Tree tree;
    const std::string name(10000, 'n');
    qfi_domain *node = tree.node(name);
    node->fid_altnode = tree.node(name + "2");
    EXPECT_EQ(lines_of(node), Lines{" " + name + " --> " + name + "2"});
}

/// A host that checks names as numbers that count down, and stores no line.
struct CountingHost {
    qfi_handler handler{};
    long expected;
    long step;
    long wrong = 0;
    long lines = 0;
    CountingHost(long first, long by) : expected(first), step(by) {
        handler.error = [](qfi_handler *self, const char *text, const char *, uint32_t) {
            auto *host = reinterpret_cast<CountingHost *>(self);
            host->wrong += strtol(text, nullptr, 10) != host->expected;
            host->expected += host->step;
            ++host->lines;
        };
        util_ehandler = &handler;
    }
    ~CountingHost() { util_ehandler = nullptr; }
    CountingHost(const CountingHost &) = delete;
    CountingHost &operator=(const CountingHost &) = delete;
};

/// Numbered nodes in one array.
struct Numbered {
    std::vector<std::string> names;
    std::vector<qfi_objid_t> ids;
    std::vector<qfi_domain> nodes;
    explicit Numbered(std::size_t count) : names(count), ids(count), nodes(count) {
        for (std::size_t i = 0; i < count; ++i) {
            names[i] = std::to_string(i);
            ids[i] = {names[i].data(), static_cast<int32_t>(names[i].size()), 0};
            nodes[i].objid = &ids[i];
        }
    }
};

TEST(PrintTree, takes_a_million_siblings_with_no_memory_for_them) {
    constexpr long count = 1000000;
    Numbered tree(count);
    for (std::size_t i = 0; i + 1 < count; ++i)
        tree.nodes[i].fid_siblings = &tree.nodes[i + 1];
    CountingHost host(count - 1, -1);
    qzfi_print_tree(tree.nodes.data(), 0);
    EXPECT_EQ(host.lines, count);
    EXPECT_EQ(host.wrong, 0);
}

TEST(PrintTree, takes_100000_levels) {
    constexpr long count = 100000;
    Numbered tree(count);
    for (std::size_t i = 0; i + 1 < count; ++i)
        tree.nodes[i].fid_children = &tree.nodes[i + 1];
    CountingHost host(0, 1);
    qzfi_print_tree(tree.nodes.data(), 0);
    EXPECT_EQ(host.lines, count);
    EXPECT_EQ(host.wrong, 0);
}

/// Every level has an earlier sibling that waits until all below is printed: 2 * levels nodes, printed in the order
/// of their numbers.
Numbered tree_of_waiting_siblings(std::size_t levels) {
    Numbered tree(2 * levels);
    for (std::size_t level = 0; level < levels; ++level) {
        qfi_domain &waiting = tree.nodes[2 * levels - 1 - level];
        qfi_domain &later = tree.nodes[level];
        waiting.fid_siblings = &later;
        if (level + 1 < levels)
            later.fid_children = &tree.nodes[2 * levels - 2 - level];
    }
    return tree;
}

TEST(PrintTree, takes_100000_levels_with_siblings_that_wait) {
    constexpr long levels = 100000;
    const Numbered tree = tree_of_waiting_siblings(levels);
    CountingHost host(0, 1);
    qzfi_print_tree(&tree.nodes.back(), 0);
    EXPECT_EQ(host.lines, 2 * levels);
    EXPECT_EQ(host.wrong, 0);
}

TEST(PrintTree, leaves_the_rest_out_when_memory_is_short) {
    constexpr long levels = 200;
    const Numbered tree = tree_of_waiting_siblings(levels);
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        CountingHost host(0, 1);
        trial.arm();
        qzfi_print_tree(&tree.nodes.back(), 0);
        trial.disarm();
        // A failed trace loses its line only; a failed stack ends the walk. What is printed keeps its order.
        if (!trial.fired()) {
            EXPECT_EQ(host.lines, 2 * levels);
            EXPECT_EQ(host.wrong, 0);
        } else {
            EXPECT_LT(host.lines, 2 * levels);
        }
    });
}

TEST(PrintTree, keeps_the_order_of_what_it_prints_when_memory_is_short) {
    const Numbered tree = tree_of_waiting_siblings(200);
    CountingHost host(0, 1);
    // The 128th line is traced with the built-in stack full; its own allocation is the last that succeeds.
    const fault::Armed short_memory(fault::Call::allocation, 128, {.from_then_on = true});
    qzfi_print_tree(&tree.nodes.back(), 0);
    EXPECT_EQ(host.lines, 127);
    EXPECT_EQ(host.wrong, 0);
}

} // namespace
