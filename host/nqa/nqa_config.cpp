// See nqa_config.h.
#include "host/nqa/nqa_config.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "host/mgmt/mgmt_args.h"
#include "platform/qrv_rtm.h"

namespace host {

namespace {

using nlohmann::json;

constexpr uint32_t INTERVAL_LEAST_MS = 50;
constexpr uint32_t INTERVAL_MOST_MS = 3600000;
constexpr uint32_t TIMEOUT_USUAL_MS = 500;
constexpr uint32_t COUNT_MOST = 1000;
constexpr uint32_t VRF_MOST = 0xfffffffeu;
constexpr size_t PATH_MOST = 1024;
constexpr size_t HOST_MOST = 255;
constexpr size_t INTERFACE_MOST = 15;
constexpr uint16_t HTTP_PORT = 80;
constexpr const char *KIND_TEXTS[] = {"icmp", "tcp", "udp", "http"}; // in the order of NqaKind

[[noreturn]] void refuse(const std::string &text) {
    throw std::runtime_error(text);
}

std::string textOr(const json &members, const char *name, const std::string &absent) {
    return members.contains(name) ? mgmtArgText(members, name) : absent;
}

NqaKind kindRead(const json &members) {
    const std::string text = mgmtArgText(members, "kind");
    const auto found = std::find(std::begin(KIND_TEXTS), std::end(KIND_TEXTS), text);
    if (found == std::end(KIND_TEXTS)) {
        refuse("member \"kind\" must be icmp, tcp, udp or http");
    }
    return static_cast<NqaKind>(found - std::begin(KIND_TEXTS));
}

bool isLinkLocal(const NqaAddress &address) {
    return address.version == 6 && address.bytes[0] == 0xfe && (address.bytes[1] & 0xc0) == 0x80;
}

// Why it is no host's address; null: it is one.
const char *addressRefusal(const NqaAddress &address) {
    const uint8_t *p = address.bytes.data();
    if (address.version == 4) {
        return p[0] == 0 ? "is no host's address" : p[0] >= 224 ? "is no single host's address" : nullptr;
    }
    const bool isUnspecified = std::all_of(p, p + 16, [](uint8_t byte) { return byte == 0; });
    const bool isMapped = std::all_of(p, p + 10, [](uint8_t byte) { return byte == 0; }) && p[10] == 0xff && p[11] == 0xff;
    return isUnspecified ? "is no host's address"
           : p[0] == 0xff ? "is no single host's address"
           : isMapped     ? "is an IPv4 address: write it as one"
                          : nullptr;
}

NqaAddress addressRead(const json &members, const char *name) {
    const std::string text = mgmtArgText(members, name);
    NqaAddress address;
    address.version = text.find(':') == std::string::npos ? 4 : 6;
    const bool isText = text.find('\0') == std::string::npos;
    if (!isText || inet_pton(address.version == 4 ? AF_INET : AF_INET6, text.c_str(), address.bytes.data()) != 1) {
        refuse("member \"" + std::string(name) + "\" must be an IPv4 or IPv6 address, not '" + text.substr(0, 64) + "'");
    }
    if (const char *pWhy = addressRefusal(address)) {
        refuse("member \"" + std::string(name) + "\": " + nqaAddressText(address) + " " + pWhy);
    }
    return address;
}

// An address of the target's family, when it is there.
std::optional<NqaAddress> addressBesideRead(const json &members, const char *name, int version) {
    if (!members.contains(name)) {
        return std::nullopt;
    }
    const NqaAddress address = addressRead(members, name);
    if (address.version != version) {
        refuse("member \"" + std::string(name) + "\" must be an IPv" + std::to_string(version) +
               " address as the target is, not " + nqaAddressText(address));
    }
    return address;
}

bool isPrintable(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

void absentCheck(const json &members, std::initializer_list<const char *> names, NqaKind kind) {
    for (const char *name : names) {
        if (members.contains(name)) {
            refuse("member \"" + std::string(name) + "\" has no meaning for kind " + nqaKindText(kind));
        }
    }
}

void portAndWordsRead(const json &members, NqaQuestion &question) {
    if (question.kind == NqaKind::Icmp) {
        absentCheck(members, {"port"}, question.kind);
    } else if (question.kind == NqaKind::Http) {
        question.port = static_cast<uint16_t>(mgmtArgNumber(members, "port", 1, 65535, HTTP_PORT));
    } else {
        question.port = static_cast<uint16_t>(mgmtArgNumber(members, "port", 1, 65535));
    }
    if (question.kind != NqaKind::Http) {
        return absentCheck(members, {"path", "host"}, question.kind);
    }
    question.path = textOr(members, "path", "/");
    if (question.path.empty() || question.path[0] != '/' || question.path.size() > PATH_MOST || !isPrintable(question.path)) {
        refuse("member \"path\" must begin with a slash and have at most 1024 printable characters without spaces");
    }
    question.host = textOr(members, "host", "");
    if (question.host.size() > HOST_MOST || !isPrintable(question.host)) {
        refuse("member \"host\" must have at most 255 printable characters without spaces");
    }
}

std::string interfaceRead(const json &members) {
    if (!members.contains("interface")) {
        return "";
    }
    const std::string name = mgmtArgText(members, "interface");
    const bool isName = !name.empty() && name.size() <= INTERFACE_MOST && isPrintable(name) &&
                        name.find('/') == std::string::npos;
    if (!isName) {
        refuse("member \"interface\" must be the name of an interface, 1 to 15 characters");
    }
    return name;
}

NqaTiming timingRead(const json &members) {
    NqaTiming timing;
    timing.intervalMs = mgmtArgNumber(members, "intervalMs", INTERVAL_LEAST_MS, INTERVAL_MOST_MS, 1000);
    timing.timeoutMs = mgmtArgNumber(members, "timeoutMs", 1, INTERVAL_MOST_MS,
                                     std::min(TIMEOUT_USUAL_MS, timing.intervalMs));
    timing.downAfter = mgmtArgNumber(members, "downAfter", 1, COUNT_MOST, 3);
    timing.upAfter = mgmtArgNumber(members, "upAfter", 1, COUNT_MOST, 1);
    if (timing.timeoutMs > timing.intervalMs) {
        refuse("member \"timeoutMs\": " + std::to_string(timing.timeoutMs) + " is longer than the interval of " +
               std::to_string(timing.intervalMs) + " ms: a probe asks again only when the question before is settled");
    }
    return timing;
}

void membersCheck(const json &members, bool names) {
    if (names) {
        mgmtArgsOnly(members, {"admin", "test", "kind", "target", "port", "path", "host", "source", "interface", "vrf",
                               "via", "intervalMs", "timeoutMs", "downAfter", "upAfter"});
    } else {
        mgmtArgsOnly(members, {"kind", "target", "port", "path", "host", "source", "interface", "vrf", "via",
                               "intervalMs", "timeoutMs", "downAfter", "upAfter"});
    }
}

} // namespace

NqaConfig nqaConfigRead(const json &members, bool names) {
    membersCheck(members, names);
    NqaConfig config;
    NqaQuestion &question = config.question;
    question.kind = kindRead(members);
    question.target = addressRead(members, "target");
    portAndWordsRead(members, question);
    question.source = addressBesideRead(members, "source", question.target.version);
    question.interface = interfaceRead(members);
    question.vrf = mgmtArgNumber(members, "vrf", 0, VRF_MOST, 0);
    question.via = addressBesideRead(members, "via", question.target.version);
    for (const auto &[pName, isOne] : {std::pair{"target", isLinkLocal(question.target)},
                                       std::pair{"via", question.via && isLinkLocal(*question.via)}}) {
        if (isOne && question.interface.empty()) {
            refuse("member \"" + std::string(pName) + "\" is a link-local address: it needs \"interface\"");
        }
    }
    config.timing = timingRead(members);
    return config;
}

json nqaConfigWrite(const NqaConfig &config) {
    const NqaQuestion &question = config.question;
    json members = {{"kind", nqaKindText(question.kind)},        {"target", nqaAddressText(question.target)},
                    {"vrf", question.vrf},                       {"intervalMs", config.timing.intervalMs},
                    {"timeoutMs", config.timing.timeoutMs},      {"downAfter", config.timing.downAfter},
                    {"upAfter", config.timing.upAfter}};
    if (question.port != 0) {
        members["port"] = question.port;
    }
    if (question.kind == NqaKind::Http) {
        members["path"] = question.path;
    }
    for (const auto &[pName, text] : {std::pair{"host", question.host}, std::pair{"interface", question.interface}}) {
        if (!text.empty()) {
            members[pName] = text;
        }
    }
    for (const auto &[pName, address] : {std::pair{"source", question.source}, std::pair{"via", question.via}}) {
        if (address) {
            members[pName] = nqaAddressText(*address);
        }
    }
    return members;
}

void nqaNameCheck(const std::string &name, const char *what) {
    if (name.empty() || name.size() > NQA_NAME_BYTES) {
        refuse("member \"" + std::string(what) + "\" must have 1 to 32 bytes, it has " + std::to_string(name.size()));
    }
}

std::string nqaAddressText(const NqaAddress &address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(address.version == 4 ? AF_INET : AF_INET6, address.bytes.data(), text, sizeof text);
    return text;
}

const char *nqaKindText(NqaKind kind) {
    return KIND_TEXTS[static_cast<size_t>(kind)];
}

std::string nqaHostOf(const NqaQuestion &question) {
    if (!question.host.empty()) {
        return question.host;
    }
    const std::string address = nqaAddressText(question.target);
    const std::string host = question.target.version == 6 ? "[" + address + "]" : address;
    return question.port == HTTP_PORT ? host : host + ":" + std::to_string(question.port);
}

} // namespace host
