// Option files and --option texts: nothing is taken over when there is an error; what is accepted, written
// down and read again gives the same values.
//
//   the file; from a line "-- " on, each line is an --option
#include <cstddef>
#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "fuzz/fuzz_input.h"
#include "host/option/option.h"

namespace {

using Values = std::vector<std::pair<std::string, std::string>>;

const std::string MARK = "\n-- \n";

// A file without a name on any disk.
struct File {
    int fd = memfd_create("options", MFD_CLOEXEC);
    std::string path = "/proc/self/fd/" + std::to_string(fd);

    void write(const std::string &text) const {
        fuzz::require(ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
                      "the file cannot be written");
    }
};

Values valuesNow() {
    Values all;
    for (const char *pFamily : {"host", "policyroute"}) {
        for (const auto &[key, value] : host::optionFamily(pFamily)) {
            all.emplace_back(std::string(pFamily) + "." + key, value);
        }
    }
    return all;
}

// A # that would begin a comment, and a line's end: --option takes them, no file can hold them.
bool isForFiles(const std::string &value) {
    bool isBehindBlank = true;
    for (const char each : value) {
        if (each == '\n' || (each == '#' && isBehindBlank)) {
            return false;
        }
        isBehindBlank = strchr(" \t\r", each) != nullptr;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    static const File file;
    const std::string text(reinterpret_cast<const char *>(pData), size);
    const size_t mark = text.find(MARK);
    std::vector<std::string> overrides;
    if (mark != std::string::npos) {
        const size_t from = mark + MARK.size();
        fuzz::Input lines(pData + from, size - from);
        while (!lines.ended()) {
            overrides.push_back(lines.line());
        }
    }
    fuzz::require(host::optionLoad({"host.rule-preference=4711"}, "/dev/null").empty(), "a good option is refused");
    file.write(text.substr(0, mark));
    const std::string error = host::optionLoad(overrides, file.path);
    if (!error.empty()) {
        fuzz::require(error.starts_with(file.path + ":") || error.starts_with("--option "), "no place: " + error);
        fuzz::require(valuesNow() == Values{{"host.rule-preference", "4711"}}, "something was taken over");
        return 0;
    }
    const Values values = valuesNow();
    std::string again;
    for (const auto &[key, value] : values) {
        fuzz::require(host::optionGet(key) == value, "a value that is not there: " + key);
        (void)host::optionNumber(key);
        again += isForFiles(value) ? key + " = " + value + "\n" : "";
        fuzz::require(isForFiles(value) || !overrides.empty(), "a value that no file can hold: " + value);
    }
    file.write(again);
    fuzz::require(host::optionLoad({}, file.path).empty(), "what was taken is refused");
    for (const auto &[key, value] : valuesNow()) {
        fuzz::require(std::find(values.begin(), values.end(), std::pair(key, value)) != values.end(), "it differs: " + key);
    }
    return 0;
}
