// Tests of where pbrctl looks for the daemon when the command line does not say it.
#include "cli/default_root.h"

#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

class DefaultRoot : public testing::Test {
protected:
    DefaultRoot() {
        unsetenv(cli::ROOT_ENVIRONMENT);
        char text[] = "/tmp/pbr-root-XXXXXX";
        const int fd = mkstemp(text);
        EXPECT_GE(fd, 0);
        close(fd);
        path = text;
    }
    ~DefaultRoot() override {
        unlink(path.c_str());
        unsetenv(cli::ROOT_ENVIRONMENT);
    }
    void fileHas(const std::string &text) { std::ofstream(path) << text; }
    std::string path;
};

TEST_F(DefaultRoot, IsTheMachineItselfWithoutFileAndEnvironment) {
    EXPECT_EQ("", cli::defaultRoot("/nonexistent/policyroute.conf"));
}

TEST_F(DefaultRoot, IsWhatTheDaemonsOptionFileSays) {
    fileHas("# host.root = /commented\n\nhost.group = x\n  host.root =  /run/policyroute  # here\r\n");
    EXPECT_EQ("/run/policyroute", cli::defaultRoot(path));
    fileHas("host.root = /with#sign\n");
    EXPECT_EQ("/with#sign", cli::defaultRoot(path));
}

TEST_F(DefaultRoot, IsTheMachineItselfWhenTheFileNamesNone) {
    for (const char *text : {"", "host.group = x\n", "host.root\n", "host.roots = /a\n", "#host.root = /a\n", "host.root=#/a\n"}) {
        fileHas(text);
        EXPECT_EQ("", cli::defaultRoot(path)) << text;
    }
}

TEST_F(DefaultRoot, TheEnvironmentWinsAlsoWhenItSaysNothing) {
    fileHas("host.root = /run/policyroute\n");
    setenv(cli::ROOT_ENVIRONMENT, "/tmp/other", 1);
    EXPECT_EQ("/tmp/other", cli::defaultRoot(path));
    setenv(cli::ROOT_ENVIRONMENT, "", 1);
    EXPECT_EQ("", cli::defaultRoot(path));
}

} // namespace
