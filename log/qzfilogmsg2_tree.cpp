#include <qzfi/log.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr uint32_t tree_severity = 4;
constexpr int32_t most_blanks = 23;
constexpr std::size_t first_capacity = 128; // a sibling chain alone takes at most 64

/// The first `count` nodes of a sibling chain, still to be printed, the last one first.
struct Run {
    const qfi_domain *first;
    std::size_t count;
    int32_t depth;
};

/// The runs still to be printed, the next one on top. Trees can be far deeper than a thread's stack allows calls.
class Pending {
public:
    Pending() noexcept = default;
    ~Pending() { free(allocated_); }
    Pending(const Pending &) = delete;
    Pending &operator=(const Pending &) = delete;

    bool is_empty() const noexcept { return size_ == 0; }
    Run pop() noexcept { return runs_[--size_]; }

    /// False when memory is short.
    bool push(Run run) noexcept {
        const bool has_room = size_ < capacity_ || grow();
        if (has_room)
            runs_[size_++] = run;
        return has_room;
    }

private:
    bool grow() noexcept {
        auto *larger = static_cast<Run *>(realloc(allocated_, 2 * capacity_ * sizeof(Run)));
        if (larger == nullptr)
            return false;
        if (allocated_ == nullptr)
            std::copy_n(built_in_, size_, larger);
        allocated_ = larger;
        runs_ = larger;
        capacity_ *= 2;
        return true;
    }

    Run built_in_[first_capacity];
    Run *allocated_ = nullptr;
    Run *runs_ = built_in_;
    std::size_t capacity_ = first_capacity;
    std::size_t size_ = 0;
};

const qfi_domain *sibling(const qfi_domain *node, std::size_t steps) noexcept {
    for (; steps > 0; --steps)
        node = node->fid_siblings;
    return node;
}

Run whole_chain(const qfi_domain *first, int32_t depth) noexcept {
    std::size_t count = 0;
    for (const qfi_domain *node = first; node != nullptr; node = node->fid_siblings)
        ++count;
    return {first, count, depth};
}

bool has_name(const qfi_objid_t *id) noexcept {
    return id != nullptr && id->vid_name != nullptr;
}

/// A printf precision and the text it bounds: names are not terminated.
struct Name {
    int length;
    const char *text;
};

Name name_of(const qfi_domain *node) noexcept {
    const qfi_objid_t *id = node->objid;
    if (!has_name(id))
        return {4, "NULL"};
    return {std::max(id->vid_length, 0), static_cast<const char *>(id->vid_name)};
}

void trace_node(const qfi_domain *node, int32_t depth) noexcept {
    const int indent = std::clamp(depth, 0, most_blanks);
    const Name name = name_of(node);
    const qfi_domain *alternate = node->fid_altnode;
    if (alternate == nullptr || !has_name(alternate->objid)) {
        qzfi_tracelog(tree_severity, "%*s %.*s", indent, "", name.length, name.text);
        return;
    }
    const Name other = name_of(alternate);
    qzfi_tracelog(tree_severity, "%*s %.*s --> %.*s", indent, "", name.length, name.text, other.length, other.text);
}

/// Prints a run of one node, or splits a longer one: halving prints a chain backwards with a few runs pending, where a
/// list of its nodes would take memory for each. False when memory is short.
bool advance(Pending &pending, Run run) noexcept {
    if (run.count > 1) {
        const std::size_t half = run.count / 2;
        return pending.push({run.first, half, run.depth}) &&
               pending.push({sibling(run.first, half), run.count - half, run.depth});
    }
    trace_node(run.first, run.depth);
    if (run.first->fid_children == nullptr)
        return true;
    const int32_t deeper = run.depth < most_blanks ? run.depth + 2 : run.depth; // no deeper blanks are written
    return pending.push(whole_chain(run.first->fid_children, deeper));
}

} // namespace

void qzfi_print_tree(const qfi_domain *node, int32_t depth) {
    if (node == nullptr)
        return;
    Pending pending;
    bool has_memory = pending.push(whole_chain(node, depth));
    // Without memory the rest of the tree is left out; it takes more than 128 unfinished runs to need any.
    while (has_memory && !pending.is_empty())
        has_memory = advance(pending, pending.pop());
}
