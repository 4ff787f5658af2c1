// Device rules of single ACL rules: the record byte for byte, which next hops it takes, the texts.
#include "hw/pbr_acl_rule_hw.h"

#include <algorithm>

#include "platform/acl_dev_entry.h"
#include "store/pbr_if_node_entry.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::hwText;
using steps::Lines;
using steps::logText;

constexpr uint32_t ACL = 1501;
constexpr uint32_t RULE = 0x10005; // its low 16 bits are the place of the rule

std::string hwLog(uint32_t flags, const std::string &text) {
    return logText(0x044B0003, 6, flags, text);
}

class AclRuleHw : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeList("a");
        pNode_ = makeNode("a", 10, {.acl = ACL, .ipVer = 1});
        pLink_ = pbrIfNodeEntryAdd(makeIf(7), pNode_);
        fake::nameInterface(7, "lan0");
        (void)fake::takeTrace();
    }
    void TearDown() override { checkStore(); }

    void hops(std::initializer_list<const char *> addresses) {
        for (const char *pAddress : addresses) {
            hops_.push_back(makeNextHop(pNode_, static_cast<uint32_t>(hops_.size() + 1), pAddress));
        }
        (void)fake::takeTrace();
    }
    void chooseAll() {
        for (PbrNextHopEntry *pHop : hops_) {
            pHop->curSelected = 1;
        }
    }
    void writeAll() {
        for (PbrNextHopEntry *pHop : hops_) {
            pHop->lastSelected = 1;
        }
    }
    // The words of the record between the match fields and what names the rule: "224:01000000 276:0a000001".
    std::string addActions() { return actions("03e80135", pbrAclRuleHwAdd(pLink_, ACL, RULE)); }
    std::string delActions() { return actions("03e80136", pbrAclRuleHwDel(pLink_, ACL, RULE)); }
    std::string actions(const std::string &type, int32_t result) {
        wordsTake(type, result);
        if (words_ == "none") {
            return words_;
        }
        const size_t from = std::min(words_.find(" 224:"), words_.find(" 228:"));
        const size_t to = words_.find(" 476:000005dd 480:00010005 484:00050000");
        EXPECT_TRUE(from < to && to != std::string::npos) << words_;
        return words_.substr(from + 1, to - from - 1);
    }
    // Keeps the record that was sent, "none" without.
    void wordsTake(const std::string &type, int32_t result) {
        EXPECT_EQ(0, result);
        words_ = "none";
        for (const std::string &line : fake::takeCalls()) {
            const std::string head = "qrvIfSetApi(7, 44, type=0x" + type + " ";
            if (line.rfind("qrvIfSetApi", 0) == 0) {
                EXPECT_EQ(head, line.substr(0, head.size()));
                words_ = line.substr(head.size(), line.size() - head.size() - 1);
            }
        }
    }
    std::string counters() const {
        return std::to_string(gPbrInfo.hwAclAddCnt) + " " + std::to_string(gPbrInfo.hwAclAddErr) + " " +
               std::to_string(gPbrInfo.hwAclDelCnt) + " " + std::to_string(gPbrInfo.hwAclDelErr);
    }

    PbrNodeEntry *pNode_ = nullptr;
    PbrIfNodeEntry *pLink_ = nullptr;
    std::vector<PbrNextHopEntry *> hops_;
    std::string words_; // the whole record of the latest operation
};

// ---- the record ----

TEST_F(AclRuleHw, AnAddCarriesTheTranslationAndTheChosenNextHop) {
    hops({"10.0.0.1"});
    chooseAll();
    EXPECT_EQ("224:01000000 276:0a000001", addActions());
    EXPECT_EQ("68:00000002 72:01000000 224:01000000 276:0a000001 476:000005dd 480:00010005 484:00050000", words_);
}

TEST_F(AclRuleHw, ADeleteNamesTheRuleAndTheWrittenNextHopWithoutTranslation) {
    fake::ruleTranslation(std::vector<uint8_t>(508, 0xFF));
    hops({"10.0.0.1"});
    writeAll();
    EXPECT_EQ("224:01000000 276:0a000001", delActions());
    EXPECT_EQ("68:00000002 72:01000000 224:01000000 276:0a000001 476:000005dd 480:00010005 484:00050000", words_);
}

TEST_F(AclRuleHw, AnAddClearsOfTheTranslationExactlyWhatBelongsToTheAction) {
    fake::ruleTranslation(std::vector<uint8_t>(508, 0xFF));
    pNode_->outIfUnit = 12;
    wordsTake("03e80135", pbrAclRuleHwAdd(pLink_, ACL, RULE));
    std::string expected;
    for (uint32_t offset = 0; offset < 508; offset += 4) {
        char word[20];
        uint32_t value = 0xFFFFFFFFu;
        switch (offset) {
        case 68: value = 0xFFFFFF02u; break;         // layer type 2
        case 216: value = 0xFF8FFFFFu; break;        // match bits 41, 42 and 43
        case 224: value = 0x08000000u; break;        // action bit 4
        case 276: value = 12; break;
        case 408: value = 0x0000FFFFu; break;        // out action; 410 and 411 are not ours
        case 464: value = 0xFFFFFF00u; break;        // direction
        case 476: value = ACL; break;
        case 480: value = RULE; break;
        case 484: value = 0x0005FFFFu; break;
        default:
            if ((offset >= 224 && offset < 408) || (offset >= 412 && offset < 436)) {
                value = 0;
            }
        }
        if (value != 0) {
            snprintf(word, sizeof(word), "%s%u:%08x", expected.empty() ? "" : " ", offset, value);
            expected += word;
        }
    }
    EXPECT_EQ(expected, words_);
}

TEST_F(AclRuleHw, AnAddLeavesTheTranslatedVersionForIPv6AndSetsItForIPv4) {
    std::vector<uint8_t> record(508, 0);
    record[72] = 9;
    fake::ruleTranslation(record);
    hops({"10.0.0.1"});
    chooseAll();
    (void)addActions();
    EXPECT_NE(words_.find(" 72:01000000 "), std::string::npos) << words_;
    pNode_->policyRouteIpVer = 2;
    (void)addActions();
    EXPECT_NE(words_.find(" 72:09000000 "), std::string::npos) << words_;
    pNode_->outIfUnit = 12;
    pNode_->policyRouteIpVer = 1;
    (void)addActions();
    EXPECT_NE(words_.find(" 72:09000000 "), std::string::npos) << words_;
}

TEST_F(AclRuleHw, ADeleteFollowsTheNodesVersionInEveryCaseAndHasNoneForOthers) {
    const char *const expected[] = {nullptr, " 72:01000000 ", " 72:02000000 ", nullptr, nullptr};
    for (uint32_t outIf : {0u, 12u}) {
        pNode_->outIfUnit = outIf;
        pbrNodeIpPriSet(pNode_, 3);
        for (uint32_t version = 0; version < 5; version++) {
            pNode_->policyRouteIpVer = static_cast<uint8_t>(version);
            (void)delActions();
            if (expected[version] == nullptr) {
                EXPECT_EQ(words_.find(" 72:"), std::string::npos) << words_;
            } else {
                EXPECT_NE(words_.find(expected[version]), std::string::npos) << words_;
            }
        }
    }
}

TEST_F(AclRuleHw, OnASingleIPv4NodeTheLastChosenNextHopWins) {
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    hops_[0]->curSelected = hops_[1]->curSelected = 1;
    hops_[1]->lastSelected = hops_[2]->lastSelected = 2; // any value but 0 counts
    EXPECT_EQ("224:01000000 276:0a000002", addActions());
    EXPECT_EQ("224:01000000 276:0a000003", delActions());
}

TEST_F(AclRuleHw, AnIPv4EcmpNodeFillsTheFourSlotsInOrderUnderTheSameBit) {
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"});
    chooseAll();
    writeAll();
    hops_[1]->curSelected = hops_[2]->lastSelected = 0;
    for (uint32_t isEcmp : {1u, 2u, 3u}) {
        pbrNodeIsEcmpSet(pNode_, isEcmp);
        EXPECT_EQ("224:01000000 276:0a000001 280:0a000003 284:0a000004 288:0a000005", addActions());
        EXPECT_EQ("224:01000000 276:0a000001 280:0a000002 284:0a000004 288:0a000005", delActions());
    }
    chooseAll(); // a fifth has no slot
    EXPECT_EQ("224:01000000 276:0a000001 280:0a000002 284:0a000003 288:0a000004", addActions());
}

TEST_F(AclRuleHw, OnASingleIPv6NodeTheLastChosenNextHopWins) {
    pNode_->policyRouteIpVer = 2;
    hops({"2001:db8::1", "2001:db8::2"});
    chooseAll();
    writeAll();
    EXPECT_EQ("228:00020000 324:20010db8 336:00000002", addActions());
    EXPECT_EQ("228:00020000 324:20010db8 336:00000002", delActions());
}

TEST_F(AclRuleHw, AnIPv6EcmpAddPutsEveryLaterMemberIntoSlotOneWhereADeleteFillsAllSlots) {
    pNode_->policyRouteIpVer = 2;
    pbrNodeIsEcmpSet(pNode_, 1);
    hops({"2001:db8::1", "2001:db8::2", "2001:db8::3"});
    chooseAll();
    writeAll();
    EXPECT_EQ("228:00002000 324:20010db8 336:00000001 340:20010db8 352:00000003", addActions());
    EXPECT_EQ("228:00002000 324:20010db8 336:00000001 340:20010db8 352:00000002 356:20010db8 368:00000003",
              delActions());
    hops({"2001:db8::4", "2001:db8::5"});
    chooseAll();
    writeAll();
    EXPECT_EQ("228:00002000 324:20010db8 336:00000001 340:20010db8 352:00000005", addActions());
    EXPECT_EQ("228:00002000 324:20010db8 336:00000001 340:20010db8 352:00000002 356:20010db8 368:00000003 "
              "372:20010db8 384:00000004", delActions());
}

TEST_F(AclRuleHw, AVrfGoesWithTheNextHops) {
    hops({"10.0.0.1"});
    chooseAll();
    writeAll();
    pNode_->vrfid = 0x01020304;
    EXPECT_EQ("224:01000000 228:00400000 276:0a000001 316:01020304", addActions());
    EXPECT_EQ("224:01000000 228:00400000 276:0a000001 316:01020304", delActions());
}

TEST_F(AclRuleHw, AnOutInterfaceStandsAloneWithThePriority) {
    hops({"10.0.0.1"});
    chooseAll();
    pNode_->outIfUnit = 0x0102;
    pNode_->vrfid = 4;
    EXPECT_EQ("224:08000000 276:00000102", addActions());
    pbrNodeIpPriSet(pNode_, 3);
    EXPECT_EQ("224:08010000 232:00000003 276:00000102", addActions());
    EXPECT_EQ("224:08010000 232:00000003 276:00000102", delActions());
}

TEST_F(AclRuleHw, ANodeWithAPriorityOnlySendsARuleWithThePriorityOnly) {
    pbrNodeIpPriSet(pNode_, 3);
    EXPECT_EQ("224:00010000 232:00000003", addActions());
    EXPECT_EQ("224:00010000 232:00000003", delActions());
    pbrNodeIpPriSet(pNode_, 0); // priority 0 is one too
    EXPECT_EQ("224:00010000", addActions());
}

TEST_F(AclRuleHw, WithoutAChosenNextHopAnAddSendsNothingAndADeleteIsSentAllTheSame) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    pNode_->vrfid = 4;
    EXPECT_EQ(0, pbrAclRuleHwAdd(pLink_, ACL, RULE));
    EXPECT_EQ(fake::takeTexts().back(), hwText("pbr acl rule hardware add none nexthop.\r\n"));
    EXPECT_EQ("none", addActions());
    pbrNodeIpPriSet(pNode_, 3); // a VRF is more than a priority alone
    EXPECT_EQ("none", addActions());
    hops({"10.0.0.1"});
    hops_[0]->lastSelected = hops_[0]->nexthopArpState = 1;
    EXPECT_EQ("none", addActions());
    pNode_->vrfid = 0;
    EXPECT_EQ("none", addActions());
    EXPECT_EQ("0 0 0 0", counters());
    hops_[0]->lastSelected = 0;
    EXPECT_EQ("224:01010000 232:00000003", delActions());
    EXPECT_EQ("0 0 1 0", counters());
}

TEST_F(AclRuleHw, OfAnUnknownVersionNoNextHopIsTaken) {
    hops({"10.0.0.1"});
    chooseAll();
    writeAll();
    pNode_->policyRouteIpVer = 0;
    pNode_->vrfid = 4;
    EXPECT_EQ("none", addActions());
    EXPECT_EQ("228:00400000 316:00000004", delActions());
}

// ---- what else changes ----

TEST_F(AclRuleHw, ForwardFlagTwoMarksTheLinkWrittenOnAnAddOnly) {
    hops({"10.0.0.1"});
    chooseAll();
    pbrNodeForwardFlagSet(pNode_, 2);
    for (uint32_t hwStatus : {0u, 1u, 2u}) {
        pbrIfNodeHwStatusSet(pLink_, hwStatus);
        EXPECT_EQ(0, pbrAclRuleHwDel(pLink_, ACL, RULE));
        EXPECT_EQ(hwStatus, pbrIfNodeHwStatusGet(pLink_));
        EXPECT_EQ(0, pbrAclRuleHwAdd(pLink_, ACL, RULE));
        EXPECT_EQ(PBR_HW_PROGRAMMED, pbrIfNodeHwStatusGet(pLink_));
    }
    EXPECT_EQ(fake::takeCalls(), Lines{});
    EXPECT_EQ("0 0 0 0", counters());
}

TEST_F(AclRuleHw, ResultsAreCountedAndReturnedAndNoMarkMoves) {
    hops({"10.0.0.1"});
    hops_[0]->curSelected = hops_[0]->lastSelected = hops_[0]->nexthopHwState = 1;
    hops_[0]->refCntByte = 0x35;
    pNode_->pPbrNhopBest = hops_[0];
    pbrIfNodeHwStatusSet(pLink_, PBR_HW_FAILED);
    EXPECT_EQ(0, pbrAclRuleHwAdd(pLink_, ACL, RULE));
    EXPECT_EQ(0, pbrAclRuleHwDel(pLink_, ACL, RULE));
    EXPECT_EQ("1 0 1 0", counters());
    fake::answer("qrvIfSetApi", -7);
    EXPECT_EQ(-7, pbrAclRuleHwAdd(pLink_, ACL, RULE));
    EXPECT_EQ("1 1 1 0", counters());
    EXPECT_EQ(-7, pbrAclRuleHwDel(pLink_, ACL, RULE));
    EXPECT_EQ("1 1 1 1", counters());
    EXPECT_EQ("best=A cur=1 last=1 hw=1", steps::marks(pNode_));
    EXPECT_EQ(0x35, hops_[0]->refCntByte);
    EXPECT_EQ(PBR_HW_FAILED, pbrIfNodeHwStatusGet(pLink_));
}

TEST_F(AclRuleHw, TheTranslationsResultIsNotLookedAt) {
    hops({"10.0.0.1"});
    chooseAll();
    fake::answer("aclRuleDevTrans", -1);
    EXPECT_EQ("224:01000000 276:0a000001", addActions());
}

TEST_F(AclRuleHw, ANodeWithoutAclIsWrittenAllTheSame) { // the event found it by its ACL
    hops({"10.0.0.1"});
    chooseAll();
    pNode_->aclNum = 0;
    EXPECT_EQ("224:01000000 276:0a000001", addActions());
}

// ---- the texts ----

TEST_F(AclRuleHw, AnAddTellsEveryStepInBothOutputs) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    hops({"10.0.0.1"});
    chooseAll();
    pbrNodeIpPriSet(pNode_, 3);
    EXPECT_EQ(0, pbrAclRuleHwAdd(pLink_, ACL, 5));
    const std::string header = "Acl 1501 add rule 5,interface lan0 add policy route node to hardware:aclNum=1501,"
                               "ipPri=3,forwardFlag=0,outIfUnit=0,vrfid=0,isEcmp=0,policyRouteIpVer";
    const std::string hop = "pbr acl rule hardware add nextHop1=0xa000001.\r\n";
    const std::string result = "pbr acl rule hardware add return:0.\r\n";
    EXPECT_EQ(fake::takeTrace(),
              (Lines{hwText(header + " = 1.\r\n"), hwLog(2, header + "=1.\r\n"), "aclRuleDevTrans(1501, 5)",
                     hwText(hop), hwLog(3, hop),
                     "qrvIfSetApi(7, 44, type=0x03e80135 68:00000002 72:01000000 224:01010000 232:00000003 "
                     "276:0a000001 476:000005dd 480:00000005 484:00050000)",
                     hwLog(3, "pbr acl rule hardware add ipPri=3,outIfUnit=0,vrfid=0.\r\n"), hwText(result),
                     hwLog(1, result)}));
}

TEST_F(AclRuleHw, ADeleteTellsEveryStepInBothOutputsAndItsSettingsWithTheWordAdd) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    hops({"10.0.0.1"});
    writeAll();
    pNode_->vrfid = 4;
    fake::answer("qrvIfSetApi", 3);
    EXPECT_EQ(3, pbrAclRuleHwDel(pLink_, ACL, 5));
    const std::string header = "Acl 1501 delete rule 5,interface lan0 del policy route node to hardware:aclNum=1501,"
                               "ipPri=9,forwardFlag=0,outIfUnit=0,vrfid=4,isEcmp=0,policyRouteIpVer";
    const std::string hop = "pbr acl rule hardware del nextHop1=0xa000001.\r\n";
    const std::string result = "pbr acl rule hardware del return:3.\r\n";
    EXPECT_EQ(fake::takeTrace(),
              (Lines{hwText(header + " = 1.\r\n"), hwLog(2, header + "=1.\r\n"), hwText(hop), hwLog(3, hop),
                     "qrvIfSetApi(7, 44, type=0x03e80136 68:00000002 72:01000000 224:01000000 228:00400000 "
                     "276:0a000001 316:00000004 476:000005dd 480:00000005 484:00050000)",
                     hwLog(3, "pbr acl rule hardware add ipPri=9,outIfUnit=0,vrfid=4.\r\n"), hwText(result),
                     hwLog(1, result)}));
}

TEST_F(AclRuleHw, WithoutDebugFlagTheSameRecordsAreLoggedAndNothingElse) {
    gPbrInfo.debugFlags = ~(PBR_DEBUG_HARDWARE | PBR_DEBUG_DUMP);
    (void)pbrAclRuleHwDel(pLink_, ACL, 5);
    EXPECT_EQ(fake::takeTexts(),
              (Lines{hwLog(2, "Acl 1501 delete rule 5,interface lan0 del policy route node to hardware:aclNum=1501,"
                              "ipPri=9,forwardFlag=0,outIfUnit=0,vrfid=0,isEcmp=0,policyRouteIpVer=1.\r\n"),
                     hwLog(3, "nextHop is not exist.\r\n"), hwLog(1, "pbr acl rule hardware del return:0.\r\n")}));
    (void)pbrAclRuleHwAdd(pLink_, ACL, 5);
    EXPECT_EQ(fake::takeTexts(),
              (Lines{hwLog(2, "Acl 1501 add rule 5,interface lan0 add policy route node to hardware:aclNum=1501,"
                              "ipPri=9,forwardFlag=0,outIfUnit=0,vrfid=0,isEcmp=0,policyRouteIpVer=1.\r\n"),
                     hwLog(3, "nextHop is not exist.\r\n")}));
}

TEST_F(AclRuleHw, TheSettingsAreLoggedWhenAnyOfThemIsSet) {
    hops({"10.0.0.1"});
    chooseAll();
    auto settings = [this] {
        (void)pbrAclRuleHwAdd(pLink_, ACL, 5);
        for (const std::string &text : fake::takeTexts()) {
            if (text.find("add ipPri=") != std::string::npos) {
                return text;
            }
        }
        return std::string("none");
    };
    EXPECT_EQ("none", settings());
    pNode_->vrfid = 4;
    EXPECT_EQ(hwLog(3, "pbr acl rule hardware add ipPri=9,outIfUnit=0,vrfid=4.\r\n"), settings());
    pNode_->vrfid = 0;
    pNode_->outIfUnit = 12;
    EXPECT_EQ(hwLog(3, "pbr acl rule hardware add ipPri=9,outIfUnit=12,vrfid=0.\r\n"), settings());
}

// The lines of the next hops, from both outputs.
Lines hopLines(const Lines &texts) {
    Lines out;
    for (const std::string &text : texts) {
        if (text.find(" nextHop") != std::string::npos) {
            out.push_back(text);
        }
    }
    return out;
}

TEST_F(AclRuleHw, LaterIPv4MembersAreToldWithDoubledWordsAndNextHopsTakenAreCountedFromOne) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    hops_[1]->curSelected = hops_[2]->curSelected = hops_[1]->lastSelected = hops_[2]->lastSelected = 1;
    pbrNodeIsEcmpSet(pNode_, 1);
    (void)pbrAclRuleHwAdd(pLink_, ACL, 5);
    const std::string first = "pbr acl rule hardware add nextHop1=0xa000002.\r\n";
    const std::string later = "pbr acl rule hardware add hardware add nextHop2=0xa000003.\r\n";
    EXPECT_EQ(hopLines(fake::takeTexts()), (Lines{hwText(first), hwLog(3, first), hwText(later), hwLog(3, later)}));
    (void)pbrAclRuleHwDel(pLink_, ACL, 5);
    const std::string delFirst = "pbr acl rule hardware del nextHop1=0xa000002.\r\n";
    const std::string delLater = "pbr acl rule hardware del nextHop2=0xa000003.\r\n";
    EXPECT_EQ(hopLines(fake::takeTexts()),
              (Lines{hwText(delFirst), hwLog(3, delFirst), hwText(delLater), hwLog(3, delLater)}));
    pbrNodeIsEcmpSet(pNode_, 0); // without ECMP every one is told plainly
    (void)pbrAclRuleHwAdd(pLink_, ACL, 5);
    const std::string plain = "pbr acl rule hardware add nextHop2=0xa000003.\r\n";
    EXPECT_EQ(hopLines(fake::takeTexts()), (Lines{hwText(first), hwLog(3, first), hwText(plain), hwLog(3, plain)}));
}

TEST_F(AclRuleHw, IPv6NextHopsAreToldInBothOutputs) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    pNode_->policyRouteIpVer = 2;
    pbrNodeIsEcmpSet(pNode_, 1);
    hops({"2001:db8::1", "2001:db8::2"});
    chooseAll();
    hops_[1]->lastSelected = 1;
    (void)pbrAclRuleHwAdd(pLink_, ACL, 5);
    const std::string first = "pbr acl rule hardware add ipv6 nextHop1=2001:db8::1\r\n";
    const std::string later = "pbr acl rule hardware add ipv6 nextHop2=2001:db8::2\r\n";
    EXPECT_EQ(hopLines(fake::takeTexts()), (Lines{hwText(first), hwLog(3, first), hwText(later), hwLog(3, later)}));
    (void)pbrAclRuleHwDel(pLink_, ACL, 5);
    const std::string del = "pbr acl rule hardware del ipv6 nextHop1=2001:db8::2\r\n";
    EXPECT_EQ(hopLines(fake::takeTexts()), (Lines{hwText(del), hwLog(3, del)}));
}

TEST_F(AclRuleHw, TheRecordIsDumpedBeforeItIsSent) {
    gPbrInfo.debugFlags = PBR_DEBUG_DUMP;
    hops({"10.0.0.1"});
    writeAll();
    (void)pbrAclRuleHwDel(pLink_, ACL, 5);
    const Lines trace = fake::takeTrace();
    const auto call = std::find_if(trace.begin(), trace.end(),
                                   [](const std::string &line) { return line.rfind("qrvIfSetApi", 0) == 0; });
    ASSERT_NE(call, trace.end());
    EXPECT_EQ(*(call - 1), hwText("-------------------end--------------------\n\r"));
    EXPECT_EQ(trace[2], hwText("policyroute hardware dev content\n\r"));
    EXPECT_EQ(trace[4], hwText("lstIdx=1501 ruleIdx=5\n\r"));
}

} // namespace
