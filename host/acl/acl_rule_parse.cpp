// The parser of ACL rules: words from left to right, and for each refusal a text that names the word,
// its place and what may stand there.
#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <vector>

#include "host/acl/acl_rule.h"
#include "host/acl/acl_rule_words.h"

namespace host {

namespace {

constexpr size_t TEXT_MAX = 512; // the longest rule that can be written takes about 150
constexpr size_t ECHO_MAX = 64;  // bytes of a word that are repeated in an error text

struct Refused {
    std::string text;
};

std::vector<std::string> splitWords(const std::string &text) {
    std::vector<std::string> words;
    size_t at = 0;
    while ((at = text.find_first_not_of(" \t", at)) != std::string::npos) {
        const size_t end = std::min(text.find_first_of(" \t", at), text.size());
        words.push_back(text.substr(at, end - at));
        at = end;
    }
    return words;
}

std::string quoted(const std::string &word) {
    return "'" + (word.size() > ECHO_MAX ? word.substr(0, ECHO_MAX) + "..." : word) + "'";
}

// A decimal number of digits only, at most `most`; -1 for anything else.
long numberOf(const std::string &word, long most) {
    long value = -1;
    const char *pEnd = word.data() + word.size();
    const auto result = std::from_chars(word.data(), pEnd, value);
    const bool isNumber = !word.empty() && word[0] != '-' && result.ec == std::errc() && result.ptr == pEnd;
    return isNumber && value <= most ? value : -1;
}

class Parser {
public:
    Parser(uint32_t acl, const std::string &text) : aclNum(acl), words(splitWords(text)) {}

    AclRule parse() {
        checkAcl();
        rule.permit = parsePermit();
        const std::string protocol = take("ip, tcp, udp, icmp or a protocol number 0 to 255");
        parseProtocol(protocol);
        if (next("from")) {
            rule.source = parsePrefix();
            rule.sourcePorts = parsePorts(protocol);
        }
        if (next("to")) {
            rule.destination = parsePrefix();
            rule.destinationPorts = parsePorts(protocol);
            hadTo = true;
        }
        checkEnd();
        rule.version = static_cast<uint8_t>(version);
        settleIcmp(protocol);
        return rule;
    }

private:
    [[noreturn]] void refuse(const std::string &why) const {
        const std::string where = "word " + std::to_string(at) + " " + quoted(words[at - 1]) + ": ";
        throw Refused{where + why};
    }

    // The next word, which the rule cannot do without.
    std::string take(const std::string &expected) {
        if (at == words.size()) {
            const std::string where =
                at == 0 ? "the rule is empty" : "the rule ends after " + quoted(words[at - 1]);
            throw Refused{where + ": expected " + expected};
        }
        return words[at++];
    }

    // Steps over the next word when it is this one.
    bool next(const char *word) {
        const bool isNext = at < words.size() && words[at] == word;
        at += isNext ? 1 : 0;
        return isNext;
    }

    void checkAcl() {
        const std::optional<int> ofNumber = aclVersion(aclNum);
        if (!ofNumber) {
            throw Refused{"ACL number " + std::to_string(aclNum) + " cannot be used: IPv4 ACLs are 1001 to "
                          "2000, IPv6 ACLs 3001 to 4000, ACLs of either version 5001 and up"};
        }
        version = *ofNumber;
    }

    bool parsePermit() {
        const std::string word = take("permit or deny");
        if (word != "permit" && word != "deny") {
            refuse("expected permit or deny");
        }
        return word == "permit";
    }

    void parseProtocol(const std::string &word) {
        if (word == "ip") {
            rule.protocol = -1;
        } else if (word == "tcp") {
            rule.protocol = ACL_PROTOCOL_TCP;
        } else if (word == "udp") {
            rule.protocol = ACL_PROTOCOL_UDP;
        } else if (word != "icmp") { // which ICMP, the addresses tell
            const long number = numberOf(word, 255);
            if (number < 0) {
                refuse("expected ip, tcp, udp, icmp or a protocol number 0 to 255");
            }
            rule.protocol = static_cast<int16_t>(number);
        }
    }

    void settleIcmp(const std::string &word) {
        if (word != "icmp") {
            return;
        }
        if (version == 0) {
            throw Refused{"word 2 'icmp': ACL " + std::to_string(aclNum) + " is of either IP version and no "
                          "address tells which ICMP is meant: name an address (0.0.0.0/0 or ::/0 for all), "
                          "or write protocol 1 (IPv4) or 58 (IPv6)"};
        }
        rule.protocol = version == 4 ? ACL_PROTOCOL_ICMP : ACL_PROTOCOL_ICMP_6;
    }

    AclPrefix parsePrefix() {
        const std::string word = take("a prefix or any");
        AclPrefix prefix;
        if (word == "any") {
            return prefix;
        }
        const size_t slash = word.find('/');
        const std::string address = word.substr(0, slash);
        const int family = parseAddress(address, prefix);
        checkFamily(family);
        const long most = family == 4 ? 32 : 128;
        const long length = slash == std::string::npos ? most : numberOf(word.substr(slash + 1), most);
        if (length < 0) {
            refuse("the prefix length must be a number 0 to " + std::to_string(most));
        }
        prefix.length = static_cast<uint8_t>(length);
        prefix.any = length == 0;
        checkHostBits(address, family, prefix);
        return prefix;
    }

    int parseAddress(const std::string &address, AclPrefix &prefix) const {
        // A zero byte would end the text early for inet_pton.
        if (std::strlen(address.c_str()) == address.size()) {
            if (inet_pton(AF_INET, address.c_str(), prefix.address.data()) == 1) {
                return 4;
            }
            if (inet_pton(AF_INET6, address.c_str(), prefix.address.data()) == 1) {
                return 6;
            }
        }
        refuse("expected an IPv4 or IPv6 prefix such as 10.1.0.0/16 or 2001:db8::/32, an address, or any");
    }

    void checkFamily(int family) {
        if (version == 0) {
            version = family;
        }
        if (version == family) {
            return;
        }
        const std::string own = family == 4 ? "IPv4" : "IPv6", other = family == 4 ? "IPv6" : "IPv4";
        if (aclVersion(aclNum) == 0) {
            refuse("this is " + own + " and the source is " + other + ": one rule is of one version");
        }
        refuse("this is " + own + " and ACL " + std::to_string(aclNum) + " takes " + other + " only: " + own +
               " ACLs are numbered " + (family == 4 ? "1001 to 2000" : "3001 to 4000") +
               ", those of either version 5001 and up");
    }

    void checkHostBits(const std::string &address, int family, AclPrefix &prefix) const {
        if (aclPrefixTrim(prefix.address, family, prefix.length)) {
            refuse("bits beyond the prefix length are set: write " +
                   aclPrefixText(family, prefix.address, prefix.length) + " for the network or " + address +
                   (family == 4 ? "/32" : "/128") + " for the one address");
        }
    }

    AclPorts parsePorts(const std::string &protocol) {
        AclPorts ports;
        if (!next("port")) {
            return ports;
        }
        if (rule.protocol != ACL_PROTOCOL_TCP && rule.protocol != ACL_PROTOCOL_UDP) {
            refuse("ports need protocol tcp or udp, not " + quoted(protocol));
        }
        const std::string word = take("a port N or a range N-M");
        const size_t dash = word.find('-');
        const long first = numberOf(word.substr(0, dash), 65535);
        const long last = dash == std::string::npos ? first : numberOf(word.substr(dash + 1), 65535);
        if (first < 0 || last < 0) {
            refuse("expected a port N or a range N-M, numbers 0 to 65535");
        }
        if (last < first) {
            refuse("the range ends before it begins: write " + std::to_string(last) + "-" +
                   std::to_string(first));
        }
        ports.first = static_cast<uint16_t>(first);
        ports.last = static_cast<uint16_t>(last);
        ports.any = first == 0 && last == 65535;
        return ports;
    }

    void checkEnd() {
        if (at == words.size()) {
            return;
        }
        const std::string word = words[at++];
        if (!hadTo && at == 3) {
            refuse("expected from or to");
        }
        if (word == "from" || word == "to") {
            refuse(word == "from" && hadTo ? "from comes before to" : "this part was given already");
        }
        refuse(hadTo ? "expected the end of the rule, or port N[-M] once behind an address"
                     : "expected to, or port N[-M] once behind an address");
    }

    uint32_t aclNum;
    std::vector<std::string> words;
    size_t at = 0;    // words taken
    int version = 0;  // 4, 6, or 0 while nothing tells
    bool hadTo = false;
    AclRule rule;
};

} // namespace

std::optional<AclRule> aclRuleParse(uint32_t aclNum, const std::string &text, std::string *pError) {
    try {
        if (text.size() > TEXT_MAX) {
            throw Refused{"the rule has " + std::to_string(text.size()) + " characters, at most " +
                          std::to_string(TEXT_MAX) + " are taken"};
        }
        return Parser(aclNum, text).parse();
    } catch (const Refused &refused) {
        *pError = refused.text;
        return std::nullopt;
    }
}

} // namespace host
