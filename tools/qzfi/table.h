// Tables for people: aligned columns, fitted to a terminal; whole, without any colour, when piped.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qzfi::tool {

enum class Align { left, right };

/// A column. When the terminal is too narrow, columns at the end go below their rows, whole, as many as need be of
/// those that may. What does not fit even so is shortened, the widest first of the columns that may shrink.
struct Column {
    const char *title;
    Align align = Align::left;
    bool may_shrink = false;
    bool may_go_below = false;
};

class Table {
public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    /// As many cells as there are columns; texts of others go through `printable` first.
    void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    bool empty() const { return rows_.empty(); }
    /// To standard output, with a line of titles.
    void print() const;

private:
    std::vector<std::size_t> natural_widths() const;
    void print_row(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths, std::size_t room,
                   std::string (*decorated)(const std::string &)) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

/// Lines "name: value" for one thing, the values aligned.
class Facts {
public:
    void add(std::string name, std::string value) { facts_.emplace_back(std::move(name), std::move(value)); }
    void print() const;

private:
    std::vector<std::pair<std::string, std::string>> facts_;
};

/// True when standard output is a terminal that wants colour: NO_COLOR is not set, TERM is not "dumb".
bool wants_colour();
/// The text in bold (titles), or in red (damage), where colour is wanted.
std::string bold(const std::string &text);
std::string red(const std::string &text);

} // namespace qzfi::tool
