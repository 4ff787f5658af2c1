// Tests of cli/usage.cpp: a wrong command line is told in one line that names what is wrong and where help is.
#include <fstream>

#include <gtest/gtest.h>

#include "cli/errors.h"
#include "tests/unit/cli/fake_daemon.h"

namespace {

TEST(Usage, IsOneLineThatNamesCommandAndReason) {
    FakeDaemon daemon;
    const std::pair<std::vector<std::string>, const char *> rows[] = {
        {{}, "pbrctl: a command is missing. 'pbrctl --help' tells more\n"},
        {{"--json"}, "pbrctl: a command is missing. 'pbrctl --help' tells more\n"},
        {{"frobnicate"}, "pbrctl: 'frobnicate' is no command. 'pbrctl --help' tells more\n"},
        {{"show"}, "pbrctl: show: a command is missing. 'pbrctl show --help' tells more\n"},
        {{"show", "nothing"}, "pbrctl: show: 'nothing' is no command. 'pbrctl show --help' tells more\n"},
        {{"apply"}, "pbrctl: apply: file is required. 'pbrctl apply --help' tells more\n"},
        {{"acl", "create", "x"}, "pbrctl: acl create: acl: 'x' is no number, or too large. 'pbrctl acl create --help' tells more\n"},
        {{"acl", "add", "1501", "0", "permit", "ip"},
         "pbrctl: acl add: rule: Value 0 not in range 1 to 4294967295. 'pbrctl acl add --help' tells more\n"},
        {{"apply", "f", "--dry"}, "pbrctl: apply: The following argument was not expected: --dry. 'pbrctl apply --help' tells more\n"}};
    for (const auto &[words, pText] : rows) {
        EXPECT_EQ(daemon.pbrctl(words), cli::EXIT_USAGE);
        EXPECT_EQ(daemon.err, pText);
        EXPECT_EQ(daemon.out, "");
    }
}

TEST(Usage, AFileThatIsNoneIsToldBeforeAnythingElse) {
    FakeDaemon daemon;
    EXPECT_EQ(daemon.pbrctl({"apply", daemon.root()}), cli::EXIT_USAGE);
    EXPECT_EQ(daemon.err, "pbrctl: " + daemon.root() + ": cannot be read: Is a directory\n");
    EXPECT_EQ(daemon.pbrctl({"diff", daemon.root() + "/none"}), cli::EXIT_USAGE);
    EXPECT_EQ(daemon.err, "pbrctl: " + daemon.root() + "/none: cannot be read: No such file or directory\n");
    std::ofstream(daemon.root() + "/empty") << "# nothing yet\n";
    EXPECT_EQ(daemon.pbrctl({"apply", daemon.root() + "/empty"}), cli::EXIT_REFUSED);
    EXPECT_NE(daemon.err.find("empty:1: the file is empty: it must be a map with"), std::string::npos) << daemon.err;
    EXPECT_TRUE(daemon.log().empty());
}

} // namespace
