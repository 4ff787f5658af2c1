// Aligned tables from JSON rows: the same rows are printed with --json.
#ifndef CLI_TABLE_H
#define CLI_TABLE_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace cli {

struct Column {
    const char *pTitle;
    const char *pKey;   // member of a row
    bool right = false; // numbers stand to the right
};

// Text of a value: strings as they are (control characters as '?'), true and false as yes and no, null,
// empty texts and empty lists as "-", lists joined with ", ". Lock: none
std::string cellText(const nlohmann::json &value);

// A title line and a line a row; columns are two spaces apart, no line ends with spaces. A value that
// repeats the row above in the first `merged` columns is left out. Lock: none
std::string tableText(const std::vector<Column> &columns, const nlohmann::json &rows, size_t merged = 0);

} // namespace cli

#endif
