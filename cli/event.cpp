// See event.h.
#include "cli/event.h"

#include "cli/errors.h"

namespace cli {

namespace {

using nlohmann::json;

// A unit that is given as unit:N need not exist: the event may be about one that is gone.
uint32_t unitOf(Daemon &daemon, const std::string &interface) {
    const Interfaces interfaces = interfacesOf(daemon);
    const auto unit = interfaces.unitOf(interface);
    if (!unit) {
        throw Refused("interface " + interface +
                      (interfaces.known ? " does not exist in the daemon's network namespace."
                                        : ": the daemon does not tell its interfaces.") +
                      " What to do: check the name, or give unit:N.");
    }
    return *unit;
}

void publish(Daemon &daemon, const json &request, bool asJson, std::ostream &out) {
    json answer = daemon.mgmt("event", request);
    answer.erase("ok");
    if (asJson) {
        out << answer.dump(2) << "\n";
        return;
    }
    out << "published: type " << answer.value("type", 0) << " to group " << answer.value("group", 0) << ", "
        << answer.value("message", "").size() / 2 << " bytes\n";
}

} // namespace

void eventLink(Daemon &daemon, const EventOptions &options, bool asJson, std::ostream &out) {
    json request = {{"event", "link-new"}, {"unit", unitOf(daemon, options.interface)}};
    if (!options.joined.empty()) {
        request["event"] = "link-joined";
        request["aggregation"] = unitOf(daemon, options.joined);
    } else if (!options.added.empty() || !options.removed.empty()) {
        request["event"] = options.removed.empty() ? "port-added" : "port-removed";
        request["port"] = unitOf(daemon, options.removed.empty() ? options.added : options.removed);
    }
    publish(daemon, request, asJson, out);
}

void eventGone(Daemon &daemon, const EventOptions &options, bool asJson, std::ostream &out) {
    publish(daemon, {{"event", "link-gone"}, {"unit", unitOf(daemon, options.interface)}}, asJson, out);
}

void eventPortReset(Daemon &daemon, const EventOptions &options, bool asJson, std::ostream &out) {
    publish(daemon, {{"event", "port-reset"}, {"unit", unitOf(daemon, options.interface)}}, asJson, out);
}

void eventCardUp(Daemon &daemon, const EventOptions &options, bool asJson, std::ostream &out) {
    publish(daemon, {{"event", "card-up"}, {"slot", options.slot}, {"card", options.card}, {"type", options.type}},
            asJson, out);
}

void eventSlotUp(Daemon &daemon, const EventOptions &options, bool asJson, std::ostream &out) {
    publish(daemon, {{"event", "slot-up"}, {"slot", options.slot}, {"type", options.type}}, asJson, out);
}

void eventProbe(Daemon &daemon, const EventOptions &options, bool asJson, std::ostream &out) {
    const size_t slash = options.probe.find('/');
    if (slash == std::string::npos) {
        throw Usage("probe '" + options.probe + "' is not of the form ADMINISTRATOR/TEST");
    }
    publish(daemon, {{"event", "probe"}, {"admin", options.probe.substr(0, slash)},
                     {"test", options.probe.substr(slash + 1)}, {"status", options.status}},
            asJson, out);
}

} // namespace cli
