// Journals: a database file of any bytes, or one whose rows are anything; what it says is brought back
// through the daemon's handlers, kept again, and read as the same.
//
//   u8    0 the rest is the database file; 1 u16 bytes of its write-ahead log stand before it;
//         else rows: u8, odd: of the log, else of the state; and what rowTake() takes
#include <cstddef>
#include <cstdint>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "api/pbr_func_map.h"
#include "api/pbr_keys.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/whole.h"
#include "host/journal/journal_file.h"
#include "host/journal/journal_replayer.h"

namespace {

using fuzz::Input;
using host::PolicyState;

const std::string NAMES[] = {"a", "ab", "0123456789abcdef", "", "0123456789abcdefg"};
const std::string BYTES[] = {std::string("\x0a\0\0\x01", 4), std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16), "a", "ab", ""};
const int64_t NUMBERS[] = {0, 1, 2, 3, 4, 5, 9, 19, 1501, 3501, 5001, 0xFFFFFFFFll, 0x100000000ll, -1};

void fileWrite(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

int64_t number(Input &input) {
    const uint8_t which = input.u8();
    return which < 200 ? NUMBERS[which % std::size(NUMBERS)] : input.u32();
}

std::string text(Input &input, const std::string *pKnown, size_t count) {
    const uint8_t which = input.u8();
    return which < 200 ? pKnown[which % count] : input.text(which - 200u);
}

// kind, list, node, hop, unit, field, and a number, bytes, or neither.
void rowTake(Input &input, sqlite3_stmt *pInsert) {
    const uint8_t kind = input.u8();
    sqlite3_bind_int64(pInsert, 1, kind < 250 ? kind % 5 : kind);
    const std::string list = text(input, NAMES, std::size(NAMES));
    sqlite3_bind_blob(pInsert, 2, list.data(), static_cast<int>(list.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(pInsert, 3, number(input));
    sqlite3_bind_int64(pInsert, 4, number(input));
    sqlite3_bind_int64(pInsert, 5, number(input));
    sqlite3_bind_int64(pInsert, 6, input.below(24));
    const uint8_t value = input.u8();
    sqlite3_bind_null(pInsert, 7);
    sqlite3_bind_null(pInsert, 8);
    if (value % 4 != 1) {
        sqlite3_bind_int64(pInsert, 7, number(input));
    }
    if (value % 4 == 1 || value % 4 == 2) {
        const std::string bytes = text(input, BYTES, std::size(BYTES));
        sqlite3_bind_blob(pInsert, 8, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    }
    (void)sqlite3_step(pInsert); // a key that stands already is refused
    sqlite3_reset(pInsert);
}

void rowsWrite(const std::string &path, Input &input) {
    { // its tables
        host::JournalFile file;
        PolicyState none;
        std::vector<std::string> findings;
        fuzz::require(file.open(path, &none, &findings).empty(), "a new journal cannot be made");
    }
    sqlite3 *pDb = nullptr;
    sqlite3_stmt *pInsert[2] = {};
    const std::string columns = " (kind, list, node, hop, unit, field, number, bytes) VALUES (?1,?2,?3,?4,?5,?6,?7,?8)";
    fuzz::require(sqlite3_open(path.c_str(), &pDb) == SQLITE_OK, "the journal cannot be opened");
    (void)sqlite3_exec(pDb, "PRAGMA synchronous=OFF; BEGIN", nullptr, nullptr, nullptr);
    fuzz::require(sqlite3_prepare_v2(pDb, ("INSERT INTO state" + columns).c_str(), -1, &pInsert[0], nullptr) == SQLITE_OK &&
                      sqlite3_prepare_v2(pDb, ("INSERT INTO log" + columns).c_str(), -1, &pInsert[1], nullptr) == SQLITE_OK,
                  "the journal has no tables");
    while (!input.ended()) {
        rowTake(input, pInsert[input.u8() & 1]);
    }
    (void)sqlite3_exec(pDb, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_finalize(pInsert[0]);
    sqlite3_finalize(pInsert[1]);
    sqlite3_close(pDb);
}

// Opens it, brings back what it says, keeps that, and reads it again.
void restart(const std::string &path) {
    host::JournalFile file;
    PolicyState state;
    std::vector<std::string> findings;
    const std::string error = file.open(path, &state, &findings);
    if (!error.empty()) {
        fuzz::require(error.find(path) != std::string::npos, "no place: " + error);
        return;
    }
    const auto names = file.texts("interface");
    for (const bool isSameRun : {false, true}) {
        host::ReplayResult result = host::replayRun(state, names, isSameRun, gPbrFuncMap, PBR_COMMAND_COUNT);
        for (const host::ReplayRefusal &refusal : result.refused) {
            fuzz::require(!refusal.what.empty() && !refusal.why.empty(), "a refusal without a reason");
        }
        fuzz::wholeEmpty();
    }
    PolicyState kept = state; // with the rows that its log destroyed: they stand in the file still
    kept.become(state.rows());
    fuzz::require(file.fold(kept, kept.takeChanged()).empty(), "what was read cannot be kept");
    const host::PolicySet set{{host::PolicyTable::List, "last", 0, 0, 0}, PBR_LIST_STATUS, {false, 2, ""}};
    fuzz::require(file.append(set).empty() && file.takeBack().empty() && file.append(set).empty(), "no set can be appended");
    kept.done(set);
    file.close();
    host::JournalFile again;
    PolicyState read;
    const std::string why = again.open(path, &read, &findings);
    fuzz::require(why.empty(), "it cannot be opened again: " + why);
    fuzz::require(read.rows() == kept.rows(), "it is another policy now");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    (void)fuzz::wholeStart();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    Input input(pData, size);
    const std::string folder = fuzz::wholeStart() + "/journal";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    const std::string path = folder + "/journal.db";
    const uint8_t kind = input.u8();
    if (kind > 1) {
        rowsWrite(path, input);
    } else {
        const size_t walBytes = kind == 1 ? input.u16() : 0;
        const std::vector<uint8_t> wal = input.bytes(walBytes);
        if (!wal.empty()) {
            fileWrite(path + "-wal", wal);
        }
        fileWrite(path, input.rest());
    }
    restart(path);
    return 0;
}
