// Cards and slots that come up: the entries of queued lists are written again.
#include "rtmsg/pbr_card_msg.h"

#include "nexthop/pbr_ready_table.h"
#include "tests/unit/rtmsg/messages.h"

namespace {

using namespace messages;

// The message's first words are its header: word 0 the length, words 1 to 3 what is set here.
struct CardWords {
    uint32_t word[4];
};

Bytes up(uint16_t type, uint32_t second, uint32_t third, CardWords &words) {
    Bytes message = fake::message(type, nullptr, 0);
    memcpy(message.data() + 8, &second, 4);
    memcpy(message.data() + 12, &third, 4);
    memcpy(words.word, message.data(), sizeof(words.word));
    return message;
}

class CardMsg : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeList("a");
        for (uint32_t index : {10u, 20u, 30u}) {
            pNodes_.push_back(makeNode("a", index, {.acl = 1500 + index, .outIf = 9}));
        }
        bindIf(7, "a");
        bindIf(8, "a");
        pbrReadyTableAdd(usedLists()[0]);
        fake::answer("qrvSelfSysIndex", 24); // the messages' length word
        (void)fake::takeTrace();
    }
    void TearDown() override { checkStore(); }

    static Lines callsFor(const Bytes &read) {
        receive(read);
        Lines calls = fake::takeCalls();
        calls.erase(calls.begin());
        return calls;
    }
    // "D7/1510 A7/1510 ..." of the device calls.
    static std::string rewrites(const Lines &calls) {
        std::string out;
        for (const std::string &line : callsOf(calls, "aclIfSetApi")) {
            unsigned unit, command, recordUnit, acl;
            EXPECT_EQ(4, sscanf(line.c_str(), "aclIfSetApi(%u, %u, if=%u acl=%u", &unit, &command, &recordUnit, &acl));
            char step[40];
            snprintf(step, sizeof(step), "%s%s%u/%u", out.empty() ? "" : " ", command == 20 ? "A" : "D", unit, acl);
            out += step;
        }
        return out;
    }
    void statuses(uint32_t first, uint32_t second, uint32_t third) {
        for (uint32_t unit : {7u, 8u}) {
            pbrIfNodeHwStatusSet(linkOf(unit, pNodes_[0]), first);
            pbrIfNodeHwStatusSet(linkOf(unit, pNodes_[1]), second);
            pbrIfNodeHwStatusSet(linkOf(unit, pNodes_[2]), third);
        }
    }

    std::vector<PbrNodeEntry *> pNodes_;
};

const char *const REWRITTEN = "D8/1510 A8/1510 D8/1520 A8/1520 A8/1530 D7/1510 A7/1510 D7/1520 A7/1520 A7/1530";

TEST_F(CardMsg, ASlotThatComesUpRewritesEveryLinkOfTheQueuedLists) {
    CardWords words;
    const Bytes message = up(QRV_RTM_SLOT_UP, 5, 6, words);
    statuses(1, 2, 0); // what was never written is written too
    const Lines calls = callsFor(message);
    ASSERT_GT(calls.size(), 3u);
    char key[80];
    snprintf(key, sizeof(key), "qrvHwilSlotGet(24 %u 5, 0x1f4002b)", words.word[1]);
    EXPECT_EQ(Lines(calls.begin(), calls.begin() + 3), (Lines{"qrvSelfSysIndex()", key, "qrvHwilScalarGet(0, 55)"}));
    EXPECT_EQ(REWRITTEN, rewrites(calls));
    EXPECT_EQ(std::vector<PbrListEntry *>{usedLists()[0]}, readyLists()) << "the list stays queued";
}

TEST_F(CardMsg, ACardThatComesUpDoesTheSameWithAKeyOfFourWords) {
    CardWords words;
    const Bytes message = up(QRV_RTM_CARD_UP, 5, 6, words);
    statuses(1, 2, 0);
    const Lines calls = callsFor(message);
    ASSERT_GT(calls.size(), 3u);
    char key[80];
    snprintf(key, sizeof(key), "qrvHwilCardGet(24 %u 5 6, 0x2ee002a)", words.word[1]);
    EXPECT_EQ(key, calls[1]);
    EXPECT_EQ(REWRITTEN, rewrites(calls));
}

TEST_F(CardMsg, TheWordsAreToldAsTheyWereReadOverTheHeader) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::answer("qrvSelfSysIndex", 1);
    CardWords words;
    receive(up(QRV_RTM_SLOT_UP, 5, 6, words));
    char text[120];
    snprintf(text, sizeof(text), "pbr receive QRV_RTM_SLOT_UP,rtm_type=5,sysId=24,slotId=%d,type=5.",
             static_cast<int>(words.word[1]));
    EXPECT_EQ(fake::takeTexts(), Lines{eventText(text)});
    receive(up(QRV_RTM_CARD_UP, 5, 6, words));
    snprintf(text, sizeof(text), "pbr receive QRV_RTM_CARD_UP,rtm_type=6,sysId=24,slotId=%d,cardId=5,type=6.",
             static_cast<int>(words.word[1]));
    EXPECT_EQ(fake::takeTexts(), Lines{eventText(text)});
}

TEST_F(CardMsg, OneOfAnotherSystemIsIgnored) {
    fake::answer("qrvSelfSysIndex", 25);
    CardWords words;
    for (uint16_t type : {QRV_RTM_SLOT_UP, QRV_RTM_CARD_UP}) {
        EXPECT_EQ(callsFor(up(type, 5, 6, words)), Lines{"qrvSelfSysIndex()"}) << type;
    }
}

TEST_F(CardMsg, OneThatIsNotReadyForProgrammingIsIgnored) {
    fake::answer("qrvHwilSlotGet", 0);
    fake::answer("qrvHwilCardGet", 0);
    CardWords words;
    for (uint16_t type : {QRV_RTM_SLOT_UP, QRV_RTM_CARD_UP}) {
        EXPECT_EQ(callsFor(up(type, 5, 6, words)).size(), 2u) << type;
    }
}

TEST_F(CardMsg, OneOfTheTwoSystemScalarsIsEnough) {
    CardWords words;
    for (uint16_t type : {QRV_RTM_SLOT_UP, QRV_RTM_CARD_UP}) {
        const Bytes message = up(type, 5, 6, words);
        auto only = [](unsigned wanted) {
            fake::answerWith("qrvHwilScalarGet", [wanted](const std::string &line) -> int64_t {
                return line == "qrvHwilScalarGet(0, " + std::to_string(wanted) + ")" ? 1 : 0;
            });
        };
        only(55);
        EXPECT_NE("", rewrites(callsFor(message)));
        only(46);
        EXPECT_NE("", rewrites(callsFor(message)));
        only(0);
        EXPECT_EQ("", rewrites(callsFor(message)));
    }
}

TEST_F(CardMsg, ListsThatAreNotQueuedKeepTheirEntriesUntouched) {
    listUnlinkInit(&usedLists()[0]->readyLink);
    CardWords words;
    EXPECT_EQ("", rewrites(callsFor(up(QRV_RTM_SLOT_UP, 5, 6, words))));
}

TEST_F(CardMsg, ResultsAreNotExamined) {
    fake::answer("aclIfSetApi", 3);
    CardWords words;
    statuses(1, 2, 0);
    EXPECT_EQ(REWRITTEN, rewrites(callsFor(up(QRV_RTM_SLOT_UP, 5, 6, words))));
    EXPECT_EQ(PBR_HW_FAILED, pbrIfNodeHwStatusGet(linkOf(7, pNodes_[2])));
}

TEST_F(CardMsg, EveryQueuedListIsRewrittenFromTheHeadOn) {
    makeList("b");
    makeNode("b", 10, {.acl = 1600, .outIf = 9});
    bindIf(9, "b");
    pbrReadyTableAdd(usedLists()[1]);
    (void)fake::takeTrace();
    CardWords words;
    const std::string done = rewrites(callsFor(up(QRV_RTM_SLOT_UP, 5, 6, words)));
    EXPECT_EQ("D9/1600 A9/1600 D8/1510", done.substr(0, 23));
}

} // namespace
