// Golden texts: what a report printed, byte for byte, in tests/golden.
//
// In a file "\r", "\n" and "\t" are spelled out and a line ends behind every "\n" of the text, so that no
// tool that carries the file changes the text unseen.
#ifndef TESTS_SUPPORT_GOLDEN_H
#define TESTS_SUPPORT_GOLDEN_H

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace golden {

// A printed text as a golden file spells it.
inline std::string spelled(const std::string &text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n\n"; break;
        default: out += c;
        }
    }
    return out;
}

// The content of a golden file. They are found beside the sources, also under emulation.
inline std::string file(const std::string &name) {
    const std::string here = __FILE__;
    const std::string path = here.substr(0, here.rfind("support/")) + "golden/" + name;
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace golden

#endif
