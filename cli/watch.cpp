// Each line is written out at once: somebody may be reading it through a pipe.
#include "cli/watch.h"

#include "cli/errors.h"
#include "cli/table.h"

namespace cli {

void watch(Daemon &daemon, bool asJson, std::ostream &out) {
    (void)daemon.mgmt("watch");
    while (out) {
        const nlohmann::json event = daemon.mgmtLine();
        if (asJson) {
            out << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
        } else {
            out << event.value("time", "") << " " << cellText(event.value("text", nlohmann::json())) << "\n";
        }
        out.flush();
    }
}

} // namespace cli
