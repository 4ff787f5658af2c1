// See mgmt_args.h.
#include "host/mgmt/mgmt_args.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace host {

namespace {

using nlohmann::json;

std::string range(uint32_t least, uint32_t most) {
    return "a whole number " + std::to_string(least) + " to " + std::to_string(most);
}

std::string member(const char *name) {
    return "member \"" + std::string(name) + "\"";
}

const json &required(const json &request, const char *name, const std::string &what) {
    const auto found = request.find(name);
    if (found == request.end()) {
        throw std::runtime_error(member(name) + " is missing: it must be " + what);
    }
    return *found;
}

} // namespace

void mgmtArgsOnly(const json &request, std::initializer_list<const char *> names) {
    for (const auto &[key, value] : request.items()) {
        const auto isKey = [&key = key](const char *name) { return key == name; };
        if (key == "op" || std::any_of(names.begin(), names.end(), isKey)) {
            continue;
        }
        std::string text = "unknown member \"" + key.substr(0, 64) + "\"; this operation takes";
        for (const char *name : names) {
            text += std::string(name == *names.begin() ? " " : ", ") + name;
        }
        throw std::runtime_error(names.size() == 0 ? text + " none" : text);
    }
}

uint32_t mgmtArgNumber(const json &request, const char *name, uint32_t least, uint32_t most) {
    const json &value = required(request, name, range(least, most));
    if (!value.is_number_unsigned() || value.get<uint64_t>() < least || value.get<uint64_t>() > most) {
        throw std::runtime_error(member(name) + " must be " + range(least, most));
    }
    return value.get<uint32_t>();
}

uint32_t mgmtArgNumber(const json &request, const char *name, uint32_t least, uint32_t most,
                       uint32_t absent) {
    return request.contains(name) ? mgmtArgNumber(request, name, least, most) : absent;
}

std::string mgmtArgText(const json &request, const char *name) {
    const json &value = required(request, name, "a text");
    if (!value.is_string()) {
        throw std::runtime_error(member(name) + " must be a text");
    }
    return value.get<std::string>();
}

bool mgmtArgFlag(const json &request, const char *name, bool absent) {
    const auto found = request.find(name);
    if (found == request.end()) {
        return absent;
    }
    if (!found->is_boolean()) {
        throw std::runtime_error(member(name) + " must be true or false");
    }
    return found->get<bool>();
}

const json &mgmtArgObject(const json &request, const char *name) {
    const json &value = required(request, name, "an object");
    if (!value.is_object()) {
        throw std::runtime_error(member(name) + " must be an object");
    }
    return value;
}

uint32_t mgmtKeyNumber(const std::string &key, const char *what, uint32_t least, uint32_t most) {
    uint32_t value = 0;
    const char *pEnd = key.data() + key.size();
    const auto result = std::from_chars(key.data(), pEnd, value);
    // One spelling a number: "010" beside "10" would hide one of the two.
    const bool isPlain = result.ec == std::errc() && result.ptr == pEnd && std::to_string(value) == key;
    if (!isPlain || value < least || value > most) {
        throw std::runtime_error(std::string(what) + " \"" + key.substr(0, 64) + "\" must be " +
                                 range(least, most));
    }
    return value;
}

} // namespace host
