// See otherwise_ops.h. Called by the management socket; tells the device which lists are concerned.
#include "host/mgmt/otherwise_ops.h"

#include <stdexcept>

#include "host/device/desired/otherwise.h"
#include "host/device/device.h"
#include "host/journal/journal.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"

namespace host {

namespace {

using nlohmann::json;

constexpr const char *JOURNAL_SERVICE = "otherwise";
constexpr const char *JOURNAL_KEY = "drop"; // one text: all nodes
constexpr size_t LIST_NAME_BYTES = 16;
constexpr uint32_t NODE_MOST = UINT32_MAX;

OtherwisePlace placeOf(const json &request) {
    const std::string list = mgmtArgText(request, "list");
    if (list.empty() || list.size() > LIST_NAME_BYTES) {
        throw std::runtime_error("member \"list\" must be a name of 1 to 16 bytes");
    }
    return {list, mgmtArgNumber(request, "node", 1, NODE_MOST)};
}

json rowsOf(const std::set<OtherwisePlace> &places) {
    json rows = json::array();
    for (const auto &[list, node] : places) {
        rows.push_back({{"list", list}, {"node", node}});
    }
    return rows;
}

std::set<OtherwisePlace> placesOf(const json &rows) {
    std::set<OtherwisePlace> places;
    for (const json &row : rows) {
        if (!row.is_object()) {
            throw std::runtime_error("member \"drop\" must be a list of {\"list\", \"node\"}");
        }
        mgmtArgsOnly(row, {"list", "node"});
        places.insert(placeOf(row));
    }
    return places;
}

// Not made when it could not be kept.
void put(const std::set<OtherwisePlace> &places) {
    journalMustBeReady();
    const std::set<std::string> lists = otherwiseReplaceAll(places);
    if (!lists.empty()) {
        hostDevice().listsChanged(lists);
    }
    journalKeepAll(JOURNAL_SERVICE, {{JOURNAL_KEY, rowsOf(places).dump()}});
}

json opShow(const json &request) {
    mgmtArgsOnly(request, {});
    return {{"drop", rowsOf(otherwiseAll())}};
}

json opSet(const json &request) {
    mgmtArgsOnly(request, {"list", "node", "otherwise"});
    const OtherwisePlace place = placeOf(request);
    const std::string what = mgmtArgText(request, "otherwise");
    if (what != "drop" && what != "normal") {
        throw std::runtime_error("member \"otherwise\" must be \"drop\" or \"normal\"");
    }
    std::set<OtherwisePlace> places = otherwiseAll();
    if (what == "drop") {
        places.insert(place);
    } else {
        places.erase(place);
    }
    put(places);
    return json::object();
}

json opReplaceAll(const json &request) {
    mgmtArgsOnly(request, {"drop"});
    const auto rows = request.find("drop");
    if (rows == request.end() || !rows->is_array()) {
        throw std::runtime_error("member \"drop\" must be a list of {\"list\", \"node\"}");
    }
    put(placesOf(*rows));
    return json::object();
}

} // namespace

void otherwiseRestore() {
    for (const auto &[key, text] : journalTexts(JOURNAL_SERVICE)) {
        try {
            (void)otherwiseReplaceAll(placesOf(json::parse(text))); // no list is bound yet
        } catch (const std::exception &refusal) {
            journalNotRestored("the nodes that drop with nothing usable", refusal.what());
        }
    }
}

void otherwiseOpsRegister() {
    mgmtRegister("otherwise.show", false, opShow);
    mgmtRegister("otherwise.set", true, opSet);
    mgmtRegister("otherwise.replaceAll", true, opReplaceAll);
}

} // namespace host
