// The parser of ACL rules: words from left to right, and for each refusal a text that names the word,
// its place and what may stand there.
#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>
#include <vector>

#include "aclrule/acl_rule.h"
#include "aclrule/acl_rule_names.h"

namespace aclrule {

namespace {

constexpr size_t TEXT_MAX = 512; // the longest rule that can be written takes about 400
constexpr size_t ECHO_MAX = 64;  // bytes of a word that are repeated in an error text

constexpr const char *PROTOCOL_WORDS =
    "ip, tcp, udp, icmp, another protocol's name such as gre, or a protocol number 0 to 255";
constexpr const char *PORT_WORDS = "a port N or a range N-M";
constexpr const char *OPTION_WORDS =
    "flags, established, type, dscp, precedence, fragments, length or source-mac";

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
int64_t numberOf(const std::string &word, int64_t most) {
    int64_t value = -1;
    const char *pEnd = word.data() + word.size();
    const auto result = std::from_chars(word.data(), pEnd, value);
    const bool isNumber = !word.empty() && word[0] != '-' && result.ec == std::errc() && result.ptr == pEnd;
    return isNumber && value <= most ? value : -1;
}

std::string versionName(int version) { return version == 4 ? "IPv4" : "IPv6"; }

class Parser {
public:
    Parser(uint32_t acl, const std::string &text) : aclNum(acl), words(splitWords(text)) {}

    AclRule parse() {
        checkAcl();
        rule.permit = parsePermit();
        protocolWord = take(PROTOCOL_WORDS);
        parseProtocol();
        if (next("from")) {
            rule.source = parsePrefix();
            rule.sourcePorts = parsePorts();
        }
        if (next("to")) {
            rule.destination = parsePrefix();
            rule.destinationPorts = parsePorts();
            hadTo = true;
        }
        settleIcmp();
        const size_t begin = at;
        while (at < words.size()) {
            parseOption(begin);
        }
        rule.version = static_cast<uint8_t>(version);
        checkTogether();
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

    // ---- protocol ----

    void parseProtocol() {
        if (protocolWord == "ip" || protocolWord == "icmp") { // which ICMP, the addresses tell
            rule.protocol = -1;
            return;
        }
        const int named = aclProtocolNumber(protocolWord);
        const int64_t number = named >= 0 ? named : numberOf(protocolWord, 255);
        if (number < 0) {
            refuse(std::string("expected ") + PROTOCOL_WORDS);
        }
        rule.protocol = static_cast<int16_t>(number);
    }

    void settleIcmp() {
        if (protocolWord != "icmp") {
            return;
        }
        if (version == 0) {
            throw Refused{"word 2 'icmp': ACL " + std::to_string(aclNum) + " is of either IP version and no "
                          "address tells which ICMP is meant: name an address (0.0.0.0/0 or ::/0 for all), "
                          "or write protocol 1 (IPv4) or 58 (IPv6)"};
        }
        rule.protocol = version == 4 ? ACL_PROTOCOL_ICMP : ACL_PROTOCOL_ICMP_6;
    }

    bool isIcmp() const {
        return (version == 4 && rule.protocol == ACL_PROTOCOL_ICMP) ||
               (version == 6 && rule.protocol == ACL_PROTOCOL_ICMP_6);
    }

    // ---- addresses ----

    AclPrefix parsePrefix() {
        const std::string word = take("an address, a prefix or any");
        AclPrefix prefix;
        if (word == "any") {
            return prefix;
        }
        const size_t slash = word.find('/');
        const std::string address = word.substr(0, slash);
        const int family = parseAddress(address, prefix.address);
        if (family == 0) {
            refuse("expected an IPv4 or IPv6 prefix such as 10.1.0.0/16 or 2001:db8::/32, an address, or any");
        }
        checkFamily(family);
        if (slash == std::string::npos && next("mask")) {
            parseWildcard(family, prefix);
            return prefix;
        }
        const int64_t most = family == 4 ? 32 : 128;
        const int64_t length = slash == std::string::npos ? most : numberOf(word.substr(slash + 1), most);
        if (length < 0) {
            refuse("the prefix length must be a number 0 to " + std::to_string(most));
        }
        prefix.length = static_cast<uint8_t>(length);
        prefix.any = length == 0;
        checkHostBits(address, family, prefix);
        return prefix;
    }

    // Result: 4, 6, or 0 when the text is no address.
    static int parseAddress(const std::string &text, AclAddress &address) {
        // A zero byte would end the text early for inet_pton.
        if (std::strlen(text.c_str()) == text.size()) {
            if (inet_pton(AF_INET, text.c_str(), address.data()) == 1) {
                return 4;
            }
            if (inet_pton(AF_INET6, text.c_str(), address.data()) == 1) {
                return 6;
            }
        }
        return 0;
    }

    void parseWildcard(int family, AclPrefix &prefix) {
        const std::string word = take("a wildcard such as 0.0.255.0");
        AclAddress wildcard{};
        if (parseAddress(word, wildcard) != family) {
            refuse("expected a wildcard of the address's IP version, such as " +
                   std::string(family == 4 ? "0.0.255.0" : "::ffff:0:0:0:0") + ": ones are bits that may be anything");
        }
        AclAddress trimmed = prefix.address;
        for (size_t i = 0; i < trimmed.size(); i++) {
            trimmed[i] &= static_cast<uint8_t>(~wildcard[i]);
        }
        if (trimmed != prefix.address) {
            refuse("the address has bits set that the wildcard leaves out: write " +
                   aclAddressText(family, trimmed) + " mask " + word +
                   " (ones of a wildcard are bits that may be anything)");
        }
        settleWildcard(family, wildcard, prefix);
    }

    // Ones at the end only are a prefix, nothing but ones is any address.
    static void settleWildcard(int family, const AclAddress &wildcard, AclPrefix &prefix) {
        const size_t bytes = family == 4 ? 4 : 16;
        for (unsigned length = 0; length <= bytes * 8; length++) {
            AclAddress hostBits{}; // the wildcard of a prefix of that length
            for (size_t bit = length; bit < bytes * 8; bit++) {
                hostBits[bit / 8] |= static_cast<uint8_t>(0x80u >> bit % 8);
            }
            if (hostBits == wildcard) {
                prefix.length = static_cast<uint8_t>(length);
                prefix.any = length == 0;
                return;
            }
        }
        prefix.wildcard = wildcard;
        prefix.any = false;
    }

    void checkFamily(int family) {
        if (version == 0) {
            version = family;
        }
        if (version == family) {
            return;
        }
        const std::string own = versionName(family), other = versionName(10 - family);
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

    // ---- ports and other ranges ----

    // N or N-M out of 0..most.
    std::pair<int64_t, int64_t> parseRange(const std::string &word, const std::string &what, int64_t most) const {
        const size_t dash = word.find('-');
        const int64_t first = numberOf(word.substr(0, dash), most);
        const int64_t last = dash == std::string::npos ? first : numberOf(word.substr(dash + 1), most);
        if (first < 0 || last < 0) {
            refuse("expected " + what + ", numbers 0 to " + std::to_string(most));
        }
        if (last < first) {
            refuse("the range ends before it begins: write " + std::to_string(last) + "-" +
                   std::to_string(first));
        }
        return {first, last};
    }

    AclPorts parsePorts() {
        AclPorts ports;
        if (!next("port")) {
            return ports;
        }
        if (!aclProtocolHasPorts(rule.protocol)) {
            refuse("ports need protocol tcp, udp, sctp, udplite or dccp, not " + quoted(protocolWord));
        }
        const auto [first, last] = parseRange(take(PORT_WORDS), PORT_WORDS, 65535);
        ports.first = static_cast<uint16_t>(first);
        ports.last = static_cast<uint16_t>(last);
        ports.any = first == 0 && last == 65535;
        return ports;
    }

    // ---- options ----

    using Read = void (Parser::*)();
    struct Option {
        const char *pWord;
        Read read;
    };

    void parseOption(size_t begin) {
        static const Option OPTIONS[] = {
            {"flags", &Parser::parseFlags},         {"established", &Parser::parseEstablished},
            {"type", &Parser::parseType},           {"dscp", &Parser::parseDscp},
            {"precedence", &Parser::parsePrecedence}, {"fragments", &Parser::parseFragments},
            {"length", &Parser::parseLength},       {"source-mac", &Parser::parseSourceMac},
        };
        const bool isFirst = at == begin;
        const std::string word = words[at++];
        for (const Option &option : OPTIONS) {
            if (word == option.pWord) {
                once(word);
                (this->*option.read)();
                return;
            }
        }
        refuseWord(word, isFirst);
    }

    void once(const std::string &word) {
        if (std::find(seen.begin(), seen.end(), word) != seen.end()) {
            refuse("this option was given already");
        }
        seen.push_back(word);
    }

    [[noreturn]] void refuseWord(const std::string &word, bool isFirst) const {
        const std::string options = std::string("an option: ") + OPTION_WORDS;
        if (!isFirst && (word == "from" || word == "to")) {
            refuse("addresses come before the options");
        }
        if (word == "from" || word == "to") {
            refuse(word == "from" && hadTo ? "from comes before to" : "this part was given already");
        }
        if (word == "code") {
            refuse("code stands behind type N");
        }
        if (word == "mask") {
            refuse("mask stands behind an address without a prefix length");
        }
        const bool hadAddress = at > 3;
        refuse(!isFirst     ? "expected " + options
               : hadTo      ? "expected port N[-M] once behind an address, or " + options
               : hadAddress ? "expected to, port N[-M] once behind an address, or " + options
                            : "expected from, to, or " + options);
    }

    void needTcp() const {
        if (rule.protocol != ACL_PROTOCOL_TCP) {
            refuse("this option needs protocol tcp, not " + quoted(protocolWord));
        }
    }

    void parseFlags() {
        needTcp();
        const std::string word = take("TCP flags such as syn,!ack");
        for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
            end = word.find(',', begin);
            const std::string part = word.substr(begin, end - begin);
            const bool isClear = part[0] == '!'; // of an empty part: the zero behind its end
            const uint8_t bit = aclFlagBit(isClear ? part.substr(1) : part);
            if (bit == 0) {
                refuse("expected TCP flags separated by commas, each with ! when it must not be set: " +
                       aclFlagNames());
            }
            if (((rule.flagsSet | rule.flagsClear) & bit) != 0) {
                refuse("a flag is named twice");
            }
            (isClear ? rule.flagsClear : rule.flagsSet) |= bit;
        }
    }

    void parseEstablished() {
        needTcp();
        rule.established = true;
    }

    void parseType() {
        if (!isIcmp()) {
            refuse(version == 0 ? "a type needs protocol icmp and an address that tells the IP version "
                                  "(0.0.0.0/0 or ::/0 for all)"
                                : "a type needs protocol icmp, which is " +
                                      std::to_string(version == 4 ? ACL_PROTOCOL_ICMP : ACL_PROTOCOL_ICMP_6) +
                                      " of " + versionName(version));
        }
        const std::string word = take("an ICMP type");
        const int named = aclIcmpTypeNumber(version, word);
        const int64_t type = named >= 0 ? named : numberOf(word, 255);
        if (type < 0) {
            refuse("expected a type of " + versionName(version) + "'s ICMP: a number 0 to 255, or " +
                   aclIcmpTypeNames(version));
        }
        rule.icmpType = static_cast<int16_t>(type);
        if (next("code")) {
            rule.icmpCode = static_cast<int16_t>(number("an ICMP code", 255));
        }
    }

    int64_t number(const char *pWhat, int64_t most) {
        const int64_t value = numberOf(take(pWhat), most);
        if (value < 0) {
            refuse(std::string("expected ") + pWhat + ", a number 0 to " + std::to_string(most));
        }
        return value;
    }

    void parseDscp() {
        const std::string word = take("a DSCP");
        const int named = aclDscpNumber(word);
        const int64_t value = named >= 0 ? named : numberOf(word, 63);
        if (value < 0) {
            refuse("expected a DSCP: a number 0 to 63, cs0 to cs7, af11 to af43, ef, va or le");
        }
        rule.dscp = static_cast<int8_t>(value);
        checkClass();
    }

    void parsePrecedence() {
        rule.precedence = static_cast<int8_t>(number("a precedence", 7));
        checkClass();
    }

    void checkClass() const {
        if (rule.dscp >= 0 && rule.precedence >= 0) {
            refuse("dscp and precedence are of the same bits: give one of them");
        }
    }

    void parseFragments() { rule.fragments = true; }

    void parseLength() {
        const int64_t least = version == 6 ? ACL_LENGTH_LEAST_6 : ACL_LENGTH_LEAST_4;
        const int64_t most = version == 4 ? ACL_LENGTH_MOST_4 : ACL_LENGTH_MOST_6;
        const char *pWhat = "a length in bytes N or a range N-M";
        const auto [first, last] = parseRange(take(pWhat), pWhat, ACL_LENGTH_MOST_6);
        if (first < least || last > most) {
            refuse((version == 0 ? "a packet" : "an " + versionName(version) + " packet") + " has " +
                   std::to_string(least) + " to " + std::to_string(most) + " bytes with its IP header");
        }
        if (first == least && last == most) {
            return; // every packet
        }
        rule.length = {static_cast<uint32_t>(first), static_cast<uint32_t>(last), false};
    }

    void parseSourceMac() {
        const std::string word = take("a MAC address");
        rule.sourceMac = aclMacRead(word);
        if (!rule.sourceMac) {
            refuse("expected a MAC address such as 02:00:5e:00:53:01");
        }
        if (((*rule.sourceMac)[0] & 1) != 0) {
            refuse("this is the MAC address of a group, which no packet has as its source");
        }
    }

    // Later fragments do not carry the header behind the IP header.
    void checkTogether() const {
        const bool needsHeader = !rule.sourcePorts.any || !rule.destinationPorts.any || rule.established ||
                                 (rule.flagsSet | rule.flagsClear) != 0 || rule.icmpType >= 0;
        if (rule.fragments && needsHeader) {
            throw Refused{"fragments are matched without ports, flags, established and type: later fragments of a "
                          "packet do not carry these"};
        }
    }

    uint32_t aclNum;
    std::vector<std::string> words;
    size_t at = 0;    // words taken
    int version = 0;  // 4, 6, or 0 while nothing tells
    bool hadTo = false;
    std::string protocolWord;
    std::vector<std::string> seen; // options taken
    AclRule rule;
};

} // namespace

std::optional<AclMac> aclMacRead(const std::string &word) {
    AclMac mac{};
    if (word.size() != mac.size() * 3 - 1) {
        return std::nullopt;
    }
    for (size_t i = 0; i < mac.size(); i++) {
        const char *pPair = word.data() + i * 3;
        const auto result = std::from_chars(pPair, pPair + 2, mac[i], 16);
        if (result.ec != std::errc() || result.ptr != pPair + 2 || (i + 1 < mac.size() && pPair[2] != ':')) {
            return std::nullopt;
        }
    }
    return mac;
}

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

} // namespace aclrule
