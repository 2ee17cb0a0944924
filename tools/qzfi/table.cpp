#include "tools/qzfi/table.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <numeric>
#include <string_view>
#include <unistd.h>

#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

constexpr std::size_t gap = 2, narrowest = 12;

std::string aligned(const std::string &text, std::size_t width, Align align) {
    const std::string padding(width - std::min(width, columns_of(text)), ' ');
    return align == Align::right ? padding + text : text + padding;
}

std::string coloured(const std::string &text, const char *code) {
    return wants_colour() ? "\033[" + std::string(code) + "m" + text + "\033[0m" : text;
}

std::size_t total_of(const std::vector<std::size_t> &widths) {
    return std::accumulate(widths.begin(), widths.end(), gap * (widths.size() - 1));
}

} // namespace

std::vector<std::size_t> Table::natural_widths() const {
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < columns_.size(); ++column) {
        std::size_t width = columns_of(columns_[column].title);
        for (const auto &row : rows_)
            width = std::max(width, columns_of(row[column]));
        widths.push_back(width);
    }
    return widths;
}

// As many cells as there are widths in a line, those that are left below it.
void Table::print_row(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths, std::size_t room,
                      std::string (*decorated)(const std::string &)) const {
    std::string line, below;
    for (std::size_t column = 0; column < widths.size(); ++column)
        line += aligned(shortened(cells[column], widths[column]), widths[column], columns_[column].align) +
                std::string(gap, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    for (std::size_t column = widths.size(); column < cells.size(); ++column)
        below += (below.empty() || cells[column].empty() ? "" : std::string(gap, ' ')) + cells[column];
    std::cout << decorated(line) << '\n';
    if (!below.empty())
        std::cout << decorated(wrapped("    " + below, room, 4)) << '\n';
}

void Table::print() const {
    std::vector<std::size_t> widths = natural_widths();
    const std::size_t room =
        isatty(STDOUT_FILENO) == 1 ? terminal_width(STDOUT_FILENO) : std::numeric_limits<std::size_t>::max();
    while (total_of(widths) > room && columns_[widths.size() - 1].may_go_below)
        widths.pop_back();
    while (total_of(widths) > room) {
        std::size_t *widest = nullptr;
        for (std::size_t column = 0; column < widths.size(); ++column) {
            if (columns_[column].may_shrink && widths[column] > narrowest &&
                (widest == nullptr || widths[column] > *widest))
                widest = &widths[column];
        }
        if (widest == nullptr)
            break;
        --*widest;
    }
    std::vector<std::string> titles;
    for (const Column &column : columns_)
        titles.emplace_back(column.title);
    print_row(titles, widths, room, bold);
    for (const auto &row : rows_)
        print_row(row, widths, room, [](const std::string &text) { return text; });
}

void Facts::print() const {
    std::size_t width = 0;
    for (const auto &fact : facts_)
        width = std::max(width, columns_of(fact.first));
    for (const auto &[name, value] : facts_)
        std::cout << bold(name + ":") << std::string(width - columns_of(name) + 1, ' ') << value << '\n';
}

bool wants_colour() {
    static const bool wanted = [] {
        const char *const no_colour = std::getenv("NO_COLOR");
        const char *const terminal = std::getenv("TERM");
        return isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0') && terminal != nullptr &&
               std::string_view(terminal) != "dumb";
    }();
    return wanted;
}

std::string bold(const std::string &text) {
    return coloured(text, "1");
}

std::string red(const std::string &text) {
    return coloured(text, "31");
}

} // namespace qzfi::tool
