// The table of everything published (published.txt): its rows, and which row a line of the trace belongs to.
#ifndef TESTS_PUBLISHED_TABLE_H
#define TESTS_PUBLISHED_TABLE_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace published {

struct Row {
    uint32_t line;           // in published.txt
    std::string kind;        // its first word
    std::string name;        // the row as written, without reason
    uint32_t number;         // command id, message type, result code; debug bit of a text
    std::string pattern;     // of the whole trace line; of a printed or console text, in C escapes; the name of
                             // a command, message or shell word
    std::string stream;      // of a printed text
    std::string unreachable; // why no input produces it, "" when one does
};

// The rows, in the order of the file. A row that cannot be read fails the running test.
const std::vector<Row> &rows();

// Whether a text in C escapes has the form: %d %u %x %p as printf writes them (with width and flags), %s a
// word, %* anything.
bool matches(const std::string &form, const std::string &text);

// The row of a trace line, or null.
const Row *rowOfLine(const std::string &traceLine);

// What was seen since the last clear: rows, and what belongs to none.
struct Record {
    std::set<const Row *> seen;
    std::vector<std::string> strangers;

    void line(const std::string &traceLine);
    void number(const std::string &kind, uint32_t value); // command, message, code
    void shell(const std::string &name);
    void printed(const std::string &stream, const std::string &text); // as it came, without escapes
};
Record &record();

} // namespace published

#endif
