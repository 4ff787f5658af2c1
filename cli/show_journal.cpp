// See show_journal.h.
#include "cli/show_journal.h"

#include "cli/table.h"

namespace cli {

using nlohmann::json;

void showJournal(Daemon &daemon, bool asJson, std::ostream &out) {
    json journal = daemon.mgmt("journal.show");
    journal.erase("ok");
    if (asJson) {
        out << journal.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
        return;
    }
    json rows = json::array();
    for (const char *pName : {"state", "path", "error", "rows", "log"}) {
        if (journal.contains(pName) && journal[pName] != "") {
            rows.push_back({{"name", pName}, {"value", journal[pName]}});
        }
    }
    out << tableText({{"JOURNAL", "name"}, {"", "value"}}, rows);
    for (const json &finding : journal.value("findings", json::array())) {
        out << "at the start: " << cellText(finding) << "\n";
    }
    const json missing = journal.value("notRestored", json::array());
    if (!missing.empty()) {
        out << "\n" << tableText({{"NOT BROUGHT BACK", "what"}, {"BECAUSE", "why"}}, missing);
    }
}

} // namespace cli
