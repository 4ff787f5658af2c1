// Each command of the command line is added by one function, which declares its options and gives the
// action to run; the action is run after the whole line was read.
#include "cli/commands.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>

#include <CLI/CLI.hpp>

#include "cli/apply.h"
#include "cli/change.h"
#include "cli/change_lock.h"
#include "cli/check.h"
#include "cli/confirm.h"
#include "cli/default_root.h"
#include "cli/errors.h"
#include "cli/event.h"
#include "cli/explain.h"
#include "cli/export.h"
#include "cli/numbers.h"
#include "cli/probe_commands.h"
#include "cli/raw.h"
#include "cli/shell.h"
#include "cli/show.h"
#include "cli/show_journal.h"
#include "cli/time_range_commands.h"
#include "cli/usage.h"
#include "cli/version.h"
#include "cli/watch.h"

namespace cli {

namespace {

constexpr const char *ACL_RULE_HELP =
    "PROTOCOL  ip, tcp, udp, icmp, sctp, gre, esp, ospf ... or a number 0 to 255\n"
    "ADDR      any, ADDRESS, PREFIX, or ADDRESS mask WILDCARD (ones: bits that may be anything)\n"
    "PORTS     N or N-M\n"
    "OPTION    flags FLAG,!FLAG...   established   type N|NAME [code N]   dscp N|NAME   precedence N\n"
    "          fragments   length N[-M]   source-mac MAC\n"
    "Examples  pbrctl acl add 1501 10 permit tcp from 10.1.0.0/16 to any port 443\n"
    "          pbrctl acl add 1501 20 deny tcp from any to 10.0.0.5 mask 0.255.255.0 flags 'syn,!ack'\n"
    "          pbrctl acl add 3501 10 permit icmp type packet-too-big";

struct Context {
    std::string root;
    bool json = false;
    std::ostream &out;
    std::ostream &err;
    std::unique_ptr<Daemon> pDaemon;   // made when the line has been read
    std::function<int()> action;       // what the line asks for
    Daemon &daemon() { return *pDaemon; }
};

// Declares that `sub` runs `body`, which succeeds by returning.
void runs(Context &context, CLI::App *pSub, std::function<void()> body) {
    pSub->callback([&context, body = std::move(body)] {
        context.action = [body] {
            body();
            return static_cast<int>(EXIT_DONE);
        };
    });
}

// As `runs`, for a single change of the policy: nobody else changes it meanwhile, and interrupts wait.
void changes(Context &context, CLI::App *pSub, std::function<void()> body) {
    const CLI::App *pParent = pSub->get_parent();
    const std::string parent = pParent->get_parent() == nullptr ? "" : pParent->get_name() + " ";
    runs(context, pSub, [&context, name = parent + pSub->get_name(), body = std::move(body)] {
        const ChangeLock lock(context.daemon(), ChangeKind::Single, name, context.err);
        const SignalsHeld held;
        body();
    });
}

template <typename Value> std::shared_ptr<Value> holder() { return std::make_shared<Value>(); }

std::string fileRead(const std::string &name) {
    std::stringstream text;
    if (name == "-") {
        text << std::cin.rdbuf();
        return text.str();
    }
    errno = 0;
    std::ifstream file(name, std::ios::binary);
    std::error_code error; // a folder can be opened, and reads as nothing
    const bool isFolder = file && std::filesystem::is_directory(name, error);
    if (!file || isFolder) {
        throw Usage(name + ": cannot be read: " + strerror(isFolder ? EISDIR : errno));
    }
    text << file.rdbuf();
    return text.str();
}

void applyAdd(CLI::App &app, Context &context) {
    CLI::App *pSub = app.add_subcommand("apply", "Make the running policy equal to a file, or leave all as it is");
    auto pOptions = holder<ApplyOptions>();
    pSub->add_option("file", pOptions->file, "Policy file (YAML), - for standard input")->required();
    CLI::Option *pDry = pSub->add_flag("--dry-run", pOptions->dryRun, "Print the plan and change nothing");
    pSub->add_option("--confirm", pOptions->confirmSeconds,
                     "Undo it by itself after so many seconds unless 'pbrctl confirm' comes")
        ->check(CLI::Range(1u, CONFIRM_MOST_SECONDS))
        ->excludes(pDry);
    runs(context, pSub, [&context, pOptions] {
        pOptions->text = fileRead(pOptions->file);
        pOptions->json = context.json;
        apply(context.daemon(), *pOptions, context.out, context.err);
    });
}

// As of other tools that compare: 0 no difference, 1 differences, 2 it could not be told.
int diffRun(Context &context, ApplyOptions &options) {
    try {
        options.text = fileRead(options.file);
        options.json = context.json;
        return diff(context.daemon(), options, context.out, context.err) ? 1 : 0;
    } catch (const Refused &refusal) {
        throw Usage(refusal.what()); // whose exit status is 2
    }
}

void policyAdd(CLI::App &app, Context &context) {
    CLI::App *pSub = app.add_subcommand("diff", "Compare the running policy with a file: 0 equal, 1 different");
    auto pOptions = holder<ApplyOptions>();
    pSub->add_option("file", pOptions->file, "Policy file (YAML), - for standard input")->required();
    pSub->callback([&context, pOptions] { context.action = [&context, pOptions] { return diffRun(context, *pOptions); }; });

    pSub = app.add_subcommand("export", "Write the running policy as a policy file");
    runs(context, pSub, [&context] { exportPolicy(context.daemon(), context.out, context.err); });

    pSub = app.add_subcommand("confirm", "Keep what 'apply --confirm' applied");
    auto pRollback = holder<bool>();
    auto pShow = holder<bool>();
    CLI::Option *pBack = pSub->add_flag("--rollback", *pRollback, "Undo it now instead");
    pSub->add_flag("--show", *pShow, "Tell what waits for a confirmation")->excludes(pBack);
    runs(context, pSub, [=, &context] {
        if (*pShow) {
            confirmShow(context.daemon(), context.json, context.out);
        } else {
            confirm(context.daemon(), *pRollback, context.out);
        }
    });
}

void aclAdd(CLI::App &app, Context &context) {
    CLI::App *pAcl = app.add_subcommand("acl", "ACLs and their rules");
    pAcl->require_subcommand(1);
    auto pAclNum = holder<uint32_t>();
    auto pRule = holder<uint32_t>();
    auto pWords = holder<std::vector<std::string>>();
    const auto declare = [&](const char *pName, const char *pHelp) {
        CLI::App *pSub = pAcl->add_subcommand(pName, pHelp);
        pSub->add_option("acl", *pAclNum, "1001..2000 IPv4, 3001..4000 IPv6, 5001 and up either")->required();
        return pSub;
    };
    CLI::App *pSub = declare("add", "Add or replace a rule; makes the ACL when needed");
    pSub->add_option("rule", *pRule, "Number of the rule, evaluated in ascending order")
        ->required()
        ->check(CLI::Range(1u, UINT32_MAX));
    pSub->add_option("text", *pWords,
                     "permit|deny PROTOCOL [from ADDR [port PORTS]] [to ADDR [port PORTS]] [OPTION ...]")
        ->required();
    pSub->footer(ACL_RULE_HELP);
    changes(context, pSub, [=, &context] { changeAclAdd(context.daemon(), *pAclNum, *pRule, *pWords); });
    pSub = declare("del", "Remove a rule");
    pSub->add_option("rule", *pRule, "Number of the rule")->required();
    changes(context, pSub, [=, &context] { changeAclDel(context.daemon(), *pAclNum, *pRule); });
    pSub = declare("create", "Make an ACL without rules");
    changes(context, pSub, [=, &context] { changeAclCreate(context.daemon(), *pAclNum); });
    pSub = declare("destroy", "Remove an ACL that no node uses");
    changes(context, pSub, [=, &context] { changeAclDestroy(context.daemon(), *pAclNum); });
    pSub = pAcl->add_subcommand("show", "Show all ACLs or one");
    pSub->add_option("acl", *pAclNum, "Number of the ACL");
    runs(context, pSub, [=, &context] { showAcls(context.daemon(), *pAclNum, context.json, context.out); });
}

void listAdd(CLI::App &app, Context &context) {
    CLI::App *pList = app.add_subcommand("list", "Policy lists");
    pList->require_subcommand(1);
    auto pName = holder<std::string>();
    CLI::App *pSub = pList->add_subcommand("add", "Make a list");
    pSub->add_option("list", *pName, "Name, 1 to 16 bytes")->required();
    changes(context, pSub, [=, &context] { changeListAdd(context.daemon(), *pName); });
    pSub = pList->add_subcommand("del", "Remove a list that is not bound, with its nodes");
    pSub->add_option("list", *pName, "Name")->required();
    changes(context, pSub, [=, &context] { changeListDel(context.daemon(), *pName); });
}

void nodeOptionsAdd(CLI::App *pSub, NodeChange &change) {
    pSub->add_option("--acl", change.acl, "ACL that the node matches; 0: none");
    pSub->add_option("--ip-version", change.ipVersion, "4 or 6; without it the ACL's number decides")
        ->check(CLI::IsMember({4, 6}));
    pSub->add_option("--priority", change.priority, "New priority of its packets, 1..15 without 9; 0: unchanged");
    pSub->add_option("--interface", change.interface, "Send packets out of this interface");
    pSub->add_flag("--no-interface", change.noInterface, "No out interface");
    pSub->add_flag("--ecmp,!--no-ecmp", change.ecmp, "Spread over all reachable next hops");
    pSub->add_option("--vrf", change.vrf, "VRF of the next hops: its table's number or its name");
    pSub->add_option("--time-range", change.timeRange, "Only while this time range is active; none: always");
}

void nodeAdd(CLI::App &app, Context &context) {
    CLI::App *pNode = app.add_subcommand("node", "Nodes of a list");
    pNode->require_subcommand(1);
    auto pChange = holder<NodeChange>();
    const auto declare = [&](const char *pName, const char *pHelp) {
        CLI::App *pSub = pNode->add_subcommand(pName, pHelp);
        pSub->add_option("list", pChange->list, "Name of the list")->required();
        pSub->add_option("index", pChange->index, "Number of the node, evaluated in ascending order")->required();
        return pSub;
    };
    CLI::App *pSub = declare("add", "Make a node");
    nodeOptionsAdd(pSub, *pChange);
    changes(context, pSub, [=, &context] { changeNodeAdd(context.daemon(), *pChange); });
    pSub = declare("set", "Change a node");
    nodeOptionsAdd(pSub, *pChange);
    changes(context, pSub, [=, &context] { changeNodeSet(context.daemon(), *pChange); });
    pSub = declare("clear", "Remove all next hops of a node, its IP version and VRF");
    changes(context, pSub, [=, &context] { changeNodeClear(context.daemon(), pChange->list, pChange->index); });
    pSub = declare("otherwise", "What its packets do while no next hop and no interface of it is usable");
    auto pWhat = holder<std::string>();
    pSub->add_option("what", *pWhat, "normal: routed by the routing table; drop: dropped")
        ->required()
        ->check(CLI::IsMember({"normal", "drop"}));
    changes(context, pSub,
            [=, &context] { changeNodeOtherwise(context.daemon(), pChange->list, pChange->index, *pWhat); });
    pSub = declare("del", "Remove a node");
    changes(context, pSub, [=, &context] { changeNodeDel(context.daemon(), pChange->list, pChange->index); });
}

void nextHopAdd(CLI::App &app, Context &context) {
    CLI::App *pHop = app.add_subcommand("next-hop", "Next hops of a node");
    pHop->require_subcommand(1);
    auto pChange = holder<NextHopChange>();
    const auto declare = [&](const char *pName, const char *pHelp, const char *pWhich) {
        CLI::App *pSub = pHop->add_subcommand(pName, pHelp);
        pSub->add_option("list", pChange->list, "Name of the list")->required();
        pSub->add_option("node", pChange->node, "Number of the node")->required();
        pSub->add_option("address", pChange->address, pWhich)->required();
        return pSub;
    };
    CLI::App *pSub = declare("add", "Add a next hop", "IPv4 or IPv6 address");
    pSub->add_option("--index", pChange->index, "Its number, 1..255; the lowest is preferred. Default: the next free");
    pSub->add_option("--probe", pChange->probe, "ADMINISTRATOR/TEST: usable only while this probe passes");
    changes(context, pSub, [=, &context] { changeNextHopAdd(context.daemon(), *pChange, context.err); });
    pSub = declare("del", "Remove a next hop", "Its address or number");
    changes(context, pSub, [=, &context] { changeNextHopDel(context.daemon(), *pChange); });
}

void bindAdd(CLI::App &app, Context &context) {
    auto pInterface = holder<std::string>();
    auto pList = holder<std::string>();
    CLI::App *pSub = app.add_subcommand("bind", "Bind a list to an interface, also instead of another list");
    pSub->add_option("interface", *pInterface, "Name, or unit:N")->required();
    pSub->add_option("list", *pList, "Name of the list")->required();
    changes(context, pSub, [=, &context] { changeBind(context.daemon(), *pInterface, *pList, context.err); });
    pSub = app.add_subcommand("unbind", "Take the list off an interface");
    pSub->add_option("interface", *pInterface, "Name, or unit:N")->required();
    changes(context, pSub, [=, &context] { changeUnbind(context.daemon(), *pInterface); });
}

void showAdd(CLI::App &app, Context &context) {
    using Show = void (*)(Daemon &, bool, std::ostream &);
    CLI::App *pShow = app.add_subcommand("show", "What runs now");
    pShow->require_subcommand(1);
    const std::tuple<const char *, const char *, Show> reports[] = {
        {"lists", "Lists and their nodes", showLists},
        {"bindings", "Interfaces, their lists and how much of them is in the device", showBindings},
        {"next-hops", "Each next hop: reachable, chosen, in the device, or why not", showNextHops},
        {"probes", "Probes: state, round trips, loss, last failure", showProbes},
        {"time-ranges", "Time ranges: schedule, active or not, next change", showTimeRanges},
        {"counters", "Counters and limits", showCounters},
        {"policy-counters", "Packets and bytes of each node and rule", showPolicyCounters},
        {"journal", "What comes back at the next start, and what did not at the last one", showJournal}};
    for (const auto &[pName, pHelp, pFunction] : reports) {
        const Show function = pFunction;
        CLI::App *pSub = pShow->add_subcommand(pName, pHelp);
        runs(context, pSub, [&context, function] { function(context.daemon(), context.json, context.out); });
    }
    CLI::App *pSub = pShow->add_subcommand("device", "What the forwarding plane holds");
    auto pRecords = holder<bool>();
    pSub->add_flag("--records", *pRecords, "The records as the daemon wrote them, decoded and in hex");
    runs(context, pSub, [=, &context] {
        (*pRecords ? showRecords : showDevice)(context.daemon(), context.json, context.out);
    });
    pSub = pShow->add_subcommand("acls", "ACLs and their rules");
    auto pAcl = holder<uint32_t>();
    pSub->add_option("acl", *pAcl, "Number of the ACL; default all");
    runs(context, pSub, [=, &context] { showAcls(context.daemon(), *pAcl, context.json, context.out); });
}

void explainAdd(CLI::App &app, Context &context) {
    CLI::App *pSub = app.add_subcommand("explain", "What would happen to a packet, and why");
    auto pOptions = holder<ExplainOptions>();
    pSub->add_option("--in", pOptions->interface, "Interface it enters through: name, or unit:N");
    pSub->add_option("--src", pOptions->source, "Source address");
    pSub->add_option("--dst", pOptions->destination, "Destination address");
    pSub->add_option("--proto", pOptions->protocol, "tcp, udp, icmp ... or 0 to 255");
    pSub->add_option("--sport", pOptions->sourcePort, "Source port")->check(CLI::Range(0, 65535));
    pSub->add_option("--dport", pOptions->destinationPort, "Destination port")->check(CLI::Range(0, 65535));
    pSub->add_option("--flags", pOptions->flags, "TCP flags that are set, such as syn,ack; none: no flag");
    pSub->add_option("--type", pOptions->type, "ICMP type: a name or 0 to 255");
    pSub->add_option("--code", pOptions->code, "ICMP code")->check(CLI::Range(0, 255));
    pSub->add_option("--dscp", pOptions->dscp, "A name or 0 to 63; default 0");
    pSub->add_option("--length", pOptions->length, "Bytes with the IP header");
    pSub->add_option("--source-mac", pOptions->sourceMac, "Source of the Ethernet frame");
    pSub->add_option("--mark", pOptions->mark, "Mark that another program gave it; default 0");
    pSub->add_flag("--fragment", pOptions->fragment, "A later fragment");
    pSub->add_flag("--verbose", pOptions->verbose, "Also every node and rule that was looked at");
    CLI::Option *pCost = pSub->add_flag("--cost", pOptions->cost, "No packet: what its policy costs an interface's packets at most");
    const auto isOfAPacket = [&](const CLI::Option *pEach) { return pEach != pCost && pEach->get_name() != "--help"; };
    for (CLI::Option *pOther : pSub->get_options(isOfAPacket)) {
        pCost->excludes(pOther);
    }
    pSub->add_option("interface", pOptions->costInterface, "With --cost: this interface alone; default each");
    runs(context, pSub, [=, &context] { explain(context.daemon(), *pOptions, context.json, context.out); });
}

void watchAdd(CLI::App &app, Context &context) {
    CLI::App *pSub = app.add_subcommand("watch", "Events as they happen, a line each, until interrupted");
    runs(context, pSub, [&context] { watch(context.daemon(), context.json, context.out); });
}

void rawAdd(CLI::App &app, Context &context) {
    CLI::App *pSub = app.add_subcommand("raw", "One frame of the command socket; prints result and value");
    auto pOptions = holder<RawOptions>();
    auto pNumber = holder<std::string>();
    pSub->add_option("command", pOptions->command, "0..23, or a name such as node-get")->required();
    pSub->add_option("--key", pOptions->key, "HEX, list:NAME, node:LIST/INDEX[/HOP], if:NAME or if:UNIT");
    pSub->add_option("--mask", pOptions->mask, "Walk filter of a node: key: 128 list fixed, 64 node fixed")
        ->check(CLI::Range(0, 255));
    pSub->add_option("--field", pOptions->field, "Field id");
    pSub->add_option("--number", *pNumber, "Value: a number, also 0x...");
    pSub->add_option("--bytes", pOptions->bytes, "Value: bytes in hex");
    pSub->add_option("--text", pOptions->text, "Value: bytes as text");
    pSub->add_option("--capacity", pOptions->capacity, "Read bytes, at most so many");
    pSub->callback([=, &context] {
        context.action = [=, &context] {
            if (!pNumber->empty()) {
                pOptions->number = wordRead(*pNumber);
                if (!pOptions->number) {
                    throw Usage("--number '" + *pNumber + "' is no number of 32 bits");
                }
            }
            pOptions->json = context.json;
            return static_cast<int>(raw(context.daemon(), *pOptions, context.out) == 0 ? EXIT_DONE : EXIT_REFUSED);
        };
    });
}

void otherAdd(CLI::App &app, Context &context) {
    CLI::App *pCheck = app.add_subcommand("check", "Whether kernel, device and policy agree: 0 yes, 1 no");
    pCheck->callback([&context] {
        context.action = [&context] {
            return static_cast<int>(check(context.daemon(), context.json, context.out, context.err) ? EXIT_DONE : EXIT_REFUSED);
        };
    });
    CLI::App *pDevice = app.add_subcommand("device", "The forwarding plane");
    pDevice->require_subcommand(1);
    CLI::App *pSub = pDevice->add_subcommand("flush", "Remove everything of ours from the forwarding plane");
    runs(context, pSub, [&context] { (void)context.daemon().mgmt("device.flush"); });
    pSub = pDevice->add_subcommand("settle", "Say that the policy is complete: adopted remains are let go of");
    runs(context, pSub, [&context] { (void)context.daemon().mgmt("device.settle"); });

    CLI::App *pCounters = app.add_subcommand("counters", "Packets and bytes of nodes and rules");
    pCounters->require_subcommand(1);
    pSub = pCounters->add_subcommand("clear", "Let them begin at 0");
    runs(context, pSub, [&context] { (void)context.daemon().mgmt("device.countersClear"); });

    CLI::App *pDebug = app.add_subcommand("debug", "Debug texts of the daemon");
    pDebug->require_subcommand(1);
    pSub = pDebug->add_subcommand("set", "Choose the debug texts");
    auto pWhat = holder<std::string>();
    pSub->add_option("what", *pWhat, "hw, event, dump, separated by commas; or off")->required();
    runs(context, pSub, [=, &context] { changeDebug(context.daemon(), *pWhat); });

}

void probeAdd(CLI::App &app, Context &context) {
    CLI::App *pProbe = app.add_subcommand("probe", "Probes: what next hops are tied to");
    pProbe->require_subcommand(1);
    auto pOptions = holder<ProbeOptions>();
    CLI::App *pSub = pProbe->add_subcommand("add", "Run a probe, or give it other settings");
    pSub->add_option("probe", pOptions->name, "ADMINISTRATOR/TEST")->required();
    pSub->add_option("kind", pOptions->kind, "icmp (echo), tcp (connect), udp (echo), http (GET)")
        ->required()
        ->check(CLI::IsMember({"icmp", "tcp", "udp", "http"}));
    pSub->add_option("target", pOptions->target, "IPv4 or IPv6 address")->required();
    pSub->add_option("--port", pOptions->port, "Of tcp and udp; of http, default 80")->check(CLI::Range(1, 65535));
    pSub->add_option("--path", pOptions->path, "Of http, default /");
    pSub->add_option("--host", pOptions->host, "Host header of http; default: the target");
    pSub->add_option("--source", pOptions->source, "Address of this machine to ask from");
    pSub->add_option("--interface", pOptions->interface, "Ask out of this interface; with --via: the next hop is there");
    pSub->add_option("--vrf", pOptions->vrf, "Ask by the table of this VRF, a number or name");
    pSub->add_option("--via", pOptions->via, "Leave through this next hop, whatever the routing table says");
    pSub->add_option("--interval", pOptions->interval, "50ms to 60m, default 1s");
    pSub->add_option("--timeout", pOptions->timeout, "At most the interval, default 500ms");
    pSub->add_option("--down-after", pOptions->downAfter, "Failures in a row, default 3")
        ->check(CLI::Range(1u, PROBE_COUNT_MOST));
    pSub->add_option("--up-after", pOptions->upAfter, "Successes in a row, default 1")
        ->check(CLI::Range(1u, PROBE_COUNT_MOST));
    changes(context, pSub, [=, &context] { probeDefine(context.daemon(), *pOptions); });
    pSub = pProbe->add_subcommand("del", "Remove a probe: next hops tied to it are not used any more");
    pSub->add_option("probe", pOptions->name, "ADMINISTRATOR/TEST")->required();
    changes(context, pSub, [=, &context] { probeRemove(context.daemon(), pOptions->name); });
    pSub = pProbe->add_subcommand("clear", "Begin the statistics anew");
    pSub->add_option("probe", pOptions->name, "ADMINISTRATOR/TEST; default all");
    runs(context, pSub, [=, &context] { probeClear(context.daemon(), pOptions->name); });
}

void timeRangeAdd(CLI::App &app, Context &context) {
    CLI::App *pRange = app.add_subcommand("time-range", "Time ranges: define, remove, switch by hand");
    auto pOptions = holder<TimeRangeOptions>();
    CLI::App *pSub = pRange->add_subcommand("add", "Define a time range, or give it another schedule");
    pSub->add_option("id", pOptions->id, "Number of the time range")->required();
    pSub->add_option("--days", pOptions->days, "mon-fri, sat,sun, weekend, daily ...; default daily");
    pSub->add_option("--from", pOptions->from, "HH:MM[:SS], local time; default 00:00");
    pSub->add_option("--to", pOptions->to, "HH:MM[:SS]; not after --from: on the next day; default 24:00");
    pSub->add_option("--period", pOptions->periods, "Instead of these three, repeated: 'DAYS FROM-TO'")
        ->allow_extra_args(false);
    pSub->add_option("--start", pOptions->start, "Not before 'YYYY-MM-DD HH:MM[:SS]', local time");
    pSub->add_option("--end", pOptions->end, "Not from 'YYYY-MM-DD HH:MM[:SS]' on");
    changes(context, pSub, [=, &context] { timeRangeDefine(context.daemon(), *pOptions); });
    pSub = pRange->add_subcommand("del", "Remove a time range");
    pSub->add_option("id", pOptions->id, "Number of the time range")->required();
    pSub->add_flag("--force", pOptions->force, "Also when nodes use it: they do not act any more then");
    changes(context, pSub, [=, &context] { timeRangeRemove(context.daemon(), *pOptions); });

    auto pId = holder<std::string>();
    auto pState = holder<std::string>();
    pRange->add_option("id", *pId, "Number of the time range to switch");
    pRange->add_option("state", *pState, "on, off, or auto: as its schedule says");
    pRange->callback([=, &context] {
        if (pRange->get_subcommands().empty()) {
            context.action = [=, &context] {
                timeRangeSwitch(context.daemon(), *pId, *pState);
                return static_cast<int>(EXIT_DONE);
            };
        }
    });
}

void eventAdd(CLI::App &app, Context &context) {
    CLI::App *pEvent = app.add_subcommand("event", "Tell the daemon what its hardware would tell");
    pEvent->require_subcommand(1);
    auto pOptions = holder<EventOptions>();
    using Event = void (*)(Daemon &, const EventOptions &, bool, std::ostream &);
    const auto declare = [&](const char *pName, const char *pHelp, Event event) {
        CLI::App *pSub = pEvent->add_subcommand(pName, pHelp);
        runs(context, pSub, [=, &context] { event(context.daemon(), *pOptions, context.json, context.out); });
        return pSub;
    };
    const auto interface = [&](CLI::App *pSub) {
        pSub->add_option("interface", pOptions->interface, "Name, or unit:N")->required();
    };
    CLI::App *pSub = declare("link", "A link is new, or changed its place in an aggregation", eventLink);
    interface(pSub);
    CLI::Option *pJoined = pSub->add_option("--joined", pOptions->joined, "It joined this aggregation: loses its policy");
    CLI::Option *pAdded = pSub->add_option("--added", pOptions->added, "It is an aggregation, this port was added");
    pSub->add_option("--removed", pOptions->removed, "It is an aggregation, this port was removed")
        ->excludes(pJoined)
        ->excludes(pAdded);
    pJoined->excludes(pAdded);
    interface(declare("gone", "A link is gone for good: its policy is unbound", eventGone));
    interface(declare("port-reset", "A port's configuration was reset: its policy is unbound", eventPortReset));
    const auto number = [&](CLI::App *pHardware, const char *pName, uint32_t &value, const char *pHelp) {
        pHardware->add_option(pName, value, pHelp);
    };
    pSub = declare("card-up", "A line card came up: entries of waiting lists are written again", eventCardUp);
    number(pSub, "--slot", pOptions->slot, "0..65535; default 0");
    number(pSub, "--card", pOptions->card, "Its number; default 0");
    number(pSub, "--type", pOptions->type, "Its type; default 0");
    pSub = declare("slot-up", "A slot came up: entries of waiting lists are written again", eventSlotUp);
    number(pSub, "--slot", pOptions->slot, "0..65535; default 0");
    number(pSub, "--type", pOptions->type, "Its type; default 0");
    pSub = declare("probe", "A probe's state changed", eventProbe);
    pSub->add_option("probe", pOptions->probe, "ADMINISTRATOR/TEST")->required();
    pSub->add_option("status", pOptions->status, "passing, failing or none (no result, counts as failing)")
        ->required()
        ->check(CLI::IsMember({"passing", "failing", "none"}));
}

void shellAdd(CLI::App &app, Context &context) {
    CLI::App *pSub = app.add_subcommand("shell", "The daemon's own diagnostic commands and switches");
    auto pName = holder<std::string>();
    auto pArgs = holder<std::vector<std::string>>();
    pSub->add_option("name", *pName, "Command (pbrInfoShow ...) or switch (pbrselflog ...); without it: their names");
    pSub->add_option("arg", *pArgs, "A switch's new value: 1, or = 1; without it the switch is shown");
    pSub->callback([=, &context] {
        context.action = [=, &context] {
            const int32_t result = shellRun(context.daemon(), *pName, *pArgs, context.json, context.out);
            if (result != 0) {
                context.err << "pbrctl: " << *pName << " returned " << result << "\n";
            }
            return static_cast<int>(result == 0 ? EXIT_DONE : EXIT_REFUSED);
        };
    });
}

int actionRun(Context &context) {
    try {
        context.pDaemon = std::make_unique<Daemon>(context.root);
        return context.action();
    } catch (const Usage &wrong) {
        context.err << "pbrctl: " << wrong.what() << "\n";
        return EXIT_USAGE;
    } catch (const NoDaemon &lost) {
        context.err << "pbrctl: " << lost.what() << "\n";
        return EXIT_NO_DAEMON;
    } catch (const nlohmann::json::exception &strange) {
        context.err << "pbrctl: the daemon's answer is not understood: " << strange.what() << "\n";
        return EXIT_NO_DAEMON;
    } catch (const std::exception &refusal) {
        context.err << "pbrctl: " << refusal.what() << "\n";
        return EXIT_REFUSED;
    }
}

} // namespace

int pbrctlRun(const std::vector<std::string> &words, std::ostream &out, std::ostream &err) {
    Context context{defaultRoot(), false, out, err, nullptr, nullptr};
    CLI::App app("Policy-based routing: lists of nodes, each of which sends the packets of an ACL to next hops.",
                 "pbrctl");
    app.fallthrough();
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("pbrctl ") + PBRCTL_VERSION);
    app.add_option("--root", context.root, "Folder of the daemon's run; default: POLICYROUTE_ROOT, else host.root of\n" +
                       std::string(OPTION_FILE));
    app.add_flag("--json", context.json, "Print JSON");
    for (const auto add : {applyAdd, policyAdd, showAdd, aclAdd, listAdd, nodeAdd, nextHopAdd, bindAdd,
                           timeRangeAdd, probeAdd, otherAdd, explainAdd, watchAdd, eventAdd, shellAdd, rawAdd}) {
        add(app, context);
    }
    try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend())); // it takes them from the back
    } catch (const CLI::ParseError &wrong) {
        if (wrong.get_exit_code() == 0) { // --help, --version
            return app.exit(wrong, out, err);
        }
        err << "pbrctl: " << usageText(app, wrong) << "\n";
        return EXIT_USAGE;
    }
    return actionRun(context);
}

} // namespace cli
