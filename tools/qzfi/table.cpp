#include "tools/qzfi/table.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <numeric>
#include <sstream>
#include <string_view>
#include <unistd.h>

#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

constexpr std::size_t gap = 2, narrowest = 12;

std::string aligned(const std::string &text, std::size_t width, Align align, bool is_last) {
    const std::string padding(width - std::min(width, columns_of(text)), ' ');
    if (align == Align::right)
        return padding + text;
    return is_last ? text : text + padding;
}

std::string coloured(const std::string &text, const char *code) {
    return wants_colour() ? "\033[" + std::string(code) + "m" + text + "\033[0m" : text;
}

std::size_t total_of(const std::vector<std::size_t> &widths) {
    return std::accumulate(widths.begin(), widths.end(), gap * (widths.size() - 1));
}

// Words in lines of so many columns, each indented; one that is longer has a line of its own.
void print_below(const std::string &text, std::size_t room) {
    const std::string indent(4, ' ');
    std::string line;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (!line.empty() && columns_of(indent + line + ' ' + word) > room) {
            std::cout << indent << line << '\n';
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    if (!line.empty())
        std::cout << indent << line << '\n';
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

void Table::print() const {
    std::vector<std::size_t> widths = natural_widths();
    const bool is_terminal = isatty(STDOUT_FILENO) == 1;
    const std::size_t room = is_terminal ? terminal_width(STDOUT_FILENO) : 0;
    const bool is_below = is_terminal && columns_.back().may_go_below && total_of(widths) > room;
    if (is_below)
        widths.pop_back();
    while (is_terminal && total_of(widths) > room) {
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
    const auto print_row = [&](const auto &cell_of, bool is_title) {
        std::string line;
        for (std::size_t column = 0; column < widths.size(); ++column) {
            const bool is_last = column + 1 == widths.size();
            line +=
                aligned(shortened(cell_of(column), widths[column]), widths[column], columns_[column].align, is_last);
            if (!is_last)
                line += std::string(gap, ' ');
        }
        std::cout << (is_title ? bold(line) : line) << '\n';
    };
    print_row([&](std::size_t column) { return std::string(columns_[column].title); }, true);
    for (const auto &row : rows_) {
        print_row([&](std::size_t column) { return row[column]; }, false);
        if (is_below)
            print_below(row.back(), room);
    }
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
