// See mgmt_request.h.
#include "host/mgmt/mgmt_request.h"

#include <set>
#include <stdexcept>
#include <vector>

namespace host {

namespace {

using nlohmann::json;

struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Watches the parser: the library itself would keep the last of two members of one name.
class Watch {
public:
    bool operator()(int depth, json::parse_event_t event, const json &parsed) {
        if (depth > MGMT_DEPTH_MAX) {
            throw Refused("nested deeper than " + std::to_string(MGMT_DEPTH_MAX));
        }
        if (event == json::parse_event_t::object_start) {
            keys.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            keys.pop_back();
        } else if (event == json::parse_event_t::key &&
                   !keys.back().insert(parsed.get_ref<const std::string &>()).second) {
            throw Refused("member \"" + parsed.get<std::string>().substr(0, 64) + "\" is there twice");
        }
        return true;
    }

private:
    std::vector<std::set<std::string>> keys; // of the objects that are open
};

} // namespace

std::optional<json> mgmtRequestParse(std::string_view line, std::string *pError) {
    try {
        Watch watch;
        json request = json::parse(line.begin(), line.end(), std::ref(watch));
        if (request.is_object()) {
            return request;
        }
        *pError = "a request is one JSON object a line, such as {\"op\": \"version\"}";
    } catch (const Refused &refused) {
        *pError = refused.what();
    } catch (const json::exception &) {
        *pError = "the line is not valid JSON; a request is one JSON object a line, such as "
                  "{\"op\": \"version\"}";
    }
    return std::nullopt;
}

nlohmann::json mgmtFailure(const std::string &text) {
    return {{"ok", false}, {"error", text}};
}

} // namespace host
