// The request for the state of a probe test.
#include "rtmsg/pbr_nqa_request.h"

#include <gtest/gtest.h>

#include "core/pbr_info.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Lines = std::vector<std::string>;

class NqaRequest : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeList("a");
        pNqa = makeNqa("ops", "isp-a");
        fake::takeTrace();
    }
    void TearDown() override { checkStore(); }
    PbrNqaEntry *pNqa = nullptr;
};

// The fake also proves that every byte beside the fields is zero and that the length word is 92.
TEST_F(NqaRequest, BothNamesTravelWithTheirLengths) {
    EXPECT_GE(pbrNqaStatusReqRtmsgSend(pNqa), 0);

    EXPECT_EQ(fake::takeTrace(), Lines{"qrvNetlinkSGrpSend(89, 350, admin=\"ops\"/3 test=\"isp-a\"/5 status=0)"});
}

TEST_F(NqaRequest, NamesOfFullLengthTravelWhole) {
    const std::string admin(32, 'x');
    const std::string test(32, 'y');

    pbrNqaStatusReqRtmsgSend(makeNqa(admin, test));

    EXPECT_EQ(fake::takeTrace().back(),
              "qrvNetlinkSGrpSend(89, 350, admin=\"" + admin + "\"/32 test=\"" + test + "\"/32 status=0)");
}

TEST_F(NqaRequest, ASentRequestIsTraced) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    pbrNqaStatusReqRtmsgSend(pNqa);

    EXPECT_EQ(fake::takeTexts(), Lines{"debug 0x044B0002 7 0 \"pbr send QRV_RTM_NQA_STATEREQ OK!\\r\\n\""});
}

TEST_F(NqaRequest, AFailedRequestIsTracedWithBothTextsAndNotRepeated) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::answer("qrvNetlinkSGrpSend", -1);
    fake::answer("errnoGet", 105);

    EXPECT_LT(pbrNqaStatusReqRtmsgSend(pNqa), 0);

    const Lines trace = fake::takeTrace();
    ASSERT_EQ(trace.size(), 3u);
    EXPECT_EQ(trace[1], "debug 0x044B0002 7 0 \"pbr send QRV_RTM_NQA_STATEREQ ERROR 105!\\r\\n\"");
    EXPECT_EQ(trace[2], "debug 0x044B0002 7 0 \"pbr send QRV_RTM_NQA_STATEREQ OK!\\r\\n\"");
}

TEST_F(NqaRequest, NothingIsTracedWhileTheGeneralBitIsClear) {
    gPbrInfo.debugFlags = ~PBR_DEBUG_GENERAL;
    fake::answer("qrvNetlinkSGrpSend", -1);

    pbrNqaStatusReqRtmsgSend(pNqa);

    EXPECT_EQ(fake::takeTexts(), Lines{});
}

} // namespace
