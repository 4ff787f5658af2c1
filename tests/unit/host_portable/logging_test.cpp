// Log lines: their form, that they stay whole, and that nobody waits for a reader.
#include <cerrno>
#include <chrono>
#include <climits>
#include <regex>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "host/logging/host_log.h"
#include "host/logging/log_line.h"
#include "platform/logging.h"
#include "tests/unit/host_portable/support.h"

namespace {

using Lines = std::vector<std::string>;

TEST(LogLines, LineEndsAreStrippedAndInnerOnesBreakTheText) {
    EXPECT_EQ((Lines{"pbr allocate  memory success."}), host::logLines("pbr allocate  memory success.\r\n"));
    EXPECT_EQ((Lines{"a", "b", "c"}), host::logLines("\n\ra\r\nb\n\n\rc\r\n"));
    EXPECT_EQ(Lines{}, host::logLines("\r\n"));
    EXPECT_EQ(Lines{}, host::logLines(""));
}

TEST(LogLines, ControlCharactersCannotReachATerminal) {
    EXPECT_EQ((Lines{"a?[31mb?\tc"}), host::logLines("a\x1b[31mb\x7f\tc"));
}

TEST(LogLines, BytesBeyondAsciiStayAsTheyAre) {
    EXPECT_EQ((Lines{"gr\xc3\xbc\xc3\x9f"}), host::logLines("gr\xc3\xbc\xc3\x9f\n"));
}

TEST(LogLines, ModulesAndLevelsHaveNames) {
    EXPECT_EQ("pbr", host::logModuleName(0x044B0000));
    EXPECT_EQ("pbr-hw", host::logModuleName(0x044B0003));
    EXPECT_EQ("0x01020304", host::logModuleName(0x01020304));
    EXPECT_STREQ("error", host::logLevelName(3));
    EXPECT_STREQ("debug", host::logLevelName(7));
    EXPECT_STREQ("debug", host::logLevelName(99));
    EXPECT_STREQ("emergency", host::logLevelName(-1));
}

TEST(LogLines, ALongTextIsCutToWhatAPipeTakesWhole) {
    const timespec now{};
    const std::string line = host::logStderrLine(now, 6, "m", std::string(10000, 'x'));
    EXPECT_EQ(host::LOG_LINE_BYTES, line.size());
    EXPECT_EQ('\n', line.back());
    EXPECT_LE(host::LOG_LINE_BYTES, static_cast<size_t>(PIPE_BUF));
    EXPECT_EQ(host::LOG_LINE_BYTES, host::logSyslogLine(now, 6, "m", std::string(10000, 'x'), 1).size());
}

TEST(LogLines, ADatagramForTheSystemsLogCarriesFacilityAndLevel) {
    const std::string line = host::logSyslogLine({}, 4, "hrd", "peer down", 42);
    EXPECT_TRUE(std::regex_match(line, std::regex("<28>[A-Z][a-z]{2} [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d "
                                                  "policyrouted\\[42\\]: hrd: peer down")))
        << line;
}

class Log : public testing::Test {
protected:
    support::Options options;
    support::StderrCapture captured;
};

TEST_F(Log, ALineHasTimeLevelModuleAndText) {
    host::hostLog(host::LOG_LEVEL_NOTICE, "bus", "%d of %s", 3, "four");
    const std::string text = captured.take();
    EXPECT_TRUE(std::regex_match(
        text, std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} notice bus: 3 of four\n")))
        << text;
}

TEST_F(Log, TheDaemonsTextsAreUnchangedButForTheirLineEnds) {
    loggingDebugOutput(0x044B0002, 7, 0, "receive netlink message: len=%d left=%d plen=%d \r\n", 1, 2, 3);
    loggingLogOutput(0x044B0003, 6, 284, "two\r\nlines\r\n");
    const std::string text = captured.take();
    EXPECT_NE(std::string::npos, text.find(" debug pbr-rtm: receive netlink message: len=1 left=2 plen=3 \n"));
    EXPECT_NE(std::string::npos, text.find(" info pbr-hw: two\n"));
    EXPECT_NE(std::string::npos, text.find(" info pbr-hw: lines\n"));
}

TEST_F(Log, TheErrorNumberOfTheCallerStays) {
    errno = ENOENT;
    host::hostLog(host::LOG_LEVEL_INFO, "m", "text");
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Log, LinesOfManyThreadsStayWhole) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int line = 0; line < 20; ++line) {
                const std::string text(100, static_cast<char>('a' + i));
                host::hostLog(host::LOG_LEVEL_INFO, "m", "%s end", text.c_str());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::istringstream text(captured.take());
    const std::regex whole(".* info m: (a{100}|b{100}|c{100}|d{100}) end");
    int count = 0;
    for (std::string line; std::getline(text, line); ++count) {
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    }
    EXPECT_EQ(80, count);
}

TEST_F(Log, AReaderThatDoesNotReadCostsLinesThatAreCountedAndNotTime) {
    const std::string filler(3000, 'f');
    const auto begin = std::chrono::steady_clock::now();
    for (int line = 0; line < 200; ++line) { // far more than a pipe holds
        host::hostLog(host::LOG_LEVEL_INFO, "m", "%s", filler.c_str());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    (void)captured.take();
    host::hostLog(host::LOG_LEVEL_INFO, "m", "there is room again");
    const std::string text = captured.take();
    EXPECT_TRUE(std::regex_search(text, std::regex(" warning log: \\d+ lines were lost"))) << text;
    EXPECT_NE(std::string::npos, text.find("there is room again"));
    host::hostLog(host::LOG_LEVEL_INFO, "m", "next");
    EXPECT_EQ(std::string::npos, captured.take().find("lost"));
}

} // namespace
