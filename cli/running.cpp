// Reads the tables of the command socket and the ACLs of the management socket into one Policy.
#include "cli/running.h"

#include <algorithm>

#include "core/pbr_types.h"

namespace cli {

namespace {

// An address that was never set reads as zeros.
std::vector<uint8_t> addressOf(const client::Bytes &bytes) {
    const bool isSet = std::any_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte != 0; });
    return isSet ? bytes : client::Bytes();
}

Node nodeOf(const client::NodeRow &row, const Interfaces &interfaces) {
    Node node;
    node.index = row.index;
    node.acl = row.aclNum;
    node.ipVersion = row.ipVersion == PBR_IP_VERSION_4 ? 4 : row.ipVersion == PBR_IP_VERSION_6 ? 6 : 0;
    node.priority = row.ipPri == PRIORITY_NONE ? 0 : row.ipPri;
    node.outIfUnit = row.outIfUnit;
    node.outIfName = row.outIfUnit == 0 ? "" : interfaces.nameOf(row.outIfUnit);
    node.ecmp = static_cast<uint8_t>(row.isEcmp);
    node.vrf = row.vrfId;
    node.timeRange = row.timeRangeId == PBR_TIME_RANGE_NONE ? std::nullopt : std::optional(row.timeRangeId);
    node.matchValue1 = row.matchValue1;
    node.matchValue2 = row.matchValue2;
    node.field7 = row.field7;
    node.forwardFlag = row.forwardFlag;
    node.active = row.status == PBR_ROW_ACTIVE;
    return node;
}

void aclsRead(Daemon &daemon, Running &running) {
    const auto answer = daemon.mgmtIfThere("acl.show");
    running.aclsKnown = answer.has_value();
    if (!answer) {
        return;
    }
    for (const auto &acl : (*answer)["acls"]) {
        const uint32_t number = acl.at("acl").get<uint32_t>();
        AclRules &rules = running.policy.acls[number];
        for (const auto &rule : acl.at("rules")) {
            rules[rule.at("rule").get<uint32_t>()] = aclRuleText(number, rule.at("text").get<std::string>());
        }
    }
}

void otherwiseRead(Daemon &daemon, Running &running) {
    const auto answer = daemon.mgmtIfThere("otherwise.show");
    for (const auto &row : answer ? answer->value("drop", nlohmann::json::array()) : nlohmann::json::array()) {
        running.policy.otherwiseDrop.insert({row.at("list").get<std::string>(), row.at("node").get<uint32_t>()});
    }
}

void listsRead(Daemon &daemon, Running &running) {
    std::vector<client::ListRow> lists;
    must(client::listsRead(daemon.command(), lists), "read the lists");
    for (const client::ListRow &row : lists) {
        running.policy.lists[row.name] = {row.name, row.status == PBR_ROW_ACTIVE, {}};
        running.refCnts[row.name] = row.refCnt;
    }
    std::vector<client::NodeRow> nodes;
    must(client::nodesRead(daemon.command(), nodes), "read the nodes");
    for (const client::NodeRow &row : nodes) {
        running.policy.lists[row.list].nodes[row.index] = nodeOf(row, running.interfaces);
    }
    std::vector<client::NextHopRow> nextHops;
    must(client::nextHopsRead(daemon.command(), nodes, nextHops), "read the next hops");
    for (const client::NextHopRow &row : nextHops) {
        running.policy.lists[row.list].nodes[row.nodeIndex].nextHops.push_back(
            {row.index, addressOf(row.address), row.nqaAdmin, row.nqaTest, row.status == PBR_ROW_ACTIVE});
    }
}

void bindingsRead(Daemon &daemon, Running &running) {
    std::vector<client::InterfaceRow> rows;
    must(client::interfacesRead(daemon.command(), rows), "read the bindings");
    for (const client::InterfaceRow &row : rows) {
        if (!row.list.empty()) {
            running.policy.bindings.push_back({running.interfaces.nameOf(row.unit), row.unit, row.list});
        } else {
            running.limits.idleInterfaces.insert(row.unit);
        }
    }
}

} // namespace

bool probesRead(Daemon &daemon, std::map<std::string, Probe> &probes) {
    const auto answer = daemon.mgmtIfThere("probes");
    if (!answer || !answer->contains("probes")) {
        return false;
    }
    for (const auto &row : (*answer)["probes"]) {
        const auto config = row.find("config");
        if (config != row.end() && config->is_object()) { // else only asked for, not configured
            probes[row.at("admin").get<std::string>() + "/" + row.at("test").get<std::string>()] =
                probeOfJson(*config);
        }
    }
    return true;
}

bool timeRangesRead(Daemon &daemon, std::map<uint32_t, Schedule> &ranges) {
    const auto answer = daemon.mgmtIfThere("timeranges");
    if (!answer || !answer->contains("timeRanges")) {
        return false;
    }
    for (const auto &row : (*answer)["timeRanges"]) {
        const auto schedule = row.find("schedule");
        if (schedule != row.end() && schedule->is_object()) { // else only bound, or switched by hand
            ranges[row.at("id").get<uint32_t>()] = scheduleOfJson(*schedule);
        }
    }
    return true;
}

Running runningRead(Daemon &daemon) {
    Running running;
    (void)daemon.command(); // tells at once when no daemon runs
    running.interfaces = interfacesOf(daemon);
    aclsRead(daemon, running);
    (void)probesRead(daemon, running.policy.probes);
    (void)timeRangesRead(daemon, running.policy.timeRanges);
    otherwiseRead(daemon, running);
    listsRead(daemon, running);
    bindingsRead(daemon, running);
    client::ScalarRow scalars;
    must(client::scalarsRead(daemon.command(), scalars), "read the limits");
    running.limits.maxLists = scalars.maxListNum;
    running.limits.maxNodes = scalars.maxNodeNum;
    running.limits.maxInterfaces = running.interfaces.mostBound.value_or(UINT32_MAX);
    return running;
}

std::vector<std::string> boundTo(const Policy &policy, const std::string &list) {
    std::vector<std::string> names;
    for (const Binding &binding : policy.bindings) {
        if (binding.list == list) {
            names.push_back(binding.interface);
        }
    }
    return names;
}

} // namespace cli
