// Configurations of probes: what is taken, what is refused, and why.
#include <gtest/gtest.h>

#include "host/nqa/nqa_config.h"

namespace {

using namespace host;
using nlohmann::json;

std::string refusal(const std::string &text) {
    try {
        (void)nqaConfigRead(json::parse(text), false);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "taken";
}

TEST(NqaConfig, HasDefaults) {
    const NqaConfig config = nqaConfigRead(json::parse(R"({"kind": "icmp", "target": "192.0.2.1"})"), false);

    EXPECT_EQ(config.timing, (NqaTiming{1000, 500, 3, 1}));
    EXPECT_EQ(config.question.vrf, 0u);
    EXPECT_EQ(nqaConfigRead(json::parse(R"({"kind": "icmp", "target": "::1", "intervalMs": 50})"), false).timing.timeoutMs, 50u);
    EXPECT_EQ(nqaConfigRead(json::parse(R"({"kind": "http", "target": "::1"})"), false).question.port, 80);
}

TEST(NqaConfig, IsWrittenAsItIsRead) {
    for (const char *pText :
         {R"({"kind": "icmp", "target": "192.0.2.1"})",
          R"({"kind": "tcp", "target": "2001:db8::1", "port": 53, "source": "2001:db8::2", "vrf": 7, "upAfter": 2})",
          R"({"kind": "udp", "target": "192.0.2.1", "port": 7, "via": "198.51.100.1", "interface": "upa"})",
          R"({"kind": "http", "target": "192.0.2.1", "port": 8080, "path": "/x?y=1", "host": "a.example", "intervalMs": 50, "timeoutMs": 1, "downAfter": 1000})"}) {
        const json given = json::parse(pText);
        const NqaConfig config = nqaConfigRead(given, false);
        const json written = nqaConfigWrite(config);
        EXPECT_EQ(nqaConfigRead(written, false), config) << written;
        for (const auto &[key, value] : given.items()) {
            EXPECT_EQ(written.at(key), value) << key;
        }
    }
}

TEST(NqaConfig, SaysWhatItRefuses) {
    const std::pair<const char *, const char *> rows[] = {
        {R"({"target": "192.0.2.1"})", "member \"kind\" is missing"},
        {R"({"kind": "dns", "target": "192.0.2.1"})", "must be icmp, tcp, udp or http"},
        {R"({"kind": "icmp"})", "member \"target\" is missing"},
        {R"({"kind": "icmp", "target": 5})", "must be a text"},
        {R"({"kind": "icmp", "target": "host.example"})", "must be an IPv4 or IPv6 address, not 'host.example'"},
        {R"({"kind": "icmp", "target": "192.0.2.1\u0000x"})", "must be an IPv4 or IPv6 address"},
        {R"({"kind": "icmp", "target": "0.0.0.0"})", "0.0.0.0 is no host's address"},
        {R"({"kind": "icmp", "target": "255.255.255.255"})", "is no single host's address"},
        {R"({"kind": "icmp", "target": "224.0.0.1"})", "is no single host's address"},
        {R"({"kind": "icmp", "target": "::"})", ":: is no host's address"},
        {R"({"kind": "icmp", "target": "ff02::1"})", "is no single host's address"},
        {R"({"kind": "icmp", "target": "::ffff:192.0.2.1"})", "is an IPv4 address"},
        {R"({"kind": "icmp", "target": "fe80::1"})", "is a link-local address: it needs \"interface\""},
        {R"({"kind": "icmp", "target": "2001:db8::1", "via": "fe80::1"})", "is a link-local address: it needs \"interface\""},
        {R"({"kind": "icmp", "target": "192.0.2.1", "port": 7})", "\"port\" has no meaning for kind icmp"},
        {R"({"kind": "tcp", "target": "192.0.2.1"})", "member \"port\" is missing"},
        {R"({"kind": "tcp", "target": "192.0.2.1", "port": 0})", "1 to 65535"},
        {R"({"kind": "tcp", "target": "192.0.2.1", "port": 65536})", "1 to 65535"},
        {R"({"kind": "tcp", "target": "192.0.2.1", "port": 7, "path": "/"})", "\"path\" has no meaning for kind tcp"},
        {R"({"kind": "http", "target": "192.0.2.1", "path": "x"})", "must begin with a slash"},
        {R"({"kind": "http", "target": "192.0.2.1", "path": "/ HTTP/1.1\r\nX: y"})", "printable characters"},
        {R"({"kind": "http", "target": "192.0.2.1", "host": "a\r\nX: y"})", "printable characters"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "source": "::1"})", "must be an IPv4 address as the target is"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "via": "::1"})", "must be an IPv4 address as the target is"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "interface": "0123456789abcdef"})", "1 to 15 characters"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "interface": ""})", "1 to 15 characters"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "intervalMs": 49})", "50 to 3600000"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "timeoutMs": 0})", "1 to 3600000"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "timeoutMs": 1001})", "1001 is longer than the interval of 1000 ms"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "downAfter": 0})", "1 to 1000"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "upAfter": -1})", "1 to 1000"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "vrf": 4294967295})", "0 to 4294967294"},
        {R"({"kind": "icmp", "target": "192.0.2.1", "retries": 1})", "unknown member \"retries\""},
        {R"({"kind": "icmp", "target": "192.0.2.1", "admin": "a"})", "unknown member \"admin\""},
    };
    for (const auto &[pText, pWanted] : rows) {
        EXPECT_NE(refusal(pText).find(pWanted), std::string::npos) << pText << ": " << refusal(pText);
    }
}

TEST(NqaConfig, NamesHaveOneTo32Bytes) {
    EXPECT_THROW(nqaNameCheck("", "admin"), std::runtime_error);
    EXPECT_NO_THROW(nqaNameCheck(std::string(32, 'n'), "test"));
    EXPECT_THROW(nqaNameCheck(std::string(33, 'n'), "test"), std::runtime_error);
}

TEST(NqaConfig, TheHostHeaderNamesThePortWhereItIsUnusual) {
    NqaQuestion question;
    question.kind = NqaKind::Http;
    question.target = {6, {0x20, 0x01, 0x0d, 0xb8}};
    question.port = 80;
    EXPECT_EQ(nqaHostOf(question), "[2001:db8::]");
    question.port = 8080;
    EXPECT_EQ(nqaHostOf(question), "[2001:db8::]:8080");
    question.host = "a.example";
    EXPECT_EQ(nqaHostOf(question), "a.example");
}

} // namespace
