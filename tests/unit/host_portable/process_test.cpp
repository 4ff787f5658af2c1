// What surrounds the process: arguments, the lock, socket files, rights, signals, crashes.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/logging/host_log.h"
#include "host/option/option.h"
#include "host/process/arguments.h"
#include "host/process/peer_rights.h"
#include "host/process/run_lock.h"
#include "host/process/shell.h"
#include "host/process/stop_signals.h"
#include "host/process/unix_listen.h"
#include "platform/icm.h"
#include "platform/qrv_hwil.h"
#include "platform/sil_process.h"
#include "tests/unit/host_portable/support.h"

namespace {

// ---- arguments ----

host::Arguments parse(std::vector<std::string> words) {
    words.insert(words.begin(), "policyrouted");
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return host::argumentsParse(static_cast<int>(words.size()), argv.data());
}

TEST(Arguments, NoneAreFine) {
    const host::Arguments arguments = parse({});
    EXPECT_EQ("", arguments.error);
    EXPECT_TRUE(arguments.options.empty());
    EXPECT_EQ("", arguments.configFile);
    EXPECT_FALSE(arguments.isHelpWanted || arguments.isVersionWanted);
}

TEST(Arguments, OptionsAreKeptInOrderInBothForms) {
    const host::Arguments arguments =
        parse({"--option", "a=1", "--option=b=2 3", "--foreground", "--config", "/x", "--option", "a=4"});
    EXPECT_EQ("", arguments.error);
    EXPECT_EQ((std::vector<std::string>{"a=1", "b=2 3", "a=4"}), arguments.options);
    EXPECT_EQ("/x", arguments.configFile);
}

TEST(Arguments, HelpAndVersionAreRecognised) {
    EXPECT_TRUE(parse({"--help"}).isHelpWanted);
    EXPECT_TRUE(parse({"--version"}).isVersionWanted);
    const std::string help = host::argumentsHelp();
    for (const char *word : {"--option", "--config", "host.root", "host.device (kernel)", "host.vrf.NAME"}) {
        EXPECT_NE(std::string::npos, help.find(word)) << word;
    }
}

TEST(Arguments, AnErrorNamesTheArgument) {
    EXPECT_EQ("unknown argument '--verbose'; --help names all", parse({"--foreground", "--verbose"}).error);
    EXPECT_EQ("unknown argument '-x'; --help names all", parse({"-x"}).error);
    EXPECT_EQ("unknown argument 'start'; --help names all", parse({"start"}).error);
    EXPECT_EQ("unknown argument 'late'; --help names all", parse({"--option", "a=1", "late", "--help"}).error);
    EXPECT_EQ("--option needs a value", parse({"--option"}).error);
    EXPECT_EQ("--config needs a value", parse({"--config"}).error);
    EXPECT_EQ("--config needs a file name", parse({"--config="}).error);
    EXPECT_EQ("unknown argument '--foreground=yes'; --help names all", parse({"--foreground=yes"}).error);
    EXPECT_EQ("", parse({}).error); // nothing is left over from the calls before
}

// ---- the lock ----

TEST(RunLock, ASecondDaemonOnTheSameRootIsRefusedAndAnotherRootIsFree) {
    support::Options options;
    ASSERT_EQ("", host::runLockTake());
    const std::string path = options.root.path + "/run/policyroute/policyrouted.lock";
    EXPECT_EQ(path + " is held by process " + std::to_string(getpid()) +
                  ": stop it, or name another folder with host.root",
              host::runLockTake());
    support::Options other;
    EXPECT_EQ("", host::runLockTake());
}

TEST(RunLock, AFileThatNobodyHoldsAnyMoreIsTaken) {
    support::Options options;
    const std::string path = host::optionPath("/run/policyroute/policyrouted.lock");
    options.root.file("run/policyroute/policyrouted.lock", "12345678 stale and long\n");
    EXPECT_EQ("", host::runLockTake());
    char text[64] = {};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_LT(0, read(fd, text, sizeof(text) - 1));
    close(fd);
    EXPECT_EQ(std::to_string(getpid()) + "\n", text);
}

TEST(RunLock, WhatWasPutInItsPlaceIsRefusedAndLeftAlone) {
    support::Options options;
    const std::string path = host::optionPath("/run/policyroute/policyrouted.lock");
    const std::string precious = options.root.file("precious", "precious");
    const std::string remedy = ": remove it, or name another folder with host.root";
    ASSERT_EQ(0, symlink(precious.c_str(), path.c_str()));
    EXPECT_EQ(path + " exists and is no regular file" + remedy, host::runLockTake());
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, mkfifo(path.c_str(), 0666));
    EXPECT_EQ(path + " exists and is no regular file" + remedy, host::runLockTake());
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, mkdir(path.c_str(), 0777));
    EXPECT_EQ(path + " exists and is no regular file" + remedy, host::runLockTake());
    ASSERT_EQ(0, rmdir(path.c_str()));
    ASSERT_EQ(0, link(precious.c_str(), path.c_str()));
    EXPECT_EQ(path + " has a second name" + remedy, host::runLockTake());
    struct stat status {};
    ASSERT_EQ(0, stat(precious.c_str(), &status));
    EXPECT_EQ(8, status.st_size);
}

TEST(RunLock, AFileThatCannotBeMadeIsAnErrorThatNamesIt) {
    support::Options options({"host.root=/proc/self/nowhere"});
    EXPECT_EQ(0u, host::runLockTake().find("/proc/self/nowhere/run/policyroute/policyrouted.lock: "));
}

// ---- hanging up ----

TEST(HangUp, ThePeerReadsWhatWasSentAlthoughItsOwnWordsWereNot) {
    for (int type : {SOCK_STREAM, SOCK_SEQPACKET}) {
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends));
        for (int i = 0; i < 3; i++) {
            ASSERT_EQ(4, send(ends[1], "mine", 4, 0));
        }
        ASSERT_EQ(2, send(ends[0], "no", 2, 0));
        host::unixHangUp(ends[0]);
        char heard[8];
        EXPECT_EQ(2, recv(ends[1], heard, sizeof(heard), 0)) << strerror(errno);
        EXPECT_EQ(0, recv(ends[1], heard, sizeof(heard), 0));
        close(ends[1]);
    }
}

// ---- socket files ----

class SocketFile : public testing::Test {
protected:
    SocketFile() : path(options.root.path + "/a.socket") {}
    ~SocketFile() override {
        if (fd >= 0) {
            host::unixUnlisten(path, fd);
        }
    }
    std::string listenNow() { return host::unixListen(path, SOCK_STREAM, &fd); }
    mode_t modeOf(const std::string &file) {
        struct stat status {};
        return lstat(file.c_str(), &status) == 0 ? status.st_mode : 0;
    }
    bool canConnect() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path.c_str());
        const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int result = connect(client, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        close(client);
        return result == 0;
    }

    support::Options options;
    const std::string path;
    int fd = -1;
};

TEST_F(SocketFile, HasItsModeWhateverTheUmask) {
    const mode_t before = umask(0777);
    EXPECT_EQ("", listenNow());
    umask(before);
    EXPECT_EQ(static_cast<mode_t>(S_IFSOCK | 0660), modeOf(path));
    EXPECT_TRUE(canConnect());
}

TEST_F(SocketFile, OneThatNobodyServesIsReplaced) {
    ASSERT_EQ("", listenNow());
    close(fd); // as after a crash
    EXPECT_FALSE(canConnect());
    EXPECT_EQ("", listenNow());
    EXPECT_TRUE(canConnect());
}

TEST_F(SocketFile, OneThatIsServedIsLeftAlone) {
    ASSERT_EQ("", listenNow());
    int other = -1;
    EXPECT_EQ(path + " is served by another process: stop it, or name another folder with host.root",
              host::unixListen(path, SOCK_STREAM, &other));
    EXPECT_EQ(-1, other);
    EXPECT_TRUE(canConnect());
}

TEST_F(SocketFile, OneOfAnotherSocketTypeThatIsServedIsLeftAlone) {
    ASSERT_EQ("", listenNow());
    int other = -1;
    EXPECT_NE("", host::unixListen(path, SOCK_SEQPACKET, &other));
    EXPECT_TRUE(canConnect());
}

TEST_F(SocketFile, AFileOfAnotherKindIsNeverRemoved) {
    options.root.file("a.socket", "precious");
    EXPECT_EQ(path + " exists and is no socket: remove it, or name another folder with host.root", listenNow());
    EXPECT_TRUE(S_ISREG(modeOf(path)));
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    EXPECT_NE("", listenNow());
    EXPECT_TRUE(S_ISDIR(modeOf(path)));
    ASSERT_EQ(0, rmdir(path.c_str()));
    ASSERT_EQ(0, symlink("elsewhere", path.c_str()));
    EXPECT_NE("", listenNow());
    EXPECT_TRUE(S_ISLNK(modeOf(path)));
}

TEST_F(SocketFile, AFifoInItsPlaceIsLeftAlone) {
    ASSERT_EQ(0, mkfifo(path.c_str(), 0666));
    EXPECT_EQ(path + " exists and is no socket: remove it, or name another folder with host.root", listenNow());
    EXPECT_TRUE(S_ISFIFO(modeOf(path)));
}

TEST_F(SocketFile, NothingElseStaysBesideIt) {
    ASSERT_EQ("", listenNow());
    options.root.file("b.socket", "in the way");
    int other = -1;
    EXPECT_NE("", host::unixListen(options.root.path + "/b.socket", SOCK_STREAM, &other));
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(options.root.path)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{"a.socket", "b.socket", "empty.conf"}), names);
}

TEST_F(SocketFile, AFolderThatIsNoFolderIsNamed) {
    options.root.file("tmp", "in the way");
    EXPECT_EQ(options.root.path + "/tmp exists and is no folder: remove it, or name another folder with host.root",
              host::unixListen(options.root.path + "/tmp/a.socket", SOCK_STREAM, &fd));
}

TEST_F(SocketFile, AtTheEndOurFilesAreRemovedAndOnlyOurs) {
    ASSERT_EQ("", listenNow());
    const std::string otherPath = options.root.path + "/b.socket";
    int other = -1;
    ASSERT_EQ("", host::unixListen(otherPath, SOCK_SEQPACKET, &other));
    ASSERT_EQ(0, unlink(otherPath.c_str()));
    options.root.file("b.socket", "of somebody else");
    host::filesRemove();
    EXPECT_EQ(0u, modeOf(path));
    EXPECT_TRUE(S_ISREG(modeOf(otherPath)));
    close(other);
}

TEST_F(SocketFile, AFolderThatIsNotThereIsAnErrorThatNamesThePath) {
    const std::string error = host::unixListen("/proc/self/none/a.socket", SOCK_STREAM, &fd);
    EXPECT_EQ(0u, error.find("cannot make /proc/self/none/a.socket: ")) << error;
    EXPECT_EQ(-1, fd);
}

// ---- rights ----

TEST(Rights, RootTheOwnerAndTheGroupMayWriteAndOthersReadIfAllowed) {
    const host::PeerPolicy closed{.owner = 1000, .group = 50, .areOthersReading = false};
    const host::PeerPolicy open{.owner = 1000, .group = 50, .areOthersReading = true};
    const host::PeerPolicy alone{.owner = 1000, .group = std::nullopt, .areOthersReading = false};
    EXPECT_EQ(host::PeerRight::Write, host::peerRightOf({0, {}}, alone));
    EXPECT_EQ(host::PeerRight::Write, host::peerRightOf({1000, {1000}}, alone));
    EXPECT_EQ(host::PeerRight::Write, host::peerRightOf({7, {7, 50}}, closed));
    EXPECT_EQ(host::PeerRight::Write, host::peerRightOf({7, {50}}, open));
    EXPECT_EQ(host::PeerRight::None, host::peerRightOf({7, {7, 51}}, closed));
    EXPECT_EQ(host::PeerRight::Read, host::peerRightOf({7, {7, 51}}, open));
    EXPECT_EQ(host::PeerRight::None, host::peerRightOf({7, {0}}, alone)); // root's group is not root
}

TEST(Rights, ComeFromTheOptions) {
    std::string error;
    {
        support::Options options({"host.group=50", "host.read-others=yes"});
        const auto policy = host::peerPolicy(&error);
        ASSERT_TRUE(policy);
        EXPECT_EQ(50u, policy->group);
        EXPECT_TRUE(policy->areOthersReading);
    }
    {
        support::Options options;
        const auto policy = host::peerPolicy(&error);
        ASSERT_TRUE(policy);
        EXPECT_FALSE(policy->group);
        EXPECT_FALSE(policy->areOthersReading);
    }
    support::Options options({"host.group=no-such-group-here"});
    EXPECT_FALSE(host::peerPolicy(&error));
    EXPECT_EQ("option host.group: there is no group 'no-such-group-here'", error);
    int fd = -1;
    EXPECT_EQ(error, host::unixListen(options.root.path + "/a.socket", SOCK_STREAM, &fd));
}

TEST(Rights, TheOtherEndOfASocketIsRecognised) {
    support::Options options;
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    EXPECT_EQ(host::PeerRight::Write, host::peerRight(ends[0]));
    close(ends[0]);
    close(ends[1]);
    support::StderrCapture quiet;
    EXPECT_EQ(host::PeerRight::None, host::peerRight(-1));
}

// ---- signals: in a process of their own ----

[[noreturn]] void endBySignal(int number) {
    host::optionLoad({"host.log=stderr"}, "/dev/null");
    host::stopSignalsWatch();
    kill(getpid(), number);
    for (;;) {
        pause();
    }
}

// The framework runs suites of such a name before all others: the event thread does not exist yet, so the
// children that it forks start their own. (Starting the program afresh instead fails under emulation.)
class SignalsDeathTest : public testing::Test {
protected:
    SignalsDeathTest() { GTEST_FLAG_SET(death_test_style, "fast"); }
};

TEST_F(SignalsDeathTest, AStopIsLoggedAndEndsTheProcessWell) {
    EXPECT_EXIT(endBySignal(SIGTERM), testing::ExitedWithCode(0),
                "notice process: Terminated from process [0-9]+: ending");
    EXPECT_EXIT(endBySignal(SIGINT), testing::ExitedWithCode(0), "notice process: Interrupt from process");
}

TEST_F(SignalsDeathTest, AStopRemovesOurSocketFiles) {
    support::Folder folder;
    const std::string path = folder.path + "/a.socket";
    ASSERT_EXIT(
        {
            int fd = -1;
            if (host::unixListen(path, SOCK_STREAM, &fd) != "" || access(path.c_str(), F_OK) != 0) {
                _exit(9);
            }
            endBySignal(SIGTERM);
        },
        testing::ExitedWithCode(0), "ending");
}

void crash(int number) {
    silCatchSegFault();
    raise(number);
    _exit(0);
}

TEST_F(SignalsDeathTest, ACrashIsReportedAndKeepsItsSignal) {
    EXPECT_EXIT(crash(SIGSEGV), testing::KilledBySignal(SIGSEGV), "policyrouted: signal 11 at address 0x");
    EXPECT_EXIT(crash(SIGABRT), testing::KilledBySignal(SIGABRT), "policyrouted: signal 6 at address 0x");
}

// ---- the rest of the seam ----

TEST(Shell, KeepsItsName) {
    EXPECT_EQ(0, procShellInit("pbr", 0, 0));
    EXPECT_EQ("pbr", host::shellName());
    EXPECT_NE(0, procShellInit(nullptr, 0, 0));
    EXPECT_EQ("pbr", host::shellName());
}

TEST(Hardware, IsAlwaysReady) {
    uint32_t value = 0;
    EXPECT_NE(0u, qrvHwilScalarGet(0, QRV_SCALAR_READY, &value));
    EXPECT_NE(0u, value);
    EXPECT_NE(0u, qrvHwilScalarGet(0, QRV_SCALAR_ARP_REFRESH, nullptr));
    const uint32_t key[4] = {1, 2, 3, 4};
    EXPECT_NE(0u, qrvHwilSlotGet(key, 0x01F4002B, nullptr));
    EXPECT_NE(0u, qrvHwilCardGet(key, 0x02EE002A, nullptr));
    EXPECT_EQ(24u, qrvSelfSysIndex()); // the length of a card message without payload
}

TEST(Hardware, KeepsTheProtocolIdAndRefusesWhatItDoesNotHave) {
    const uint32_t id = 206;
    EXPECT_EQ(0u, qrvHwilScalarSet(0, QRV_SCALAR_PROTOCOL, &id, 0));
    uint32_t value = 0;
    EXPECT_EQ(206u, qrvHwilScalarGet(0, QRV_SCALAR_PROTOCOL, &value));
    EXPECT_EQ(206u, value);
    EXPECT_NE(0u, qrvHwilScalarSet(0, 498, &id, 0));
    EXPECT_NE(0u, qrvHwilScalarSet(1, QRV_SCALAR_PROTOCOL, &id, 0));
    EXPECT_NE(0u, qrvHwilScalarSet(0, QRV_SCALAR_PROTOCOL, nullptr, 0));
    EXPECT_EQ(0u, qrvHwilScalarGet(0, 1, &value));
    EXPECT_EQ(0u, value);
}

TEST(Hardware, EveryAcceptedSetMayProceed) {
    const PbrApiValue value{1, 0};
    const PbrSyncCtx context{3, 18, {}, 4, {}};
    EXPECT_EQ(0u, qrvHwilCmdSyncApi("key", 0x070A8001, &value, &context));
    EXPECT_EQ(0u, qrvHwilCmdSyncApi(nullptr, 0x001F4004, &value, &context));
}

} // namespace
