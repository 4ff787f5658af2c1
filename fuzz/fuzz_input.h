// What the fuzzers share: the bytes that they are given, taken from the front, and how a finding ends one.
//
// Input is taken forward and in plain numbers, so that a seed can be written down (fuzz/seeds.py). Where it
// has ended, zeros and empty strings come.
#ifndef FUZZ_FUZZ_INPUT_H
#define FUZZ_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzz {

class Input {
public:
    Input(const uint8_t *pData, size_t size) : pAt(pData), left(size) {}

    bool ended() const { return left == 0; }

    uint8_t u8() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *pAt++;
    }
    uint16_t u16() { // low byte first
        const uint8_t low = u8();
        return static_cast<uint16_t>(low | u8() << 8);
    }
    uint32_t u32() {
        const uint32_t low = u16();
        return low | static_cast<uint32_t>(u16()) << 16;
    }
    uint32_t below(uint32_t n) { return u8() % n; } // n: 1..256

    // At most `count` bytes, in memory of their own size, so that a read behind them shows.
    std::vector<uint8_t> bytes(size_t count) {
        count = std::min(count, left);
        std::vector<uint8_t> out(pAt, pAt + count);
        pAt += count;
        left -= count;
        return out;
    }
    std::vector<uint8_t> rest() { return bytes(left); }
    std::string text(size_t count) {
        const std::vector<uint8_t> taken = bytes(count);
        return {taken.begin(), taken.end()};
    }
    std::string line() { // up to a line feed, which is taken too
        const uint8_t *pEnd = std::find(pAt, pAt + left, static_cast<uint8_t>('\n'));
        const std::string out = text(static_cast<size_t>(pEnd - pAt));
        (void)u8();
        return out;
    }

private:
    const uint8_t *pAt;
    size_t left;
};

// A finding: the fuzzer keeps the input and ends.
[[noreturn]] inline void finding(const std::string &what) {
    fprintf(stderr, "finding: %s\n", what.c_str());
    abort();
}

inline void require(bool holds, const std::string &what) {
    if (!holds) {
        finding(what);
    }
}

// A new folder; the runner of the fuzzers (scripts/fuzz.py) takes it away, also after a finding.
inline std::string folderMake() {
    const char *pParent = getenv("TMPDIR");
    std::string path = std::string(pParent != nullptr ? pParent : "/tmp") + "/pbrfuzzXXXXXX";
    require(mkdtemp(path.data()) != nullptr, "no folder");
    return path;
}

} // namespace fuzz

#endif
