// A rule's text is read word by word: action, protocol, then "from" and "to", each of which may be
// left out.
#include "cli/acl_text.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "cli/numbers.h"

namespace cli {

namespace {

constexpr int PROTOCOL_ICMP4 = 1, PROTOCOL_TCP = 6, PROTOCOL_UDP = 17, PROTOCOL_ICMP6 = 58;

struct RuleError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Words {
    std::vector<std::string> all;
    size_t at = 0;
    bool done() const { return at == all.size(); }
    bool is(const std::string &word) const { return !done() && all[at] == word; }
    std::string take(const char *pWhat) {
        if (done()) {
            throw RuleError(std::string("the rule ends where ") + pWhat + " is expected");
        }
        return all[at++];
    }
};

int protocolRead(const std::string &word) {
    if (word == "ip") {
        return ACL_PROTOCOL_ANY;
    }
    if (word == "tcp") {
        return PROTOCOL_TCP;
    }
    if (word == "udp") {
        return PROTOCOL_UDP;
    }
    if (word == "icmp") {
        return ACL_PROTOCOL_ICMP;
    }
    const auto number = numberRead(word, 0, 255);
    if (!number) {
        throw RuleError("'" + word + "' is no protocol: ip, tcp, udp, icmp or a number 0..255");
    }
    return static_cast<int>(*number);
}

bool hostBitsAreZero(const AclEnd &end, unsigned bits) {
    for (unsigned bit = end.prefixLen; bit < bits; bit++) {
        if ((end.address[bit / 8] & (0x80u >> (bit % 8))) != 0) {
            return false;
        }
    }
    return true;
}

// Takes the version of an address over into the rule, or refuses another one.
void familyTake(uint32_t aclNum, int family, AclRule &rule) {
    if (rule.family == 0) {
        rule.family = family;
    }
    if (rule.family != family) {
        const std::string other = "IPv" + std::to_string(family) + " address";
        throw RuleError(aclVersionOf(aclNum) == 0
                            ? "one address is of IPv4, the other of IPv6"
                            : "ACL " + std::to_string(aclNum) + " is of IPv" + std::to_string(rule.family) +
                                  " and cannot hold an " + other);
    }
}

void prefixRead(uint32_t aclNum, const std::string &word, AclRule &rule, AclEnd &end) {
    if (word == "any") {
        return;
    }
    const size_t slash = word.find('/');
    const auto address = addressRead(word.substr(0, slash));
    if (!address) {
        throw RuleError("'" + word + "' is no address, prefix or 'any'");
    }
    familyTake(aclNum, address->size() == 4 ? 4 : 6, rule);
    std::copy(address->begin(), address->end(), end.address.begin());
    const unsigned bits = static_cast<unsigned>(address->size()) * 8;
    const auto length = slash == std::string::npos ? std::optional<uint64_t>(bits)
                                                   : numberRead(word.substr(slash + 1), 0, bits);
    if (!length) {
        throw RuleError("'" + word + "': the prefix length is a number 0.." + std::to_string(bits));
    }
    end.prefixLen = static_cast<unsigned>(*length);
    if (!hostBitsAreZero(end, bits)) {
        throw RuleError("'" + word + "' has address bits behind the prefix length");
    }
    end.anyAddress = end.prefixLen == 0;
}

void portsRead(const std::string &word, AclEnd &end) {
    const size_t dash = word.find('-');
    const auto first = numberRead(word.substr(0, dash), 0, 65535);
    const auto last = dash == std::string::npos ? first : numberRead(word.substr(dash + 1), 0, 65535);
    if (!first || !last || *last < *first) {
        throw RuleError("'" + word + "' is no port or range of ports: N or N-M, 0..65535, N not above M");
    }
    end.firstPort = static_cast<uint16_t>(*first);
    end.lastPort = static_cast<uint16_t>(*last);
    end.anyPort = end.firstPort == 0 && end.lastPort == 65535;
}

void endRead(uint32_t aclNum, Words &words, const char *pKeyword, AclRule &rule, AclEnd &end) {
    if (!words.is(pKeyword)) {
        return;
    }
    words.at++;
    prefixRead(aclNum, words.take("a prefix or 'any'"), rule, end);
    if (!words.is("port")) {
        return;
    }
    words.at++;
    if (rule.protocol != PROTOCOL_TCP && rule.protocol != PROTOCOL_UDP) {
        throw RuleError("ports need the protocol tcp or udp");
    }
    portsRead(words.take("a port"), end);
}

void icmpSettle(uint32_t aclNum, AclRule &rule) {
    if (rule.protocol != ACL_PROTOCOL_ICMP) {
        return;
    }
    if (rule.family == 0) {
        throw RuleError("ACL " + std::to_string(aclNum) + " is of either IP version and no address tells which "
                        "icmp is meant: name an address (0.0.0.0/0 or ::/0 for all), or protocol 1 or 58");
    }
    rule.protocol = rule.family == 4 ? PROTOCOL_ICMP4 : PROTOCOL_ICMP6;
}

AclRule ruleRead(uint32_t aclNum, const std::string &text) {
    Words words;
    std::istringstream stream(text);
    for (std::string word; stream >> word;) {
        words.all.push_back(word);
    }
    AclRule rule;
    rule.family = aclVersionOf(aclNum).value_or(0);
    const std::string action = words.take("permit or deny");
    if (action != "permit" && action != "deny") {
        throw RuleError("'" + action + "' where permit or deny is expected");
    }
    rule.permit = action == "permit";
    rule.protocol = protocolRead(words.take("a protocol"));
    endRead(aclNum, words, "from", rule, rule.from);
    endRead(aclNum, words, "to", rule, rule.to);
    if (!words.done()) {
        throw RuleError("'" + words.all[words.at] + "' is not expected here; a rule is: permit|deny "
                        "ip|tcp|udp|icmp|NUMBER from PREFIX|any [port N[-M]] to PREFIX|any [port N[-M]]");
    }
    icmpSettle(aclNum, rule);
    return rule;
}

} // namespace

std::optional<int> aclVersionOf(uint32_t aclNum) {
    if (aclNum >= 1001 && aclNum <= 2000) {
        return 4;
    }
    if (aclNum >= 3001 && aclNum <= 4000) {
        return 6;
    }
    if (aclNum >= 5001) {
        return 0;
    }
    return std::nullopt;
}

std::optional<AclRule> aclRuleRead(uint32_t aclNum, const std::string &text, std::string &error) {
    try {
        return ruleRead(aclNum, text);
    } catch (const RuleError &wrong) {
        error = wrong.what();
        return std::nullopt;
    }
}

AclRuleText aclRuleText(uint32_t aclNum, const std::string &text) {
    std::string ignored;
    return {text, aclRuleRead(aclNum, text, ignored)};
}

} // namespace cli
