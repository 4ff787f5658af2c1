// Opening and closing the route socket: the order of the calls, the texts, what is given back.
#include "rtmsg/pbr_rt_sock.h"

#include <gtest/gtest.h>

#include "core/pbr_info.h"
#include "tests/fake/fake.h"

namespace {

using Lines = std::vector<std::string>;

const Lines OPENING = {
    "qrv_socket(16, 2, 0)",
    "qrv_ioctl(3, 0x8004667e, 1)",
    "qrv_bind(3, len=0 family=16 pad=0 port=0 groups=0, 12)",
    "qrv_setsockopt(3, 270, 0x1, 3, 4)",
    "qrv_setsockopt(3, 270, 0x1, 1, 4)",
    "qrv_setsockopt(3, 270, 0x1, 77, 4)",
    "qrv_setsockopt(3, 270, 0x1, 56, 4)",
    "qrv_setsockopt(3, 270, 0x1, 89, 4)",
    "qrv_setsockopt(3, 65535, 0x1002, 2500000, 4)",
    "qrv_setsockopt(3, 65535, 0x1019, 206, 4)",
};

struct Opened {
    int32_t fd;
    std::string out, err;
};

Opened open() {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Opened opened;
    opened.fd = pbrRtSockOpen();
    fflush(stdout);
    opened.out = testing::internal::GetCapturedStdout();
    opened.err = testing::internal::GetCapturedStderr();
    return opened;
}

class RtSock : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(RtSock, OpeningMakesItsCallsInOrder) {
    const Opened opened = open();

    EXPECT_EQ(opened.fd, 3);
    EXPECT_EQ(fake::takeTrace(), OPENING);
    EXPECT_EQ(opened.out, "");
    EXPECT_EQ(opened.err, "");
}

TEST_F(RtSock, ASocketThatCannotBeMadeIsPrintedWithItsNumber) {
    fake::answer("qrv_socket", -1);
    fake::answer("errnoGet", 24);

    const Opened opened = open();

    EXPECT_EQ(opened.fd, -1);
    EXPECT_EQ(opened.out, "Create netlink socket failed(errno#24)!\r\n");
    EXPECT_EQ(opened.err, "");
    EXPECT_EQ(fake::takeTrace(), Lines{"qrv_socket(16, 2, 0)"});
}

TEST_F(RtSock, ADescriptorThatTheReadSetCannotHoldIsRefused) {
    fake::answer("qrv_socket", 1024);

    EXPECT_EQ(open().fd, -1);
    EXPECT_EQ(fake::takeTrace(), (Lines{"qrv_socket(16, 2, 0)", "qrv_close(1024)"}));

    fake::answer("qrv_socket", 1023);
    EXPECT_EQ(open().fd, 1023);
}

TEST_F(RtSock, AFailureToMakeItNonBlockingIsNotLookedAt) {
    fake::answer("qrv_ioctl", -1);

    EXPECT_EQ(open().fd, 3);
}

struct Failure {
    uint32_t step; // of OPENING, the call that fails
    const char *out;
    const char *err;
};

class RtSockFailure : public RtSock, public ::testing::WithParamInterface<Failure> {};

TEST_P(RtSockFailure, EachFailurePrintsItsTextAndClosesTheSocket) {
    const Failure &failure = GetParam();
    if (failure.step == 2) {
        fake::answer("qrv_bind", -1);
    } else {
        fake::answerNth("qrv_setsockopt", failure.step - 2, -1);
    }

    const Opened opened = open();

    EXPECT_EQ(opened.fd, -1);
    EXPECT_EQ(opened.out, failure.out);
    // perror puts a colon and the error's name behind its text.
    const std::string err = failure.err;
    EXPECT_EQ(opened.err.substr(0, err.size()), err);
    EXPECT_EQ(opened.err.empty(), err.empty());
    Lines expected(OPENING.begin(), OPENING.begin() + failure.step + 1);
    expected.push_back("qrv_close(3)");
    EXPECT_EQ(fake::takeTrace(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, RtSockFailure,
    ::testing::Values(Failure{2, "", "pbr route Sock bind failed.\r\n: "},
                      Failure{3, "", "pbr route Sock setsockopt QRV_RTNLGRP_NEIGH failed.\r\n: "},
                      Failure{4, "", "pbr route Sock setsockopt QRV_RTNLGRP_LINK failed.\r\n: "},
                      Failure{5, "pbr route Sock setsockopt QRV_RTNLGRP_HRD.", ""},
                      Failure{6, "", "pbr route Sock setsockopt RTNLGRP_ACL.: "},
                      Failure{7, "", "pbr route Sock setsockopt RTNLGRP_NQA.: "},
                      Failure{8, "", "pbr route Sock setsockopt QRV_SO_RCVBUF failed.\r\n: "},
                      Failure{9, "", "pbr route Sock name failed.\r\n: "}));

TEST_F(RtSock, AnOptionFailsWithAnyAnswerButZeroAndABindWithANegativeOneOnly) {
    fake::answerNth("qrv_setsockopt", 7, 1);
    EXPECT_EQ(open().fd, -1);

    fake::reset();
    fake::answer("qrv_bind", 1);
    EXPECT_EQ(open().fd, 3);
}

TEST_F(RtSock, EveryFailingCallGivesTheDescriptorBack) {
    for (uint32_t n = 1;; ++n) {
        fake::reset();
        fake::failNth(n);
        const int32_t fd = open().fd;
        if (!fake::faultHit()) {
            EXPECT_EQ(n, 10u);
            return;
        }
        EXPECT_EQ(fd, -1) << fake::faultCall();
        const Lines trace = fake::takeTrace();
        EXPECT_EQ(trace.back() == "qrv_close(3)", n != 1);
    }
}

TEST_F(RtSock, ClosingClosesOnce) {
    gPbrInfo.rtSock = open().fd;
    fake::takeTrace();

    pbrSocketClose();
    pbrSocketClose();

    EXPECT_EQ(gPbrInfo.rtSock, -1);
    EXPECT_EQ(fake::takeTrace(), Lines{"qrv_close(3)"});
}

} // namespace
