// The process's journal: which sets come back, through which handlers, and what is said of the others.
#include "host/journal/journal.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "api/pbr_keys.h"
#include "core/pbr_types.h"
#include "host/hwil/cmd_sync.h"
#include "host/option/option.h"

namespace {

namespace fs = std::filesystem;

// Handlers that take down what they are asked and answer as told.
std::vector<std::string> asked;
std::map<std::string, uint32_t> answers; // by the beginning of what is asked; else QRV_OK

uint32_t answer(const std::string &what) {
    asked.push_back(what);
    for (const auto &[beginning, code] : answers) {
        if (what.starts_with(beginning)) {
            return code;
        }
    }
    return QRV_OK;
}

uint32_t listHandler(const void *pKey, uint32_t field, PbrApiValue *pValue) {
    PbrListKey key;
    memcpy(&key, pKey, sizeof key);
    return answer("list " + std::string(reinterpret_cast<const char *>(key.listName), key.listNameLen) + " " +
                  std::to_string(field) + "=" + std::to_string(pValue->word0));
}

uint32_t nodeHandler(const void *pKey, uint32_t field, PbrApiValue *pValue) {
    PbrNodeKey key;
    memcpy(&key, pKey, sizeof key);
    return answer("node " + std::to_string(key.nodeIndex) + " " + std::to_string(field) + "=" +
                  std::to_string(pValue->word0));
}

uint32_t ifHandler(const void *pKey, uint32_t field, PbrApiValue *pValue) {
    uint32_t unit = 0;
    memcpy(&unit, pKey, sizeof unit);
    const bool isName = field == PBR_IF_PBR_NAME;
    const std::string value = isName ? std::string(reinterpret_cast<const char *>(pValue->word0), pValue->word1)
                                     : std::to_string(pValue->word0);
    return answer("interface " + std::to_string(unit) + " " + std::to_string(field) + "=" + value);
}

const IcmCommand COMMANDS[] = {{PBR_CMD_LIST_SET, reinterpret_cast<IcmHandler>(listHandler)},
                               {PBR_CMD_NODE_SET, reinterpret_cast<IcmHandler>(nodeHandler)},
                               {PBR_CMD_IF_SET, reinterpret_cast<IcmHandler>(ifHandler)}};
constexpr uint32_t UNIT = 0x7ffffff0; // of no interface here

class Journals : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/pbrjournalXXXXXX";
        root = mkdtemp(name);
        ASSERT_EQ("", host::optionLoad({"host.root=" + root, "host.device=memory", "host.log=stderr"}, ""));
        asked.clear();
        answers.clear();
        open();
    }
    void TearDown() override {
        host::journalClose();
        fs::remove_all(root);
    }

    void open() {
        settled = 0;
        ASSERT_EQ("", host::journalOpen([this] { ++settled; }));
    }

    // Ends as a process that dies does, starts, and replays. Result: what the handlers were asked.
    std::vector<std::string> restart() {
        host::journalClose();
        open();
        asked.clear();
        host::commandKeeper()->replay(COMMANDS, 3);
        return asked;
    }

    // A set as the daemon and the command server handle it. accepted: the daemon asked the service.
    uint32_t listSet(const std::string &name, uint32_t status, uint32_t result = QRV_OK, bool accepted = true) {
        PbrListKey key{};
        memcpy(key.listName, name.data(), name.size());
        key.listNameLen = static_cast<uint16_t>(name.size());
        return set(PBR_CMD_LIST_SET, 0x070A8000u, &key, sizeof key, PBR_LIST_STATUS, {status, 0}, result, accepted);
    }

    uint32_t ifSet(uint32_t status) {
        return set(PBR_CMD_IF_SET, 0x04128000u, &UNIT, 4, PBR_IF_STATUS, {status, 0}, QRV_OK, true);
    }

    uint32_t bindSet(const char *pName, uint32_t result = QRV_OK) {
        const PbrApiValue value{reinterpret_cast<uintptr_t>(pName), static_cast<uint32_t>(strlen(pName))};
        return set(PBR_CMD_IF_SET, 0x04128000u, &UNIT, 4, PBR_IF_PBR_NAME, value, result, true, 0x80000000u);
    }

    static uint32_t set(uint32_t command, uint32_t base, const void *pKey, uint32_t keyLen, uint32_t field,
                        const PbrApiValue &value, uint32_t result, bool accepted, uint32_t flags = 0) {
        PbrSyncCtx ctx{};
        ctx.syncFlags = 3 | flags;
        ctx.keyLen = keyLen;
        if (accepted) {
            const uint32_t refused = qrvHwilCmdSyncApi(pKey, base + field, &value, &ctx);
            result = refused != QRV_OK ? refused : result;
        }
        const auto number = static_cast<uint32_t>(flags != 0 ? value.word1 : value.word0);
        host::commandKeeper()->answered({command, pKey, keyLen, field, number}, result);
        return result;
    }

    // Nothing can be written to any file until it ends.
    struct NoRoom {
        NoRoom() : before(signal(SIGXFSZ, SIG_IGN)) {
            getrlimit(RLIMIT_FSIZE, &limit);
            const rlimit none{0, limit.rlim_max};
            setrlimit(RLIMIT_FSIZE, &none);
        }
        ~NoRoom() {
            setrlimit(RLIMIT_FSIZE, &limit);
            signal(SIGXFSZ, before);
        }
        sighandler_t before;
        rlimit limit{};
    };

    std::string root;
    int settled = 0;
};

TEST_F(Journals, WhatWasDoneComesBackAndTheDeviceIsToldOnce) {
    (void)listSet("wan", PBR_ROW_CREATED);
    (void)ifSet(PBR_IF_CREATE);
    (void)bindSet("wan");

    const std::vector<std::string> expected = {"list wan 1=2", "interface 2147483632 1=1", "interface 2147483632 2=wan"};
    EXPECT_EQ(expected, restart());
    EXPECT_EQ(1, settled);
    EXPECT_EQ(expected, restart()) << "a replay is not a change";
}

TEST_F(Journals, WhatFailedDoesNotComeBack) {
    (void)listSet("wan", PBR_ROW_CREATED);
    (void)listSet("lost", PBR_ROW_CREATED, PBR_ERR_NO_RECORD);

    EXPECT_EQ(std::vector<std::string>{"list wan 1=2"}, restart());
}

TEST_F(Journals, ABindThatFailedTakesTheListThatWasBoundAlong) {
    (void)ifSet(PBR_IF_CREATE);
    (void)bindSet("wan");
    (void)bindSet("other", PBR_ERR_BIND);

    EXPECT_EQ(std::vector<std::string>{"interface 2147483632 1=1"}, restart());
}

TEST_F(Journals, AnEmptyJournalTellsTheDeviceNothing) {
    EXPECT_TRUE(restart().empty());

    EXPECT_EQ(0, settled);
}

TEST_F(Journals, ARowThatIsRefusedStaysAndIsTriedAgainUntilItIsDestroyed) {
    (void)listSet("wan", PBR_ROW_CREATED);
    (void)listSet("full", PBR_ROW_CREATED);
    answers["list full"] = PBR_ERR_NO_RECORD;
    const std::vector<std::string> both = {"list full 1=2", "list wan 1=2"};
    EXPECT_EQ(both, restart());
    EXPECT_EQ(both, restart());

    (void)listSet("full", PBR_ROW_DESTROY, QRV_OK, false); // it is not there: the service is not asked

    EXPECT_EQ(std::vector<std::string>{"list wan 1=2"}, restart());
}

TEST_F(Journals, AnInterfaceThatLeftDoesNotComeBack) {
    (void)ifSet(PBR_IF_CREATE);
    (void)bindSet("wan");

    host::journalInterfaceLeft(UNIT);

    EXPECT_TRUE(restart().empty());
}

TEST_F(Journals, WithoutRoomASetIsRefusedAndLaterOnesAreTakenAgain) {
    (void)listSet("wan", PBR_ROW_CREATED);
    {
        const NoRoom noRoom;
        EXPECT_EQ(QRV_ERR_NOT_KEPT, listSet("b", PBR_ROW_CREATED));
        EXPECT_EQ(QRV_ERR_NOT_KEPT, listSet("c", PBR_ROW_CREATED));
        EXPECT_THROW(host::journalMustBeReady(), std::runtime_error);
    }
    EXPECT_EQ(QRV_OK, listSet("d", PBR_ROW_CREATED));
    host::journalMustBeReady();

    EXPECT_EQ((std::vector<std::string>{"list d 1=2", "list wan 1=2"}), restart());
}

TEST_F(Journals, AFailedSetThatCouldNotBeTakenBackIsTakenBackBeforeTheNext) {
    PbrListKey key{{'x'}, 1};
    const PbrApiValue value{PBR_ROW_CREATED, 0};
    PbrSyncCtx ctx{};
    ctx.keyLen = sizeof key;
    ASSERT_EQ(QRV_OK, qrvHwilCmdSyncApi(&key, 0x070A8001u, &value, &ctx));
    {
        const NoRoom noRoom;
        host::commandKeeper()->answered({PBR_CMD_LIST_SET, &key, sizeof key, 1, PBR_ROW_CREATED}, PBR_ERR_NO_RECORD);
        EXPECT_EQ(QRV_ERR_NOT_KEPT, listSet("b", PBR_ROW_CREATED));
    }
    (void)listSet("c", PBR_ROW_CREATED);

    EXPECT_EQ(std::vector<std::string>{"list c 1=2"}, restart());
}

TEST_F(Journals, WhatAServiceCouldNotKeepIsKeptWithTheNextChange) {
    (void)host::journalTexts("acl");
    {
        const NoRoom noRoom;
        EXPECT_THROW(host::journalKeep("acl", {{"1001", "{}"}}), std::runtime_error);
    }
    (void)listSet("wan", PBR_ROW_CREATED);
    (void)restart();

    EXPECT_EQ((std::map<std::string, std::string>{{"1001", "{}"}}), host::journalTexts("acl"));
}

TEST_F(Journals, AValueOfAnotherKindThanItsFieldsIsNotBroughtBack) {
    (void)ifSet(PBR_IF_CREATE);
    (void)bindSet("wan");
    host::journalClose();
    { // as in a file that was changed by hand
        host::JournalFile file;
        host::PolicyState state;
        std::vector<std::string> findings;
        ASSERT_EQ("", file.open(root + "/var/lib/policyroute/journal.db", &state, &findings));
        const host::PolicyRow row{host::PolicyTable::Interface, "", 0, 0, UNIT};
        ASSERT_EQ("", file.append({row, PBR_IF_PBR_NAME, {false, 4096, ""}}));      // a number for a name
        ASSERT_EQ("", file.append({{host::PolicyTable::List, "b", 0, 0, 0}, 7, {true, 0, "xyz"}})); // and the other way
        ASSERT_EQ("", file.append({{host::PolicyTable::Node, "b", 5, 0, 0}, 4, {true, 0, "xyz"}}));
    }

    EXPECT_EQ((std::vector<std::string>{"list b 1=2", "node 5 1=2", "interface 2147483632 1=1"}), restart());
}

TEST_F(Journals, ALongLogIsFolded) {
    for (int i = 0; i < 5000; ++i) {
        (void)listSet("l" + std::to_string(i % 7), i % 2 == 0 ? PBR_ROW_CREATED : PBR_ROW_ACTIVE);
    }

    EXPECT_LT(fs::file_size(root + "/var/lib/policyroute/journal.db-wal"), 8u << 20);
    EXPECT_GE(restart().size(), 7u);
}

} // namespace
