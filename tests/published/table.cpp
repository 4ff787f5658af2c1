// The table of everything published: see the header.
#include "tests/published/table.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/unit/hw/steps.h"

namespace published {
namespace {

constexpr char UNREACHABLE[] = " -- unreachable: ";

bool isDigitOf(char conversion, char c) {
    const bool isDecimal = c >= '0' && c <= '9';
    return isDecimal || (conversion == 'x' && c >= 'a' && c <= 'f');
}

// Where a value of the conversion may end that begins at the text; the text itself when there is none.
const char *valueEnd(char conversion, const char *text) {
    if (conversion == 'p') {
        if (strncmp(text, "(nil)", 5) == 0) {
            return text + 5;
        }
        const char *p = strncmp(text, "0x", 2) == 0 ? text + 2 : text;
        while (isDigitOf('x', *p)) {
            ++p;
        }
        return p;
    }
    const char *first = conversion == 'd' && *text == '-' ? text + 1 : text;
    const char *p = first;
    while (isDigitOf(conversion, *p)) {
        ++p;
    }
    return p == first ? text : p;
}

bool matchHere(const char *form, const char *text);

// %s takes no blank, %* anything: the shortest that lets the rest match.
bool matchWild(char conversion, const char *rest, const char *text) {
    for (const char *p = text;; ++p) {
        if (matchHere(rest, p)) {
            return true;
        }
        if (*p == '\0' || (conversion == 's' && *p == ' ')) {
            return false;
        }
    }
}

// Whether the rest matches behind the value, or behind any of the blanks that fill its width.
bool matchPadded(const char *rest, const char *end, bool isFilled) {
    for (; !matchHere(rest, end); ++end) {
        if (!isFilled || *end != ' ') {
            return false;
        }
    }
    return true;
}

bool matchConversion(const char *form, const char *text) {
    const char *p = form + 1;
    p += strspn(p, "-0123456789");
    const bool isWide = p != form + 1;
    if (form[1] == '0' && *p == 'x') { // as many digits as said
        const size_t digits = strtoul(form + 1, nullptr, 10);
        return strspn(text, "0123456789abcdef") >= digits && matchHere(p + 1, text + digits);
    }
    if (isWide) {
        text += strspn(text, " ");
    }
    if (*p == '*' || (*p == 's' && !isWide)) {
        return matchWild(*p, p + 1, text);
    }
    if (*p == 's') {
        const size_t length = strcspn(text, " ");
        for (size_t taken = 1; taken <= length; ++taken) {
            if (matchPadded(p + 1, text + taken, taken == length)) {
                return true;
            }
        }
        return false;
    }
    const char *end = valueEnd(*p, text);
    return end != text && matchPadded(p + 1, end, isWide);
}

bool matchHere(const char *form, const char *text) {
    for (; *form != '\0'; ++form, ++text) {
        if (*form == '%') {
            return matchConversion(form, text);
        }
        if (*form != *text) {
            return false;
        }
    }
    return *text == '\0';
}

Row parse(uint32_t number, const std::string &line) {
    Row row = {number, "", line, 0, "", "", ""};
    const size_t reason = line.find(UNREACHABLE);
    if (reason != std::string::npos) {
        row.unreachable = line.substr(reason + strlen(UNREACHABLE));
        row.name = line.substr(0, reason);
    }
    std::stringstream words(row.name);
    words >> row.kind;
    const size_t open = row.name.find('"');
    const size_t close = row.name.rfind('"');
    const std::string text = open < close ? row.name.substr(open + 1, close - open - 1) : "";
    if (row.kind == "text") {
        std::string module;
        words >> row.number >> module;
        row.pattern = "debug " + module + " 7 0 \"" + text + "\"";
    } else if (row.kind == "log") {
        std::string module, priority, flags;
        words >> module >> priority >> flags;
        row.pattern = "log " + module + " p" + priority + " f" + flags + " \"" + text + "\"";
    } else if (row.kind == "call" || row.kind == "console") {
        row.pattern = text;
    } else if (row.kind == "printed") {
        words >> row.stream;
        row.pattern = text;
    } else if (row.kind == "shell") {
        words >> row.pattern;
    } else if (row.kind == "command" || row.kind == "message" || row.kind == "code") {
        std::string value;
        words >> value >> row.pattern;
        row.number = static_cast<uint32_t>(strtoul(value.c_str(), nullptr, 0));
    } else {
        ADD_FAILURE() << "published.txt:" << number << ": unknown kind";
    }
    return row;
}

std::vector<Row> load() {
    const std::string here = __FILE__;
    std::ifstream in(here.substr(0, here.rfind("table.cpp")) + "published.txt");
    EXPECT_TRUE(in.good()) << "published.txt";
    std::vector<Row> out;
    uint32_t number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (!line.empty() && line[0] != '#') {
            out.push_back(parse(number, line));
        }
    }
    return out;
}

bool isTraceRow(const Row &row) { return row.kind == "text" || row.kind == "log" || row.kind == "call"; }

// C escapes without the quotes.
std::string escaped(const std::string &text) {
    const std::string quoted = steps::quoted(text);
    return quoted.substr(1, quoted.size() - 2);
}

} // namespace

const std::vector<Row> &rows() {
    static const std::vector<Row> all = load();
    return all;
}

bool matches(const std::string &form, const std::string &text) { return matchHere(form.c_str(), text.c_str()); }

const Row *rowOfLine(const std::string &traceLine) {
    for (const Row &row : rows()) {
        if (isTraceRow(row) && matches(row.pattern, traceLine)) {
            return &row;
        }
    }
    return nullptr;
}

Record &record() {
    static Record one;
    return one;
}

void Record::line(const std::string &traceLine) {
    const Row *pRow = rowOfLine(traceLine);
    if (pRow == nullptr) {
        strangers.push_back(traceLine);
    } else {
        seen.insert(pRow);
    }
}

void Record::number(const std::string &kind, uint32_t value) {
    bool isKnown = false;
    for (const Row &row : rows()) {
        if (row.kind == kind && row.number == value && row.unreachable.empty()) {
            seen.insert(&row);
            isKnown = true;
        }
    }
    if (!isKnown) {
        strangers.push_back(kind + " " + std::to_string(value));
    }
}

void Record::shell(const std::string &name) {
    for (const Row &row : rows()) {
        if (row.kind == "shell" && row.pattern == name) {
            seen.insert(&row);
            return;
        }
    }
    strangers.push_back("shell " + name);
}

void Record::printed(const std::string &stream, const std::string &text) {
    // Texts may stand behind each other: the longest beginning that is a row is taken off.
    for (std::string rest = escaped(text); !rest.empty();) {
        size_t taken = 0;
        for (const Row &row : rows()) {
            const bool isCandidate = row.kind == "printed" && row.stream == stream;
            for (size_t length = rest.size(); isCandidate && length > taken; --length) {
                if (matches(row.pattern, rest.substr(0, length))) {
                    seen.insert(&row);
                    taken = length;
                }
            }
        }
        if (taken == 0) {
            strangers.push_back(stream + " " + rest);
            return;
        }
        rest = rest.substr(taken);
    }
}

} // namespace published
