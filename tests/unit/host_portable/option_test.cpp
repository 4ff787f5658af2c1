// The option store: what is read, what is refused with its place, what wins.
#include <cstring>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/option/option.h"
#include "platform/sil_option.h"
#include "tests/unit/host_portable/support.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

class Option : public testing::Test {
protected:
    std::string load(const std::string &text, const std::vector<std::string> &overrides = {}) {
        file = options.root.file("test.conf", text);
        return host::optionLoad(overrides, file);
    }
    support::Options options;
    std::string file;
};

TEST_F(Option, LinesOfKeyAndValueAreRead) {
    ASSERT_EQ("", load("# a comment\n\n  host.device = memory \r\nhost.table-base=0x100000\n"
                       "\thost.group = staff # behind a blank\nhost.root = /a#b\npolicyroute.maxlistnum = many"));
    EXPECT_EQ("memory", host::optionGet("host.device"));
    EXPECT_EQ(0x100000u, host::optionNumber("host.table-base"));
    EXPECT_EQ("staff", host::optionGet("host.group"));
    EXPECT_EQ("/a#b", host::optionGet("host.root"));
    EXPECT_EQ("many", host::optionGet("policyroute.maxlistnum"));
}

TEST_F(Option, ACommentRightBehindTheEqualsSignLeavesAnEmptyValue) {
    ASSERT_EQ("", load("policyroute.maxlistnum =#64\nhost.group=# nobody\nhost.root=/a=#b\n"));

    EXPECT_EQ("", host::optionGet("policyroute.maxlistnum"));
    EXPECT_EQ("", host::optionGet("host.group"));
    EXPECT_EQ("/a=#b", host::optionGet("host.root"));
    EXPECT_EQ("--option host.vrf.a #b=7: unknown option 'host.vrf.a #b'", host::optionLoad({"host.vrf.a #b=7"}, "/dev/null"));
    EXPECT_EQ("--option host.device=#x: '#x' is no value for host.device: one of kernel, ebpf, memory is expected",
              host::optionLoad({"host.device=#x"}, "/dev/null"));
}

TEST_F(Option, WhatIsNotGivenHasItsDefaultOrNone) {
    ASSERT_EQ("", load(""));
    EXPECT_EQ("kernel", host::optionGet("host.device"));
    EXPECT_EQ(1000u, host::optionNumber("host.neighbour-probe-ms"));
    EXPECT_EQ(0xfff00000u, host::optionNumber("host.mark-mask"));
    EXPECT_EQ(std::nullopt, host::optionGet("policyroute.enable"));
    EXPECT_EQ(std::nullopt, host::optionGet("host.vrf.red"));
    EXPECT_EQ(0u, host::optionNumber("host.nothing"));
}

TEST_F(Option, TheCommandLineWinsAndItsLastWordToo) {
    ASSERT_EQ("", load("host.device = kernel\n",
                       {"host.device=memory", "host.adopt-wait-ms=5", "host.adopt-wait-ms=6"}));
    EXPECT_EQ("memory", host::optionGet("host.device"));
    EXPECT_EQ(6u, host::optionNumber("host.adopt-wait-ms"));
}

TEST_F(Option, AnErrorNamesFileAndLine) {
    const struct {
        const char *line;
        const char *says;
    } cases[] = {
        {"host.devise = memory", "unknown option 'host.devise'"},
        {"hostdevice", "'hostdevice' is not of the form key = value"},
        {"= memory", "unknown option ''"},
        {"host.vrf. = 3", "unknown option 'host.vrf.'"},
        {"policyroute.maxlists = 3", "unknown option 'policyroute.maxlists'"},
        {"host.device = switch", "'switch' is no value for host.device: one of kernel, ebpf, memory is expected"},
        {"host.read-others = maybe", "'maybe' is no value for host.read-others: one of yes, no is expected"},
        {"host.log = file", "'file' is no value for host.log: one of auto, stderr, syslog is expected"},
        {"host.rule-preference = ten",
         "'ten' is no value for host.rule-preference: a number from 1 to 4294967294 is expected"},
        {"host.mark-mask = 0x", "'0x' is no value for host.mark-mask"},
        {"host.mark-mask = 0x100000000", "is no value for host.mark-mask"},
        {"host.mark-mask = 12ab", "is no value for host.mark-mask"},
        {"host.mark-mask = -1", "is no value for host.mark-mask"},
        {"host.mark-mask =", "'' is no value for host.mark-mask"},
        {"host.adopt-wait-ms = 99999999999999999999", "is no value for host.adopt-wait-ms"},
        {"host.vrf.red = ten", "'ten' is no value for host.vrf.red"},
        {"host.root = here", "'here' is no value for host.root: an absolute path is expected"},
        {"host.log = stderr", "option 'host.log' was given in line 2"},
    };
    for (const auto &one : cases) {
        const std::string error = load(std::string("\nhost.log = syslog\n\n") + one.line + "\n");
        EXPECT_EQ(0u, error.find(file + ":4: ")) << error;
        EXPECT_NE(std::string::npos, error.find(one.says)) << error << " lacks " << one.says;
    }
}

TEST_F(Option, AZeroByteIsRefused) {
    EXPECT_EQ(0u, load(std::string("host.group = a\0b\n", 17)).find(file + ":1: "));
}

TEST_F(Option, AnErrorOfTheCommandLineNamesTheArgument) {
    EXPECT_EQ("--option host.devise=1: unknown option 'host.devise'", load("", {"host.devise=1"}));
    EXPECT_EQ("--option x: 'x' is not of the form key = value", load("", {"host.log=stderr", "x"}));
}

TEST_F(Option, NothingIsTakenOverWhenThereIsAnError) {
    ASSERT_EQ("", load("host.group = first\n"));
    EXPECT_NE("", load("host.group = second\nwrong\n"));
    EXPECT_EQ("first", host::optionGet("host.group"));
    EXPECT_NE("", load("host.group = second\n", {"wrong"}));
    EXPECT_EQ("first", host::optionGet("host.group"));
}

TEST_F(Option, AFileThatWasNamedMustBeReadable) {
    const std::string missing = options.root.path + "/missing.conf";
    EXPECT_EQ(0u, host::optionLoad({}, missing).find(missing + ": "));
    EXPECT_EQ(0u, host::optionLoad({}, options.root.path).find(options.root.path + ": "));
}

TEST_F(Option, AFamilyGivesWhatWasGiven) {
    ASSERT_EQ("", load("host.vrf.red = 10\nhost.vrf.blue-2 = 0x14\n"));
    EXPECT_EQ((Pairs{{"blue-2", "0x14"}, {"red", "10"}}), host::optionFamily("host.vrf"));
    EXPECT_EQ(20u, host::optionNumber("host.vrf.blue-2"));
    EXPECT_EQ(Pairs{}, host::optionFamily("host.v"));
}

TEST_F(Option, PathsAreBelowTheRootAndTheirFoldersAreMade) {
    const std::string root = options.root.path;
    ASSERT_EQ("", load("host.root = " + root + "/deep/er/\n"));
    EXPECT_EQ(root + "/deep/er/tmp/a.socket", host::optionPath("/tmp/a.socket"));
    struct stat status {};
    ASSERT_EQ(0, stat((root + "/deep/er/tmp").c_str(), &status));
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    ASSERT_EQ("", load(""));
    EXPECT_EQ("/tmp/a.socket", host::optionPath("/tmp/a.socket"));
}

TEST_F(Option, TheDaemonReadsAValueWithoutTerminatorCutToItsBuffer) {
    ASSERT_EQ("", load("policyroute.maxlistnum = 12345\npolicyroute.enable =\n"));
    char buffer[8] = "-------";
    EXPECT_EQ(5, silOptRead(0, "policyroute.maxlistnum", 0, 0, 1, buffer, 7));
    EXPECT_STREQ("12345--", buffer);
    EXPECT_EQ(3, silOptRead(0, "policyroute.maxlistnum", 0, 0, 1, buffer, 3));
    EXPECT_GE(0, silOptRead(0, "policyroute.enable", 0, 0, 1, buffer, 7));
    EXPECT_GE(0, silOptRead(0, "policyroute.processmerge", 0, 0, 1, buffer, 7));
    EXPECT_GE(0, silOptRead(0, nullptr, 0, 0, 1, buffer, 7));
    EXPECT_STREQ("12345--", buffer);
}

} // namespace
