// Column widths count characters (UTF-8 continuation bytes take no room).
#include "cli/table.h"

#include <algorithm>

namespace cli {

namespace {

using Cells = std::vector<std::string>;

size_t widthOf(const std::string &text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](unsigned char c) { return (c & 0xC0) != 0x80; }));
}

std::string lineText(const std::vector<Column> &columns, const std::vector<size_t> &widths, const Cells &cells) {
    std::string line;
    for (size_t i = 0; i < cells.size(); i++) {
        const std::string space(widths[i] - widthOf(cells[i]), ' ');
        line += (i == 0 ? "" : "  ") + (columns[i].right ? space + cells[i] : cells[i] + space);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

} // namespace

std::string cellText(const nlohmann::json &value) {
    if (value.is_boolean()) {
        return value.get<bool>() ? "yes" : "no";
    }
    if (value.is_number()) {
        return value.dump();
    }
    std::string text;
    if (value.is_string()) {
        text = value.get<std::string>();
    } else if (value.is_array()) {
        for (const auto &each : value) {
            text += (text.empty() ? "" : ", ") + cellText(each);
        }
    }
    // A name may hold any byte; what would move the terminal's cursor is shown as a question mark.
    std::replace_if(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return text.empty() ? "-" : text;
}

std::string tableText(const std::vector<Column> &columns, const nlohmann::json &rows, size_t merged) {
    std::vector<Cells> lines(1);
    for (const Column &column : columns) {
        lines[0].push_back(column.pTitle);
    }
    Cells above(columns.size());
    for (const auto &row : rows) {
        Cells cells;
        for (const Column &column : columns) {
            cells.push_back(row.contains(column.pKey) ? cellText(row[column.pKey]) : "-");
        }
        Cells shown = cells;
        for (size_t i = 0; i < merged && cells[i] == above[i]; i++) {
            shown[i] = "";
        }
        above = cells;
        lines.push_back(shown);
    }
    std::vector<size_t> widths(columns.size());
    for (const Cells &cells : lines) {
        for (size_t i = 0; i < cells.size(); i++) {
            widths[i] = std::max(widths[i], widthOf(cells[i]));
        }
    }
    std::string text;
    for (const Cells &cells : lines) {
        text += lineText(columns, widths, cells);
    }
    return text;
}

} // namespace cli
