// Tests of cli/probe_commands.cpp: the words of `pbrctl probe` as the request that the daemon gets, words that
// are refused before it is asked, and the report.
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/errors.h"
#include "tests/unit/cli/fake_daemon.h"

using nlohmann::json;
using Words = std::vector<std::string>;

namespace {

struct ProbeWords : testing::Test {
    FakeDaemon daemon;

    // The request that `pbrctl probe WORDS` sends; null, and a failure, when it sends none.
    json sent(Words words) {
        words.insert(words.begin(), "probe");
        EXPECT_EQ(daemon.pbrctl(words), cli::EXIT_DONE) << daemon.err;
        const Words log = daemon.log();
        daemon.logClear();
        return log.size() == 1 ? json{{"op", log[0].substr(0, log[0].find(' '))}, {"is", json::parse(log[0].substr(log[0].find(' ')))}}
                               : json();
    }
    // What is said of `pbrctl probe add ops/a WORDS`, which sends nothing.
    std::string wrong(Words words) {
        words.insert(words.begin(), {"probe", "add", "ops/a"});
        EXPECT_EQ(daemon.pbrctl(words), cli::EXIT_USAGE) << daemon.out;
        EXPECT_TRUE(daemon.log().empty());
        return daemon.err;
    }
};

void expectPart(const std::string &text, const std::string &part) {
    EXPECT_NE(text.find(part), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

TEST_F(ProbeWords, NothingIsSentThatWasNotSaid) {
    EXPECT_EQ(sent({"add", "ops/a", "icmp", "192.0.2.10"}),
              (json{{"op", "probe.set"}, {"is", {{"admin", "ops"}, {"test", "a"}, {"kind", "icmp"}, {"target", "192.0.2.10"}}}}));
}

TEST_F(ProbeWords, EachOptionIsAMemberOfTheRequest) {
    const json all = {{"admin", "ops"}, {"test", "a"}, {"kind", "http"}, {"target", "2001:db8::1"}, {"port", 8080},
                      {"path", "/health"}, {"host", "www.example.net"}, {"source", "2001:db8::2"}, {"interface", "lan0"},
                      {"vrf", 10}, {"via", "fe80::1"}, {"intervalMs", 50}, {"timeoutMs", 40}, {"downAfter", 2}, {"upAfter", 4}};
    EXPECT_EQ(sent({"add", "ops/a", "http", "2001:db8::1", "--port", "8080", "--path", "/health", "--host", "www.example.net",
                    "--source", "2001:db8::2", "--interface", "lan0", "--vrf", "10", "--via", "fe80::1", "--interval", "50ms",
                    "--timeout", "40ms", "--down-after", "2", "--up-after", "4"})["is"],
              all);
}

TEST_F(ProbeWords, TheFirstSlashEndsTheAdministrator) {
    EXPECT_EQ(sent({"del", "ops/isp/a"}), (json{{"op", "probe.del"}, {"is", {{"admin", "ops"}, {"test", "isp/a"}}}}));
    const std::string longest(32, 'x');
    EXPECT_EQ(sent({"clear", longest + "/" + longest})["is"], (json{{"admin", longest}, {"test", longest}}));
    EXPECT_EQ(sent({"clear"}), (json{{"op", "probe.clear"}, {"is", json::object()}})); // of all
}

TEST_F(ProbeWords, NamesHaveTwoPartsOfOneTo32Bytes) {
    for (const std::string &name : {std::string("ops"), std::string("/a"), std::string("ops/"), std::string(33, 'x') + "/a",
                                    "ops/" + std::string(33, 'x')}) {
        for (const Words &words : {Words{"probe", "add", name, "icmp", "192.0.2.10"}, Words{"probe", "del", name},
                                   Words{"probe", "clear", name}}) {
            EXPECT_EQ(daemon.pbrctl(words), cli::EXIT_USAGE);
            expectPart(daemon.err, "give ADMINISTRATOR/TEST, each of 1 to 32 bytes");
        }
    }
    EXPECT_TRUE(daemon.log().empty());
}

TEST_F(ProbeWords, WrongWordsAreToldByTheirOption) {
    expectPart(wrong({"ping", "192.0.2.10"}), "kind: ping not in");
    expectPart(wrong({"icmp", "www.example.net"}), "target 'www.example.net' is no IPv4 or IPv6 address");
    expectPart(wrong({"icmp", "192.0.2.10", "--source", "lan0"}), "source 'lan0' is no IPv4 or IPv6 address");
    expectPart(wrong({"icmp", "192.0.2.10", "--via", "next-hop"}), "via 'next-hop' is no IPv4 or IPv6 address");
    expectPart(wrong({"tcp", "192.0.2.10"}), "a probe of kind tcp needs --port");
    expectPart(wrong({"udp", "192.0.2.10"}), "a probe of kind udp needs --port");
    expectPart(wrong({"tcp", "192.0.2.10", "--port", "65536"}), "--port: Value 65536 not in range 1 to 65535");
    expectPart(wrong({"icmp", "192.0.2.10", "--down-after", "1001"}), "--down-after: Value 1001 not in range 1 to 1000");
    expectPart(wrong({"icmp", "192.0.2.10", "--up-after", "0"}), "--up-after: Value 0 not in range 1 to 1000");
    for (const char *pInterval : {"49ms", "61m", "1", "s", "-1s", "1h", "1.5s"}) {
        expectPart(wrong({"icmp", "192.0.2.10", "--interval", pInterval}),
                   "--interval '" + std::string(pInterval) + "' is no duration from 50ms to 60m");
    }
    expectPart(wrong({"icmp", "192.0.2.10", "--timeout", "0ms"}), "--timeout '0ms' is no duration from 1ms to 60m");
}

TEST_F(ProbeWords, TheReportTellsWhatIsAskedWhichWayAndHowItWent) {
    FakeStore store;
    store.probes["ops/a"] = {{"kind", "tcp"}, {"target", "192.0.2.10"}, {"port", 443}, {"via", "198.51.100.1"}, {"vrf", 10},
                             {"interface", "lan0"}, {"source", "192.0.2.1"}, {"intervalMs", 1500}};
    store.probes["ops/b"] = {{"kind", "http"}, {"target", "192.0.2.10"}, {"port", 80}, {"path", "/health"}, {"intervalMs", 120000}};
    daemon.put(store);

    ASSERT_EQ(daemon.pbrctl({"show", "probes"}), cli::EXIT_DONE) << daemon.err;

    std::vector<Words> cells;
    std::istringstream lines(daemon.out);
    for (std::string line; std::getline(lines, line);) {
        cells.emplace_back();
        for (size_t at = 0; at != std::string::npos; at = line.find_first_not_of(' ', line.find("  ", at))) {
            cells.back().push_back(line.substr(at, line.find("  ", at) - at));
            if (line.find("  ", at) == std::string::npos) {
                break;
            }
        }
    }
    ASSERT_EQ(cells.size(), 4u) << daemon.out; // the title, one that is only asked for, and ours
    EXPECT_EQ((Words{cells[1].begin(), cells[1].begin() + 3}), (Words{"asked/only", "-", "(not configured)"}));
    EXPECT_EQ(cells[2][2], "tcp 192.0.2.10 port 443");
    EXPECT_EQ(cells[2][3], "via 198.51.100.1 dev lan0 vrf 10 from 192.0.2.1");
    EXPECT_EQ(cells[2][4], "1500ms");
    EXPECT_EQ(cells[3][2], "http 192.0.2.10 /health");
    EXPECT_EQ((Words{cells[3].begin() + 3, cells[3].begin() + 5}), (Words{"-", "2m"}));
}

} // namespace
