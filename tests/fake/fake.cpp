// The trace, the answers and the fault sweep of the fake platform.
#include "tests/fake/fake.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "tests/fake/fake_state.h"

namespace fake {

State &state() {
    static State one;
    return one;
}

void reset() {
    for (auto &[pObject, pool] : state().pools) {
        free(pool.pMemory);
    }
    state() = State();
}

namespace {

bool isText(const std::string &line) {
    return line.rfind("debug 0x", 0) == 0 || line.rfind("log 0x", 0) == 0;
}

std::vector<std::string> takeIf(bool texts, bool calls) {
    std::vector<std::string> taken;
    for (const std::string &line : state().trace) {
        if (isText(line) ? texts : calls) {
            taken.push_back(line);
        }
    }
    state().trace.clear();
    return taken;
}

bool faultNow(const char *name) {
    State &s = state();
    if (s.faultIn == 0 || --s.faultIn != 0) {
        return false;
    }
    s.faultCall = name;
    return true;
}

// The scripted answer of this call, if any.
bool scripted(const char *name, const std::string &line, int64_t &value) {
    State &s = state();
    bool found = false;
    if (auto plain = s.answers.find(name); plain != s.answers.end()) {
        value = plain->second;
        found = true;
    }
    if (auto nth = s.nthAnswers.find(name); nth != s.nthAnswers.end()) {
        std::map<uint32_t, int64_t> rest;
        for (const auto &[left, answerValue] : nth->second) {
            if (left == 1) {
                value = answerValue;
                found = true;
            } else {
                rest[left - 1] = answerValue;
            }
        }
        nth->second = rest;
    }
    if (auto function = s.functions.find(name); function != s.functions.end()) {
        value = function->second(line);
        found = true;
    }
    return found;
}

} // namespace

std::vector<std::string> takeTrace() {
    return takeIf(true, true);
}
std::vector<std::string> takeCalls() {
    return takeIf(false, true);
}
std::vector<std::string> takeTexts() {
    return takeIf(true, false);
}

void answer(const std::string &callName, int64_t value) {
    state().answers[callName] = value;
}
void answerNth(const std::string &callName, uint32_t nth, int64_t value) {
    state().nthAnswers[callName][nth] = value;
}
void answerWith(const std::string &callName, std::function<int64_t(const std::string &line)> f) {
    state().functions[callName] = std::move(f);
}
void failNth(uint32_t nth) {
    state().faultIn = nth;
    state().faultCall.clear();
}
bool faultHit() {
    return !state().faultCall.empty();
}
std::string faultCall() {
    return state().faultCall;
}

namespace {

std::function<void(const std::string &)> &watcherOf() {
    static std::function<void(const std::string &)> one;
    return one;
}

} // namespace

void watch(std::function<void(const std::string &line)> watcher) {
    watcherOf() = std::move(watcher);
}

void record(const std::string &line) {
    state().trace.push_back(line);
    if (watcherOf()) {
        watcherOf()(line);
    }
}

int64_t quiet(const char *name, const std::string &line, int64_t normal) {
    int64_t value = normal;
    scripted(name, line, value);
    return value;
}

int64_t quietFallible(const char *name, const std::string &line, int64_t normal, int64_t failure) {
    int64_t value = quiet(name, line, normal);
    return faultNow(name) ? failure : value;
}

int64_t call(const char *name, const std::string &line, int64_t normal) {
    record(line);
    return quiet(name, line, normal);
}

int64_t fallible(const char *name, const std::string &line, int64_t normal, int64_t failure) {
    record(line);
    return quietFallible(name, line, normal, failure);
}

void misuse(const std::string &what) {
    ADD_FAILURE() << "the platform is misused: " << what;
}

std::string text(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char buffer[4096];
    vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

std::string quoted(const std::string &bytes) {
    std::string out = "\"";
    for (char c : bytes) {
        switch (c) {
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E) {
                out += text("\\x%02x", static_cast<unsigned char>(c));
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string hex(const void *pBytes, size_t count) {
    std::string out;
    for (size_t i = 0; i < count; ++i) {
        out += text("%02x", static_cast<const uint8_t *>(pBytes)[i]);
    }
    return out;
}

std::string key(const void *pKey, size_t keyLen) {
    const uint8_t *p = static_cast<const uint8_t *>(pKey);
    if (p == nullptr) {
        return "none";
    }
    if (keyLen == 4) {
        uint32_t unit;
        memcpy(&unit, p, 4);
        return text("if(%u)", unit);
    }
    if (keyLen != 18 && keyLen != 28) {
        return hex(pKey, keyLen);
    }
    uint16_t nameLen;
    memcpy(&nameLen, p + 16, 2);
    const std::string name = quoted(std::string(reinterpret_cast<const char *>(p), nameLen > 16 ? 16 : nameLen));
    if (keyLen == 18) {
        return "list(" + name + ")";
    }
    uint32_t index;
    memcpy(&index, p + 20, 4);
    return "node(" + name + text(",%u,mask=%u,hop=%u)", index, p[24], p[25]);
}

} // namespace fake
