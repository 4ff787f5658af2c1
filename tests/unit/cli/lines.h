// Lines as one text.
#ifndef TESTS_UNIT_CLI_LINES_H
#define TESTS_UNIT_CLI_LINES_H

#include <string>
#include <vector>

inline std::string all(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

#endif
