// The journal's file: what was written comes back, also after a crash between any two steps.
#include "host/journal/journal_file.h"

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "api/pbr_keys.h"
#include "core/pbr_types.h"

namespace {

namespace fs = std::filesystem;
using host::JournalFile;
using host::PolicyRow;
using host::PolicySet;
using host::PolicyState;
using host::PolicyTable;

PolicySet listSet(const std::string &name, uint32_t status) {
    return {{PolicyTable::List, name, 0, 0, 0}, PBR_LIST_STATUS, {false, status, ""}};
}

PolicySet nodeSet(const std::string &list, uint32_t node, uint32_t field, uint32_t number) {
    return {{PolicyTable::Node, list, node, 0, 0}, field, {false, number, ""}};
}

PolicySet hopSet(const std::string &list, uint32_t node, uint32_t hop, uint32_t field, uint32_t number) {
    return {{PolicyTable::NextHop, list, node, hop, 0}, field, {false, number, ""}};
}

PolicySet bindSet(uint32_t unit, const std::string &list) {
    return {{PolicyTable::Interface, "", 0, 0, unit}, PBR_IF_PBR_NAME, {true, 0, list}};
}

// A random set that is not always sensible: the state only has to be that of the same sets in a map.
PolicySet anySet(std::mt19937 &random) {
    const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    const std::string list(1, static_cast<char>('a' + below(3)));
    switch (below(4)) {
    case 0:
        return listSet(list, 1 + below(4));
    case 1:
        return nodeSet(list, 1 + below(3), std::vector<uint32_t>{1, 4, 10, 11, 13, 19}[below(6)], 1 + below(4));
    case 2:
        return hopSet(list, 1 + below(3), 1 + below(3), std::vector<uint32_t>{1, 5}[below(2)], 1 + below(4));
    default:
        return below(2) == 0 ? bindSet(1 + below(3), list)
                             : PolicySet{{PolicyTable::Interface, "", 0, 0, 1 + below(3)}, PBR_IF_STATUS,
                                         {false, 1 + below(2), ""}};
    }
}

class JournalFiles : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/pbrjournalXXXXXX";
        folder = mkdtemp(name);
        path = folder + "/journal.db";
    }
    void TearDown() override { fs::remove_all(folder); }

    // What a process that dies now leaves behind.
    std::string crashCopy() {
        const std::string copy = folder + "/copy.db";
        for (const char *pEnd : {"", "-wal"}) {
            fs::remove(copy + pEnd);
            if (fs::exists(path + pEnd)) {
                fs::copy_file(path + pEnd, copy + pEnd);
            }
        }
        return copy;
    }

    static std::map<PolicyRow, host::PolicyFields> rowsOf(const std::string &file, std::vector<std::string> *pFindings) {
        JournalFile journal;
        PolicyState state;
        EXPECT_EQ("", journal.open(file, &state, pFindings));
        return state.rows();
    }

    std::string folder;
    std::string path;
    std::vector<std::string> findings;
};

TEST_F(JournalFiles, StateAfterRandomSetsIsThatOfTheSetsDoneAfterACrashAtAnyStep) {
    std::mt19937 random(7);
    JournalFile journal;
    PolicyState state;
    ASSERT_EQ("", journal.open(path, &state, &findings));
    for (int i = 0; i < 150; ++i) {
        const PolicySet set = anySet(random);
        ASSERT_EQ("", journal.append(set));
        if (random() % 4 == 0) {
            ASSERT_EQ("", journal.takeBack());
        } else {
            state.done(set);
        }
        if (random() % 16 == 0) {
            ASSERT_EQ("", journal.fold(state, state.takeChanged()));
            ASSERT_EQ(0u, journal.logCount());
        }

        ASSERT_EQ(state.rows(), rowsOf(crashCopy(), &findings)) << "step " << i;
    }
    EXPECT_TRUE(findings.empty()) << findings.front();
}

TEST_F(JournalFiles, AWriteAheadLogThatIsCutGivesTheSetsBeforeTheCutAndSaysSo) {
    JournalFile journal;
    PolicyState state;
    ASSERT_EQ("", journal.open(path, &state, &findings));
    std::vector<std::map<PolicyRow, host::PolicyFields>> histories{state.rows()};
    for (uint32_t i = 1; i <= 20; ++i) {
        const PolicySet set = nodeSet("a", i, PBR_NODE_ACL_NUM, i);
        ASSERT_EQ("", journal.append(set));
        state.done(set);
        histories.push_back(state.rows());
    }
    const auto whole = fs::file_size(path + "-wal");
    size_t last = histories.size() - 1;

    for (auto size = whole - 100; size > whole / 4; size -= 777) {
        const std::string copy = crashCopy();
        fs::resize_file(copy + "-wal", size);
        std::vector<std::string> said;
        const auto rows = rowsOf(copy, &said);
        const auto found = std::find(histories.begin(), histories.end(), rows);
        ASSERT_NE(histories.end(), found) << "cut at " << size;
        const auto at = static_cast<size_t>(found - histories.begin());
        EXPECT_LE(at, last);
        last = at;
        EXPECT_EQ(1u, said.size()) << "cut at " << size;
    }
    EXPECT_LT(last, 15u);
}

TEST_F(JournalFiles, AFlippedByteInTheLastRecordGivesTheSetBefore) {
    JournalFile journal;
    PolicyState state;
    ASSERT_EQ("", journal.open(path, &state, &findings));
    ASSERT_EQ("", journal.append(listSet("a", PBR_ROW_CREATED)));
    state.done(listSet("a", PBR_ROW_CREATED));
    ASSERT_EQ("", journal.append(listSet("b", PBR_ROW_CREATED)));
    const std::string copy = crashCopy();
    {
        std::fstream file(copy + "-wal", std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(fs::file_size(copy + "-wal")) - 5);
        file.put('\x5a');
    }

    EXPECT_EQ(state.rows(), rowsOf(copy, &findings));

    EXPECT_EQ(1u, findings.size());
}

TEST_F(JournalFiles, AFileOfGarbageIsMovedAsideAndSaid) {
    {
        std::ofstream file(path, std::ios::binary);
        for (int i = 0; i < 5000; ++i) {
            file.put(static_cast<char>(i * 37));
        }
    }

    EXPECT_TRUE(rowsOf(path, &findings).empty());

    ASSERT_EQ(1u, findings.size());
    EXPECT_NE(std::string::npos, findings[0].find("was damaged"));
    EXPECT_TRUE(fs::exists(path + ".damaged"));
    EXPECT_TRUE(rowsOf(path, &findings).empty());
    EXPECT_EQ(1u, findings.size()) << "the new file is whole";
}

TEST_F(JournalFiles, ADatabaseWithDamagedPagesIsMovedAside) {
    {
        JournalFile journal;
        PolicyState state;
        ASSERT_EQ("", journal.open(path, &state, &findings));
        for (uint32_t i = 1; i <= 200; ++i) {
            state.done(nodeSet("a", i, PBR_NODE_ACL_NUM, i));
        }
        ASSERT_EQ("", journal.fold(state, state.takeChanged()));
    }
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(1024 * 5);
        file << std::string(4096, '\xee');
    }

    EXPECT_TRUE(rowsOf(path, &findings).empty());

    ASSERT_EQ(1u, findings.size());
    EXPECT_TRUE(fs::exists(path + ".damaged"));
}

// Damage that leaves the database whole: a node's number of more than 32 bits would be read as another node's, and
// no set of that node would ever replace it.
TEST_F(JournalFiles, RowsThatNoSetWritesAreDroppedAndSaid) {
    {
        JournalFile journal;
        PolicyState state;
        ASSERT_EQ("", journal.open(path, &state, &findings));
        state.done(listSet("a", PBR_ROW_CREATED));
        state.done(nodeSet("a", 1, PBR_NODE_ACL_NUM, 1501));
        ASSERT_EQ("", journal.fold(state, state.takeChanged()));
    }
    sqlite3 *pDb = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &pDb));
    const std::string columns = " (kind, list, node, hop, unit, field, number, bytes) VALUES ";
    for (const char *pRow : {"(2, x'61', 4294967297, 0, 0, 4, 1, NULL)", "(2, 'a', 1, 0, 0, 4, 1, NULL)",
                             "(9, x'61', 1, 0, 0, 4, 1, NULL)", "(2, x'61', 1, 0, 0, 5, -1, NULL)",
                             "(2, x'61', 1, 0, 0, 6, 1, 'text')", "(2, x'61', 1, 0.5, 0, 4, 1, NULL)"}) {
        for (const char *pTable : {"state", "log"}) {
            ASSERT_EQ(SQLITE_OK, sqlite3_exec(pDb, ("INSERT INTO " + std::string(pTable) + columns + pRow).c_str(), nullptr,
                                              nullptr, nullptr)) << pRow;
        }
    }
    sqlite3_close(pDb);
    JournalFile journal;
    PolicyState state;

    ASSERT_EQ("", journal.open(path, &state, &findings));

    ASSERT_EQ(1u, findings.size());
    EXPECT_NE(std::string::npos, findings[0].find("12 records of it are none that policyrouted writes")) << findings[0];
    PolicyState whole;
    whole.done(listSet("a", PBR_ROW_CREATED));
    whole.done(nodeSet("a", 1, PBR_NODE_ACL_NUM, 1501));
    EXPECT_EQ(whole.rows(), state.rows());
    state.done(nodeSet("a", 1, PBR_NODE_ACL_NUM, 1502));
    ASSERT_EQ("", journal.fold(state, state.takeChanged()));
    findings.clear();
    EXPECT_EQ(state.rows(), rowsOf(crashCopy(), &findings));
    EXPECT_TRUE(findings.empty());
}

TEST_F(JournalFiles, ARowWithoutFieldsIsNone) {
    JournalFile journal;
    PolicyState state;
    ASSERT_EQ("", journal.open(path, &state, &findings));
    for (const PolicySet &set : {nodeSet("a", 1, PBR_NODE_TIME_RANGE_ID, PBR_TIME_RANGE_NONE), nodeSet("a", 2, PBR_NODE_VRF_ID, 7),
                                 nodeSet("a", 2, PBR_NODE_CLEAR, 1)}) {
        ASSERT_EQ("", journal.append(set));
        state.done(set);
    }

    EXPECT_TRUE(state.rows().empty());
    EXPECT_EQ(state.rows(), rowsOf(crashCopy(), &findings));
    ASSERT_EQ("", journal.fold(state, state.takeChanged()));
    EXPECT_EQ(state.rows(), rowsOf(crashCopy(), &findings));
}

TEST_F(JournalFiles, ADiskWithoutRoomRefusesTheSetAndKeepsWhatWasThere) {
    JournalFile journal;
    PolicyState state;
    ASSERT_EQ("", journal.open(path, &state, &findings));
    ASSERT_EQ("", journal.append(listSet("a", PBR_ROW_CREATED)));
    state.done(listSet("a", PBR_ROW_CREATED));
    const auto before = signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit none{fs::file_size(path + "-wal"), limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);

    const std::string why = journal.append(listSet("b", PBR_ROW_CREATED));

    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, before);
    EXPECT_NE("", why);
    EXPECT_EQ(state.rows(), rowsOf(crashCopy(), &findings));
    EXPECT_EQ("", journal.append(listSet("c", PBR_ROW_CREATED)));
    state.done(listSet("c", PBR_ROW_CREATED));
    EXPECT_EQ(state.rows(), rowsOf(crashCopy(), &findings));
}

TEST_F(JournalFiles, TextsOfServicesComeBack) {
    {
        JournalFile journal;
        PolicyState state;
        ASSERT_EQ("", journal.open(path, &state, &findings));
        ASSERT_EQ("", journal.textsPut("acl", {{"1001", "x"}, {"1002", "y"}}));
        ASSERT_EQ("", journal.textsPut("acl", {{"1001", std::nullopt}, {"1003", "z"}}));
        ASSERT_EQ("", journal.textsPut("probe", {{"1002", "other"}}));
    }
    JournalFile journal;
    PolicyState state;
    ASSERT_EQ("", journal.open(path, &state, &findings));

    EXPECT_EQ((std::map<std::string, std::string>{{"1002", "y"}, {"1003", "z"}}), journal.texts("acl"));
}

TEST_F(JournalFiles, AFileOfANewerVersionIsLeftAlone) {
    {
        JournalFile journal;
        PolicyState state;
        ASSERT_EQ("", journal.open(path, &state, &findings));
    }
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(63); // the last byte of the version
        file.put(9);
    }
    JournalFile journal;
    PolicyState state;

    const std::string why = journal.open(path, &state, &findings);

    EXPECT_NE(std::string::npos, why.find("newer version")) << why;
    EXPECT_TRUE(findings.empty());
}

} // namespace
