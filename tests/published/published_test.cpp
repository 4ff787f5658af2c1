// The count: every row of the table is produced by a case, everything that a case makes the daemon say has a
// row, and the bits of the debug flags switch exactly their texts.
#include <algorithm>
#include <filesystem>
#include <map>

#include "core/pbr_info.h"
#include "tests/published/stage.h"
#include "tests/support/golden.h"

namespace published {
namespace {

void runAll(uint32_t flags) {
    for (const Case &one : cases()) {
        SCOPED_TRACE(one.name);
        Stage stage(flags);
        one.run(stage);
    }
}

std::string rowNames(const std::set<const Row *> &found) {
    std::string out;
    for (const Row *pRow : found) {
        out += "\n  published.txt:" + std::to_string(pRow->line) + ": " + pRow->name;
    }
    return out;
}

bool isOfGolden(const Row &row) { return row.kind == "console"; }

TEST(Published, EveryRowIsProducedAndEverythingProducedHasARow) {
    record() = Record();
    runAll(ALL_FLAGS);

    std::set<const Row *> missing, unexpected;
    for (const Row &row : rows()) {
        const bool isSeen = record().seen.count(&row) != 0;
        if (row.unreachable.empty() && !isSeen && !isOfGolden(row)) {
            missing.insert(&row);
        }
        if (!row.unreachable.empty() && isSeen) {
            unexpected.insert(&row);
        }
    }
    EXPECT_TRUE(missing.empty()) << "rows that no case produces:" << rowNames(missing);
    EXPECT_TRUE(unexpected.empty()) << "rows said to be unreachable were produced:" << rowNames(unexpected);
    std::sort(record().strangers.begin(), record().strangers.end());
    EXPECT_EQ(Lines{}, record().strangers) << "published without a row";
}

TEST(Published, TheUnreachableRowsAreThese) {
    Lines found;
    for (const Row &row : rows()) {
        if (!row.unreachable.empty()) {
            found.push_back(row.name);
        }
    }
    EXPECT_EQ((Lines{"code 0x00000016 interface command while there are more lists than the limit",
                     "call \"silTimerStart(timer%u, 5000)\"",
                     "text 64 0x044B0002 \"receive netlink message: len=%d left=%d plen=%d \\r\\n\""}),
              found);
}

TEST(Published, NoRowStandsTwice) {
    std::set<std::string> names;
    for (const Row &row : rows()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
    }
}

// The rows of a kind by their names.
std::map<std::string, uint32_t> numbersOf(const std::string &kind) {
    std::map<std::string, uint32_t> numbers;
    for (const Row &row : rows()) {
        if (row.kind == kind) {
            numbers[row.pattern] = row.number;
        }
    }
    return numbers;
}

TEST(Published, EveryCommandIsServedByTheHandlerThatItsRowNames) {
    std::map<std::string, uint32_t> served;
#define SERVED(name)                                                                             \
    for (uint32_t id = 0; id < PBR_COMMAND_COUNT; ++id) {                                           \
        if (gPbrFuncMap[id].handler == reinterpret_cast<IcmHandler>(name)) {                        \
            served[#name] = gPbrFuncMap[id].id;                                                     \
        }                                                                                           \
    }
    SERVED(pbrListGetFirst) SERVED(pbrListGetNext) SERVED(pbrNodeGetFirst) SERVED(pbrNodeGetNext)
    SERVED(pbrIfGetFirst) SERVED(pbrIfGetNext) SERVED(pbrNextHopGetFirst) SERVED(pbrNextHopGetNext)
    SERVED(pbrListGetApi) SERVED(pbrListSetApi) SERVED(pbrListSyncApi) SERVED(pbrNodeGetApi)
    SERVED(pbrNodeSetApi) SERVED(pbrNodeSyncApi) SERVED(pbrIfGetApi) SERVED(pbrIfSetApi)
    SERVED(pbrIfSyncApi) SERVED(pbrNextHopGetApi) SERVED(pbrNextHopSetApi) SERVED(pbrNextHopSyncApi)
    SERVED(pbrScalarGetApi) SERVED(pbrScalarSetApi) SERVED(pbrScalarSyncApi)
#undef SERVED
    EXPECT_EQ(numbersOf("command"), served);
    EXPECT_EQ(23u, served.size());
    EXPECT_EQ(nullptr, gPbrFuncMap[0].handler);
}

TEST(Published, EveryMessageHasTheTypeThatItsRowNames) {
    std::map<std::string, uint32_t> types;
#define TYPE(name) types[#name] = name;
    TYPE(QRV_RTM_NEWLINK) TYPE(QRV_RTM_DELLINK_FINAL) TYPE(QRV_RTM_CARD_UP) TYPE(QRV_RTM_SLOT_UP)
    TYPE(QRV_RTM_ACL_DELACL) TYPE(QRV_RTM_ACL_ADDACLRULE) TYPE(QRV_RTM_ACL_DELACLRULE)
    TYPE(QRV_RTM_HRD_UP) TYPE(QRV_RTM_HRD_DOWN) TYPE(QRV_RTM_HRD_CHANGE) TYPE(QRV_RTM_RESETPORTCONFIG)
    TYPE(QRV_RTM_NQA)
#undef TYPE
    EXPECT_EQ(numbersOf("message"), types);
}

TEST(Published, AMessageOfAnyOtherTypeIsSkippedSilently) {
    Stage s(ALL_FLAGS);
    s.start();
    std::set<uint32_t> handled;
    for (const auto &[name, type] : numbersOf("message")) {
        handled.insert(type);
    }
    for (uint16_t type = 0; type < 400; ++type) {
        if (handled.count(type) == 0) {
            const uint8_t payload[64] = {1, 2, 3};
            s.read(fake::message(type, payload, sizeof(payload)));
            s.saidOfRead({});
        }
    }
}

// Each case compares its whole trace with what is left of the expected one.
TEST(DebugFlags, EachBitAloneSwitchesItsTextsOnAndAllOthersOff) {
    for (uint32_t bit : {4u, 8u, 64u}) {
        SCOPED_TRACE(bit);
        record() = Record();
        runAll(bit);
        std::set<const Row *> wrong;
        for (const Row &row : rows()) {
            const bool isWanted = row.number == bit && row.unreachable.empty();
            if (row.kind == "text" && isWanted != (record().seen.count(&row) != 0)) {
                wrong.insert(&row);
            }
        }
        EXPECT_TRUE(wrong.empty()) << rowNames(wrong);
    }
}

TEST(DebugFlags, EachBitThatIsOffSilencesItsTextsAndNoOthers) {
    for (uint32_t bit : {4u, 8u, 64u}) {
        SCOPED_TRACE(bit);
        record() = Record();
        runAll(~bit);
        std::set<const Row *> wrong;
        for (const Row &row : rows()) {
            const bool isWanted = row.number != bit && row.unreachable.empty();
            if (row.kind == "text" && isWanted != (record().seen.count(&row) != 0)) {
                wrong.insert(&row);
            }
        }
        EXPECT_TRUE(wrong.empty()) << rowNames(wrong);
    }
}

TEST(DebugFlags, WithoutAnyBitOnlyCallsAndLogRecordsAreLeft) {
    record() = Record();
    runAll(0);
    for (const Row *pRow : record().seen) {
        EXPECT_NE("text", pRow->kind) << pRow->name;
    }
}

// ---- the built-in report ----

// A file of the report as it was printed, a pointer in the place of its names.
std::string printedReport(const std::string &name) {
    std::string text = golden::file(name);
    std::erase(text, '\n'); // the line ends of the file; those of the report are spelled out
    for (const char *pointer : {"<best>", "<none>"}) {
        for (size_t at = text.find(pointer); at != std::string::npos; at = text.find(pointer)) {
            text.replace(at, strlen(pointer), "(nil)");
        }
    }
    return text;
}

// The longest beginning of the text that is a row of the report; its row in *ppRow.
size_t reportBeginning(const std::string &text, const Row **ppRow) {
    constexpr size_t LONGEST = 400;
    for (size_t length = std::min(text.size(), LONGEST); length != 0; --length) {
        for (const Row &row : rows()) {
            if (isOfGolden(row) && matches(row.pattern, text.substr(0, length))) {
                *ppRow = &row;
                return length;
            }
        }
    }
    return 0;
}

TEST(Report, TheGoldenFilesConsistOfItsFormatsAndShowEachOfThem) {
    const std::string here = __FILE__;
    std::set<const Row *> missing, seen;
    for (const auto &entry : std::filesystem::directory_iterator(here.substr(0, here.rfind("published/")) + "golden")) {
        const std::string name = entry.path().filename().string();
        for (std::string rest = name.rfind("show_", 0) == 0 ? printedReport(name) : ""; !rest.empty();) {
            const Row *pRow = nullptr;
            const size_t length = reportBeginning(rest, &pRow);
            ASSERT_NE(0u, length) << name << ": no format for: " << rest;
            seen.insert(pRow);
            rest = rest.substr(length);
        }
    }
    for (const Row &row : rows()) {
        if (isOfGolden(row) && seen.count(&row) == 0) {
            missing.insert(&row);
        }
    }
    EXPECT_TRUE(missing.empty()) << rowNames(missing);
}

// ---- what cannot be produced ----

TEST(Unreachable, AMessageLongerThanTheRestOfTheReadIsPassedOverSilently) {
    Stage s(ALL_FLAGS);
    s.start();
    Bytes cut = events::up("10.0.0.1");
    for (uint32_t left : {1u, 23u, 24u, 47u}) {
        s.drop();
        s.read(Bytes(cut.begin(), cut.begin() + left));
        s.saidOfRead({});
    }
}

TEST(Unreachable, AtTheLimitOfListsInterfacesAreStillServed) {
    Stage s(ALL_FLAGS);
    s.start(2);
    s.list("a");
    s.list("b");
    EXPECT_EQ(0x03E80001u, s.set(PBR_CMD_LIST_SET, listKey("c"), 1, 2));
    EXPECT_EQ(0u, s.set(PBR_CMD_IF_SET, unitKey(7), 1, 1));
    EXPECT_EQ(gPbrInfo.maxListNum, gPbrInfo.listCount);
}

TEST(Unreachable, NothingStartsTheArpCheckTimer) {
    Stage s(ALL_FLAGS);
    s.start();
    for (uint32_t i = 0; i < 20; ++i) {
        s.tick();
        s.saidOfTick({});
    }
}

} // namespace
} // namespace published
