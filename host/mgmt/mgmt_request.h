// One line of the management socket as a request, and what a refused one is answered.
#ifndef HOST_MGMT_MGMT_REQUEST_H
#define HOST_MGMT_MGMT_REQUEST_H

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace host {

constexpr int MGMT_DEPTH_MAX = 16; // objects within objects; the operations need four

// Reads a JSON object: UTF-8, nothing behind it, no member twice in one object, at most MGMT_DEPTH_MAX
// deep. Result: the object, or none with *pError. Lock: none
std::optional<nlohmann::json> mgmtRequestParse(std::string_view line, std::string *pError);

// {"ok": false, "error": text}. Lock: none
nlohmann::json mgmtFailure(const std::string &text);

} // namespace host

#endif
