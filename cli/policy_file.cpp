// The policy file's reader: one function a section, each of which notes problems and goes on, so that
// an operator sees all of them at once.
#include "cli/policy_file.h"

#include <algorithm>
#include <optional>
#include <sstream>

#include <yaml-cpp/eventhandler.h>

#include "cli/numbers.h"
#include "cli/policy_file_reader.h"

namespace cli {

namespace {

// ---- acls ----

std::optional<uint32_t> aclNumberOf(Reader &reader, const YAML::Node &node) {
    const auto number = numberOf(reader, node, "an ACL number", 1, UINT32_MAX);
    if (number && !aclVersionOf(*number)) {
        reader.problem(node, "ACL " + std::to_string(*number) + " can never be used by a node: use 1001..2000 for "
                             "IPv4, 3001..4000 for IPv6, or 5001 and up");
        return std::nullopt;
    }
    return number;
}

void aclsRead(Reader &reader, const YAML::Node &section) {
    mapRead(reader, section, "acls", [&](const std::string &, const YAML::Node &key, const YAML::Node &value) {
        const auto aclNum = aclNumberOf(reader, key);
        if (!aclNum) {
            return;
        }
        AclRules &rules = reader.file.policy.acls[*aclNum];
        const std::string what = "acl " + std::to_string(*aclNum);
        reader.place(what, key);
        mapRead(reader, value, what, [&](const std::string &, const YAML::Node &ruleKey, const YAML::Node &rule) {
            const auto number = numberOf(reader, ruleKey, what + ": a rule number", 1, UINT32_MAX);
            const auto text = textRead(reader, rule, what + ": a rule");
            if (!number || !text) {
                return;
            }
            reader.place(what + " rule " + std::to_string(*number), ruleKey);
            std::string error;
            const auto parsed = aclRuleRead(*aclNum, *text, error);
            if (!parsed) {
                return reader.problem(rule, what + " rule " + std::to_string(*number) + ": " + error);
            }
            rules[*number] = {*text, parsed};
        });
        if (rules.empty() && reader.problems.empty()) {
            reader.warning(key, what + " has no rules and matches nothing");
        }
    });
}

// ---- lists ----

struct NodeReader {
    Reader &reader;
    std::string place; // "node wan/10"
    Node node;
    std::optional<int> hopVersion;  // IP version of its next hops
    bool complete = true;           // every key could be read
    bool drops = false;             // otherwise: drop

    std::optional<uint32_t> number(const YAML::Node &value, const char *pWhat, uint32_t least, uint32_t most) {
        const auto read = numberOf(reader, value, place + ": " + pWhat, least, most);
        complete = complete && read;
        return read;
    }
    void problem(const YAML::Node &at, const std::string &reason) {
        complete = false;
        reader.problem(at, place + ": " + reason);
    }
};

void probeOfHopRead(NodeReader &of, const YAML::Node &value, NextHop &nextHop) {
    const auto name = textRead(of.reader, value, of.place + ": probe");
    if (!name) {
        return;
    }
    if (!probeNameRead(*name, nextHop)) {
        return of.problem(value, "'" + *name + "' " + PROBE_NAME_FORM);
    }
    if (of.reader.probes.count(*name) == 0) {
        of.problem(value, "probe " + *name + " is not defined under probes");
    }
}

void hopAddressRead(NodeReader &of, const YAML::Node &value, NextHop &nextHop) {
    const auto text = textRead(of.reader, value, of.place + ": the address of a next hop");
    if (!text) {
        of.complete = false;
        return;
    }
    const auto address = addressRead(*text);
    if (!address || !isHostAddress(*address)) {
        return of.problem(value, "'" + *text + "' is no address of a next hop: one IPv4 or IPv6 address of a host");
    }
    const int version = address->size() == 4 ? 4 : 6;
    if (of.hopVersion.value_or(version) != version) {
        return of.problem(value, "next hop " + *text + " is of another IP version than the node's first next hop");
    }
    for (const NextHop &other : of.node.nextHops) {
        if (other.address == *address) {
            return of.problem(value, "next hop " + *text + " stands in this node for the second time");
        }
    }
    of.hopVersion = version;
    nextHop.address = *address;
}

void hopRead(NodeReader &of, const YAML::Node &value) {
    NextHop nextHop;
    if (value.IsScalar()) {
        hopAddressRead(of, value, nextHop);
    } else {
        bool hasAddress = false;
        mapRead(of.reader, value, of.place + ": a next hop",
                [&](const std::string &name, const YAML::Node &key, const YAML::Node &each) {
                    if (name == "address") {
                        hasAddress = true;
                        hopAddressRead(of, each, nextHop);
                    } else if (name == "probe") {
                        probeOfHopRead(of, each, nextHop);
                    } else {
                        of.problem(key, "unknown key '" + name + "' of a next hop; known are address, probe");
                    }
                });
        if ((value.IsMap() || value.IsNull()) && !hasAddress) {
            of.problem(value, "a next hop has no address");
        }
    }
    of.complete = of.complete && !nextHop.address.empty();
    if (of.node.nextHops.size() == MAX_NEXT_HOPS) {
        return of.problem(value, "a node has at most four next hops");
    }
    nextHop.index = static_cast<uint8_t>(of.node.nextHops.size() + 1);
    of.node.nextHops.push_back(nextHop);
}

void hopsRead(NodeReader &of, const YAML::Node &value) {
    if (!value.IsSequence() || value.size() == 0) {
        return of.problem(value, "next-hops must be a list of addresses, such as [192.0.2.1, 192.0.2.5]");
    }
    for (const YAML::Node &each : value) {
        hopRead(of, each);
    }
}

void nodeAclRead(NodeReader &of, const YAML::Node &value) {
    const auto acl = aclNumberOf(of.reader, value);
    of.complete = of.complete && acl;
    if (!acl) {
        return;
    }
    of.node.acl = *acl;
    if (of.reader.file.policy.acls.count(*acl) == 0) {
        of.problem(value, "acl " + std::to_string(*acl) + " is not defined under acls");
    }
    const auto [user, isNew] = of.reader.aclUsers.insert({*acl, of.place});
    if (!isNew) {
        of.problem(value, "acl " + std::to_string(*acl) + " is already used by " + user->second +
                              "; an ACL serves one node: define a second ACL with the same rules");
    }
}

void ecmpRead(NodeReader &of, const YAML::Node &value) {
    bool ecmp = false;
    if (!value.IsScalar() || !YAML::convert<bool>::decode(value, ecmp)) {
        return of.problem(value, "ecmp must be true or false");
    }
    of.node.ecmp = ecmp ? 1 : 0;
}

void nodeInterfaceRead(NodeReader &of, const YAML::Node &value) {
    const auto name = textRead(of.reader, value, of.place + ": interface");
    if (!name || name->empty() || name->size() > MAX_INTERFACE_NAME || !isPlainName(*name)) {
        return of.problem(value, "interface must be the name of an interface");
    }
    of.node.outIfName = *name;
    of.reader.file.interfaceLines.insert({*name, value.Mark().line + 1});
}

void nodePriorityRead(NodeReader &of, const YAML::Node &value) {
    const auto priority = of.number(value, "priority", 1, MAX_PRIORITY);
    if (priority == PRIORITY_NONE) {
        return of.problem(value, "priority 9 cannot be asked for: the daemon takes it as 'no priority'");
    }
    of.node.priority = priority.value_or(0);
}

void nodeTimeRangeRead(NodeReader &of, const YAML::Node &value) {
    of.node.timeRange = of.number(value, "time-range", 1, UINT32_MAX - 1);
    if (of.node.timeRange && of.reader.timeRanges.count(*of.node.timeRange) == 0) {
        of.problem(value, "time range " + std::to_string(*of.node.timeRange) + " is not defined under time-ranges");
    }
}

void nodeVrfRead(NodeReader &of, const YAML::Node &value) {
    const auto vrf = vrfRead(of.reader, value, of.place + ": vrf", UINT32_MAX);
    of.complete = of.complete && vrf;
    of.node.vrf = vrf.value_or(0);
}

void otherwiseRead(NodeReader &of, const YAML::Node &value) {
    const auto what = textRead(of.reader, value, of.place + ": otherwise");
    if (what != "drop" && what != "normal") {
        return of.problem(value, "otherwise must be normal (routed by the routing table) or drop: what happens to its "
                                 "packets while nothing of it is usable");
    }
    of.drops = what == "drop";
}

void nodeKeyRead(NodeReader &of, const std::string &name, const YAML::Node &key, const YAML::Node &value) {
    if (name == "acl") {
        nodeAclRead(of, value);
    } else if (name == "next-hops") {
        hopsRead(of, value);
    } else if (name == "interface") {
        nodeInterfaceRead(of, value);
    } else if (name == "priority") {
        nodePriorityRead(of, value);
    } else if (name == "ecmp") {
        ecmpRead(of, value);
    } else if (name == "vrf") {
        nodeVrfRead(of, value);
    } else if (name == "time-range") {
        nodeTimeRangeRead(of, value);
    } else if (name == "otherwise") {
        otherwiseRead(of, value);
    } else {
        of.problem(key, "unknown key '" + name + "'; known are acl, ecmp, interface, next-hops, otherwise, priority, "
                        "time-range, vrf");
    }
}

// What the keys of a node mean together.
void nodeCheck(NodeReader &of, const YAML::Node &at) {
    Node &node = of.node;
    const int aclVersion = aclVersionOf(node.acl).value_or(0);
    const std::string acl = "acl " + std::to_string(node.acl);
    if (node.acl == 0) {
        of.problem(at, "the node has no acl, so it matches nothing");
    } else if (!node.nextHops.empty() && aclVersion == 0) {
        of.problem(at, acl + " is of either IP version, and a node with next hops takes ACLs 1001..2000 (IPv4) or "
                             "3001..4000 (IPv6)");
    } else if (of.hopVersion && *of.hopVersion != aclVersion) {
        of.problem(at, acl + " is of IPv" + std::to_string(aclVersion) + ", its next hops are of IPv" +
                           std::to_string(*of.hopVersion));
    }
    if (!node.outIfName.empty() && !node.nextHops.empty()) {
        of.problem(at, "a node has next hops or an interface, not both");
    }
    if (node.ecmp != 0 && node.nextHops.empty()) {
        of.problem(at, "ecmp needs next hops");
    }
    if (node.outIfName.empty() && node.nextHops.empty() && node.priority == 0) {
        of.problem(at, "the node has no action: give it next-hops, an interface or a priority");
    }
    if (of.drops && node.outIfName.empty() && node.nextHops.empty()) {
        of.problem(at, "otherwise: drop needs next-hops or an interface, which could become unusable");
    }
    node.ipVersion = aclVersion;
}

void nodeRead(Reader &reader, List &list, const YAML::Node &key, const YAML::Node &value) {
    const auto index = numberOf(reader, key, "list " + list.name + ": a node's number", 1, UINT32_MAX);
    if (!index) {
        return;
    }
    NodeReader of{reader, "node " + list.name + "/" + std::to_string(*index), {}, {}, true};
    of.node.index = *index;
    if (!value.IsMap()) {
        return of.problem(value.IsDefined() && !value.IsNull() ? value : key,
                          "must be a map such as {acl: 1501, next-hops: [192.0.2.1]}");
    }
    mapRead(reader, value, of.place, [&](const std::string &name, const YAML::Node &each, const YAML::Node &of2) {
        nodeKeyRead(of, name, each, of2);
    });
    if (of.complete) {
        nodeCheck(of, key);
    }
    reader.place(of.place, key);
    list.nodes[*index] = of.node;
    if (of.drops) {
        reader.file.policy.otherwiseDrop.insert({list.name, *index});
    }
}

void listsRead(Reader &reader, const YAML::Node &section) {
    mapRead(reader, section, "lists", [&](const std::string &name, const YAML::Node &key, const YAML::Node &value) {
        if (name.empty() || name.size() > MAX_LIST_NAME) {
            return reader.problem(key, "list '" + name + "': a name has 1 to 16 bytes, this one has " +
                                           std::to_string(name.size()));
        }
        if (!isPlainName(name)) {
            return reader.problem(key, "list '" + name + "': a name has no spaces, slashes or control characters");
        }
        List &list = reader.file.policy.lists[name];
        list.name = name;
        reader.place("list " + name, key);
        mapRead(reader, value, "list " + name,
                [&](const std::string &, const YAML::Node &nodeKey, const YAML::Node &node) {
                    nodeRead(reader, list, nodeKey, node);
                });
    });
}

// ---- bindings ----

void bindingsRead(Reader &reader, const YAML::Node &section) {
    std::map<std::string, size_t> uses;
    mapRead(reader, section, "bindings", [&](const std::string &name, const YAML::Node &key, const YAML::Node &value) {
        if (name.empty() || name.size() > MAX_INTERFACE_NAME || !isPlainName(name)) {
            return reader.problem(key, "'" + name + "' is no name of an interface");
        }
        const auto list = textRead(reader, value, "binding " + name);
        if (!list) {
            return;
        }
        if (reader.file.policy.lists.count(*list) == 0) {
            return reader.problem(value, "binding " + name + ": list '" + *list + "' is not defined under lists");
        }
        if (++uses[*list] == MAX_BOUND + 1) {
            return reader.problem(key, "binding " + name + ": list " + *list + " is bound to 15 interfaces already; "
                                       "make a second list (with ACLs of its own) for the others");
        }
        reader.file.policy.bindings.push_back({name, 0, *list});
        reader.file.interfaceLines.insert({name, key.Mark().line + 1});
        reader.place("binding " + name, key);
        if (reader.file.policy.lists[*list].nodes.empty()) {
            reader.warning(value, "list " + *list + " has no nodes: binding it changes nothing");
        }
    });
}

void documentRead(Reader &reader, const YAML::Node &document) {
    const std::set<std::string> sections = {"acls", "probes", "time-ranges", "lists", "bindings"};
    if (!document.IsMap()) {
        return reader.problem(1, std::string(document.IsNull() ? "the file is empty: it" : "the file") +
                                     " must be a map with the sections acls, probes, time-ranges, lists, "
                                     "bindings; 'lists: {}' alone removes the whole policy");
    }
    std::map<std::string, YAML::Node> found;
    mapRead(reader, document, "the file", [&](const std::string &name, const YAML::Node &key, const YAML::Node &value) {
        if (sections.count(name) == 0) {
            return reader.problem(key, "unknown section '" + name + "'; known are acls, bindings, lists, probes, "
                                       "time-ranges");
        }
        reader.place(name, key);
        found[name] = value;
    });
    // In the order of what refers to what, wherever they stand.
    const std::pair<const char *, void (*)(Reader &, const YAML::Node &)> readers[] = {
        {"acls", aclsRead}, {"probes", probesSectionRead}, {"time-ranges", timeRangesSectionRead},
        {"lists", listsRead}, {"bindings", bindingsRead}};
    for (const auto &[pName, pRead] : readers) {
        if (found.count(pName) != 0) {
            pRead(reader, found[pName]);
        }
    }
    guardedHopsFind(reader);
}

// Where the second document of a text has its first node.
class SecondDocument : public YAML::EventHandler {
public:
    int count = 0;
    std::optional<int> line;

    void OnDocumentStart(const YAML::Mark &) override { ++count; }
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark &mark, YAML::anchor_t) override { take(mark); }
    void OnAlias(const YAML::Mark &mark, YAML::anchor_t) override { take(mark); }
    void OnScalar(const YAML::Mark &mark, const std::string &, YAML::anchor_t, const std::string &) override { take(mark); }
    void OnSequenceStart(const YAML::Mark &mark, const std::string &, YAML::anchor_t, YAML::EmitterStyle::value) override { take(mark); }
    void OnSequenceEnd() override {}
    void OnMapStart(const YAML::Mark &mark, const std::string &, YAML::anchor_t, YAML::EmitterStyle::value) override { take(mark); }
    void OnMapEnd() override {}

private:
    void take(const YAML::Mark &mark) {
        if (count == 2 && !line) {
            line = mark.line + 1;
        }
    }
};

// The line of the second document; none when there is one at most. Not all documents are loaded to count them: in a
// text that begins with a comma the library finds empty ones without end.
std::optional<int> secondDocumentLine(const std::string &text) {
    std::istringstream stream(text);
    YAML::Parser parser(stream);
    SecondDocument second;
    while (second.count < 2 && parser.HandleNextDocument(second)) {
    }
    return second.count < 2 ? std::nullopt : std::optional<int>(second.line.value_or(1));
}

} // namespace

PolicyFile policyFileRead(const std::string &name, const std::string &text, const VrfNames *pVrfs) {
    PolicyFile file;
    file.name = name;
    Reader reader(file, pVrfs);
    try {
        if (const std::optional<int> second = secondDocumentLine(text)) {
            reader.problem(*second, "a policy file holds one document");
        } else {
            documentRead(reader, YAML::Load(text));
        }
    } catch (const YAML::Exception &wrong) {
        reader.problem(wrong.mark.is_null() ? 1 : wrong.mark.line + 1, wrong.msg);
    }
    std::stable_sort(reader.problems.begin(), reader.problems.end(),
                     [](const auto &left, const auto &right) { return left.first < right.first; });
    file.problemLines = reader.problems;
    for (const auto &[line, reason] : reader.problems) {
        file.problems.push_back(name + ":" + std::to_string(line) + ": " + reason);
    }
    for (const auto &[listName, list] : file.policy.lists) {
        const std::vector<std::string> warnings = listWarnings(list);
        file.warnings.insert(file.warnings.end(), warnings.begin(), warnings.end());
    }
    return file;
}

} // namespace cli
