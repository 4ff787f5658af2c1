// See journal_file.h.
#include "host/journal/journal_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

// Write-ahead log: a set is one appended page. NORMAL: handed to the kernel with each transaction, to the
// disk with each checkpoint. The checkpoint is ours, with the fold: not in the middle of somebody's set.
constexpr const char *SETTINGS = "PRAGMA locking_mode=EXCLUSIVE; PRAGMA page_size=1024; PRAGMA journal_mode=WAL;"
                                 "PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=0;";
constexpr const char *TABLES =
    "CREATE TABLE IF NOT EXISTS log (seq INTEGER PRIMARY KEY, kind INTEGER NOT NULL, list BLOB NOT NULL,"
    " node INTEGER NOT NULL, hop INTEGER NOT NULL, unit INTEGER NOT NULL, field INTEGER NOT NULL,"
    " number INTEGER, bytes BLOB);"
    "CREATE TABLE IF NOT EXISTS state (kind INTEGER NOT NULL, list BLOB NOT NULL, node INTEGER NOT NULL,"
    " hop INTEGER NOT NULL, unit INTEGER NOT NULL, field INTEGER NOT NULL, number INTEGER, bytes BLOB,"
    " PRIMARY KEY (kind, list, node, hop, unit, field)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS service (service TEXT NOT NULL, key TEXT NOT NULL, text TEXT NOT NULL,"
    " PRIMARY KEY (service, key)) WITHOUT ROWID;"
    "PRAGMA user_version=1;";
constexpr int FORMAT = 1;

// What a row of both tables is as this program writes it: numbers of 32 bits, bytes that are bytes. Another one came of
// damage that left the database whole; part of its key would be lost in reading, so that it could never be replaced.
constexpr const char *IS_WRITTEN_BY_US =
    "typeof(kind) = 'integer' AND kind BETWEEN 0 AND 4 AND typeof(list) = 'blob'"
    " AND typeof(node) = 'integer' AND node BETWEEN 0 AND 4294967295"
    " AND typeof(hop) = 'integer' AND hop BETWEEN 0 AND 4294967295"
    " AND typeof(unit) = 'integer' AND unit BETWEEN 0 AND 4294967295"
    " AND typeof(field) = 'integer' AND field BETWEEN 0 AND 4294967295"
    " AND (number IS NULL OR typeof(number) = 'integer' AND number BETWEEN 0 AND 4294967295)"
    " AND typeof(bytes) IN ('blob', 'null')";

// In the order of SQL.
enum Statement { LOG_ADD, LOG_DEL, STATE_DEL, STATE_ADD, TEXT_PUT, TEXT_DEL, STATEMENTS };
constexpr const char *SQL[STATEMENTS] = {
    "INSERT INTO log (kind, list, node, hop, unit, field, number, bytes) VALUES (?1,?2,?3,?4,?5,?6,?7,?8)",
    "DELETE FROM log WHERE seq = ?1",
    "DELETE FROM state WHERE kind = ?1 AND list = ?2 AND node = ?3 AND hop = ?4 AND unit = ?5",
    "INSERT INTO state (kind, list, node, hop, unit, field, number, bytes) VALUES (?1,?2,?3,?4,?5,?6,?7,?8)",
    "INSERT OR REPLACE INTO service (service, key, text) VALUES (?1,?2,?3)",
    "DELETE FROM service WHERE service = ?1 AND key = ?2",
};

constexpr size_t WAL_HEAD_BYTES = 32;
constexpr size_t WAL_FRAME_HEAD_BYTES = 24;

uint32_t big32(const unsigned char *pBytes) {
    return static_cast<uint32_t>(pBytes[0]) << 24 | pBytes[1] << 16 | pBytes[2] << 8 | pBytes[3];
}

// How many frames of the present generation the write-ahead log holds, a last one that is cut included.
// Those of an earlier generation behind them carry other salts.
uint32_t walFrames(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
    if (bytes.size() < WAL_HEAD_BYTES) {
        return bytes.empty() ? 0 : 1;
    }
    const size_t frameBytes = WAL_FRAME_HEAD_BYTES + big32(p + 8);
    uint32_t count = 0;
    for (size_t at = WAL_HEAD_BYTES; at < bytes.size(); at += frameBytes) {
        if (bytes.size() - at >= 16 && memcmp(p + at + 8, p + 16, 8) != 0) {
            break; // another generation, or a frame whose head is not whole
        }
        ++count;
    }
    return count;
}

void rowBind(sqlite3_stmt *pStatement, const PolicyRow &row) {
    sqlite3_bind_int(pStatement, 1, static_cast<int>(row.table));
    sqlite3_bind_blob(pStatement, 2, row.list.data(), static_cast<int>(row.list.size()), SQLITE_STATIC);
    sqlite3_bind_int64(pStatement, 3, row.node);
    sqlite3_bind_int64(pStatement, 4, row.hop);
    sqlite3_bind_int64(pStatement, 5, row.unit);
}

std::string blobAt(sqlite3_stmt *pStatement, int column) {
    const auto *pBytes = static_cast<const char *>(sqlite3_column_blob(pStatement, column));
    return pBytes == nullptr ? "" : std::string(pBytes, static_cast<size_t>(sqlite3_column_bytes(pStatement, column)));
}

// Columns kind, list, node, hop, unit, field, number, bytes.
PolicySet setAt(sqlite3_stmt *pStatement) {
    PolicySet set;
    set.row.table = static_cast<PolicyTable>(sqlite3_column_int(pStatement, 0));
    set.row.list = blobAt(pStatement, 1);
    set.row.node = static_cast<uint32_t>(sqlite3_column_int64(pStatement, 2));
    set.row.hop = static_cast<uint32_t>(sqlite3_column_int64(pStatement, 3));
    set.row.unit = static_cast<uint32_t>(sqlite3_column_int64(pStatement, 4));
    set.field = static_cast<uint32_t>(sqlite3_column_int64(pStatement, 5));
    set.value.isBytes = sqlite3_column_type(pStatement, 7) != SQLITE_NULL;
    set.value.number = static_cast<uint32_t>(sqlite3_column_int64(pStatement, 6));
    set.value.bytes = blobAt(pStatement, 7);
    return set;
}

struct FoldArgument {
    const PolicyState *pState;
    const std::set<PolicyRow> *pChanged;
};
struct TextsArgument {
    const std::string *pService;
    const JournalTexts *pTexts;
};

} // namespace

std::string JournalFile::error() const {
    return pDb_ == nullptr ? "out of memory" : sqlite3_errmsg(pDb_);
}

std::string JournalFile::run(const char *pSql) {
    const int code = sqlite3_exec(pDb_, pSql, nullptr, nullptr, nullptr);
    isDamaged_ = isDamaged_ || code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
    return code == SQLITE_OK ? "" : error();
}

// Runs a statement that yields nothing.
std::string JournalFile::step(sqlite3_stmt *pStatement) {
    const int code = sqlite3_step(pStatement);
    const std::string why = code == SQLITE_DONE ? "" : error();
    sqlite3_reset(pStatement);
    return why;
}

std::string JournalFile::transaction(std::string (JournalFile::*body)(const void *), const void *pArgument) {
    std::string why = run("BEGIN IMMEDIATE");
    if (!why.empty()) {
        return why;
    }
    why = (this->*body)(pArgument);
    if (why.empty()) {
        why = run("COMMIT");
    }
    if (!why.empty() && sqlite3_get_autocommit(pDb_) == 0) {
        (void)run("ROLLBACK"); // what is not committed is gone in any case
    }
    return why;
}

std::string JournalFile::prepareAll() {
    for (const char *pSql : SQL) {
        sqlite3_stmt *pStatement = nullptr;
        if (sqlite3_prepare_v3(pDb_, pSql, -1, SQLITE_PREPARE_PERSISTENT, &pStatement, nullptr) != SQLITE_OK) {
            return error();
        }
        statements_.push_back(pStatement);
    }
    return "";
}

// Takes away the rows that are not as this program writes them.
std::string JournalFile::strangeRowsDrop() {
    for (const char *pTable : {"state", "log"}) {
        const std::string why = run((std::string("DELETE FROM ") + pTable + " WHERE NOT (" + IS_WRITTEN_BY_US + ")").c_str());
        if (!why.empty()) {
            return why;
        }
        strangeRows_ += sqlite3_changes(pDb_);
    }
    return "";
}

std::string JournalFile::readAll(PolicyState *pState) {
    sqlite3_stmt *pStatement = nullptr;
    for (const bool isLog : {false, true}) {
        const char *pSql = isLog ? "SELECT kind, list, node, hop, unit, field, number, bytes, seq FROM log ORDER BY seq"
                                 : "SELECT kind, list, node, hop, unit, field, number, bytes FROM state";
        if (sqlite3_prepare_v2(pDb_, pSql, -1, &pStatement, nullptr) != SQLITE_OK) {
            return error();
        }
        int code = SQLITE_DONE;
        while ((code = sqlite3_step(pStatement)) == SQLITE_ROW) {
            const PolicySet set = setAt(pStatement);
            if (isLog) {
                pState->done(set);
                ++logCount_;
            } else {
                pState->restore(set.row, set.field, set.value);
            }
        }
        sqlite3_finalize(pStatement);
        if (code != SQLITE_DONE) {
            isDamaged_ = isDamaged_ || code == SQLITE_CORRUPT;
            return error();
        }
    }
    return "";
}

std::string JournalFile::openOnce(const std::string &path, PolicyState *pState) {
    isDamaged_ = false;
    framesFound_ = -1;
    strangeRows_ = 0;
    if (sqlite3_open_v2(path.c_str(), &pDb_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
                        nullptr) != SQLITE_OK) {
        return error();
    }
    sqlite3_extended_result_codes(pDb_, 0);
    std::string why = run(SETTINGS);
    int done = 0;
    if (why.empty()) { // how much of the write-ahead log is whole, before anything is written to it
        (void)sqlite3_wal_checkpoint_v2(pDb_, nullptr, SQLITE_CHECKPOINT_PASSIVE, &framesFound_, &done);
    }
    sqlite3_stmt *pCheck = nullptr;
    if (why.empty() && sqlite3_prepare_v2(pDb_, "PRAGMA quick_check(1)", -1, &pCheck, nullptr) == SQLITE_OK) {
        const bool isWhole = sqlite3_step(pCheck) == SQLITE_ROW && blobAt(pCheck, 0) == "ok";
        isDamaged_ = !isWhole;
        why = isWhole ? "" : "the file is damaged";
        sqlite3_finalize(pCheck);
    }
    if (why.empty() && sqlite3_prepare_v2(pDb_, "PRAGMA user_version", -1, &pCheck, nullptr) == SQLITE_OK) {
        const int format = sqlite3_step(pCheck) == SQLITE_ROW ? sqlite3_column_int(pCheck, 0) : 0;
        why = format <= FORMAT ? "" : "it was written by a newer version (format " + std::to_string(format) + ")";
        sqlite3_finalize(pCheck);
        why = why.empty() && format < FORMAT ? run(TABLES) : why;
    }
    if (why.empty()) {
        why = prepareAll();
    }
    if (why.empty()) {
        why = strangeRowsDrop();
    }
    return why.empty() ? readAll(pState) : why;
}

std::string JournalFile::open(const std::string &path, PolicyState *pState, std::vector<std::string> *pFindings) {
    const uint32_t frames = walFrames(path + "-wal");
    std::string why = openOnce(path, pState);
    if (!why.empty() && isDamaged_) {
        close();
        *pState = PolicyState();
        const std::string aside = path + ".damaged";
        (void)unlink((path + "-wal").c_str()); // belongs to the damaged file and is of no use without it
        if (rename(path.c_str(), aside.c_str()) != 0) {
            return path + " is damaged and cannot be moved aside: " + strerror(errno);
        }
        pFindings->push_back(path + " was damaged (" + why + "): it is " + aside +
                             " now, and nothing of it comes back; apply the policy file again");
        why = openOnce(path, pState);
    } else if (why.empty() && frames != 0) {
        if (framesFound_ >= 0 && frames > static_cast<uint32_t>(framesFound_)) {
            pFindings->push_back("the last record of " + path + " was not whole: the policy is that of the set before it");
        }
    }
    if (!why.empty()) {
        close();
        return path + ": " + why;
    }
    if (strangeRows_ != 0) {
        pFindings->push_back(path + " is damaged: " + std::to_string(strangeRows_) +
                             " records of it are none that policyrouted writes and were dropped; apply the policy file again");
    }
    return "";
}

void JournalFile::close() {
    for (sqlite3_stmt *pStatement : statements_) {
        sqlite3_finalize(pStatement);
    }
    statements_.clear();
    sqlite3_close(pDb_);
    pDb_ = nullptr;
    logCount_ = 0;
    lastSeq_ = 0;
}

void JournalFile::bindSet(sqlite3_stmt *pStatement, const PolicyRow &row, uint32_t field, const PolicyValue &value) {
    rowBind(pStatement, row);
    sqlite3_bind_int64(pStatement, 6, field);
    sqlite3_bind_int64(pStatement, 7, value.number);
    if (value.isBytes) {
        sqlite3_bind_blob(pStatement, 8, value.bytes.data(), static_cast<int>(value.bytes.size()), SQLITE_STATIC);
        if (value.bytes.empty()) {
            sqlite3_bind_zeroblob(pStatement, 8, 0);
        }
    } else {
        sqlite3_bind_null(pStatement, 8);
    }
}

std::string JournalFile::append(const PolicySet &set) {
    bindSet(statements_[LOG_ADD], set.row, set.field, set.value);
    const std::string why = step(statements_[LOG_ADD]);
    if (why.empty()) {
        lastSeq_ = sqlite3_last_insert_rowid(pDb_);
        ++logCount_;
    }
    return why;
}

std::string JournalFile::takeBack() {
    sqlite3_bind_int64(statements_[LOG_DEL], 1, lastSeq_);
    const std::string why = step(statements_[LOG_DEL]);
    if (why.empty()) {
        --logCount_;
    }
    return why;
}

std::string JournalFile::foldBody(const void *pArgument) {
    const auto *pFold = static_cast<const FoldArgument *>(pArgument);
    for (const PolicyRow &row : *pFold->pChanged) {
        rowBind(statements_[STATE_DEL], row);
        std::string why = step(statements_[STATE_DEL]);
        const auto held = pFold->pState->rows().find(row);
        if (why.empty() && held != pFold->pState->rows().end()) {
            for (const auto &[field, value] : held->second) {
                bindSet(statements_[STATE_ADD], row, field, value);
                why = why.empty() ? step(statements_[STATE_ADD]) : why;
            }
        }
        if (!why.empty()) {
            return why;
        }
    }
    return run("DELETE FROM log");
}

std::string JournalFile::fold(const PolicyState &state, const std::set<PolicyRow> &changed) {
    const FoldArgument argument{&state, &changed};
    const std::string why = transaction(&JournalFile::foldBody, &argument);
    if (why.empty()) {
        logCount_ = 0;
        // The write-ahead log is written from its beginning again; one that could not be is merely longer.
        (void)sqlite3_wal_checkpoint_v2(pDb_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    }
    return why;
}

std::string JournalFile::textsBody(const void *pArgument) {
    const auto *pTexts = static_cast<const TextsArgument *>(pArgument);
    for (const auto &[key, text] : *pTexts->pTexts) {
        sqlite3_stmt *pStatement = statements_[text ? TEXT_PUT : TEXT_DEL];
        sqlite3_bind_text(pStatement, 1, pTexts->pService->data(), static_cast<int>(pTexts->pService->size()), SQLITE_STATIC);
        sqlite3_bind_text(pStatement, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        if (text) {
            sqlite3_bind_text(pStatement, 3, text->data(), static_cast<int>(text->size()), SQLITE_STATIC);
        }
        const std::string why = step(pStatement);
        if (!why.empty()) {
            return why;
        }
    }
    return "";
}

std::string JournalFile::textsPut(const std::string &service, const JournalTexts &texts) {
    const TextsArgument argument{&service, &texts};
    return transaction(&JournalFile::textsBody, &argument);
}

std::map<std::string, std::string> JournalFile::texts(const std::string &service) {
    std::map<std::string, std::string> found;
    sqlite3_stmt *pStatement = nullptr;
    if (sqlite3_prepare_v2(pDb_, "SELECT key, text FROM service WHERE service = ?1", -1, &pStatement, nullptr) != SQLITE_OK) {
        return found;
    }
    sqlite3_bind_text(pStatement, 1, service.data(), static_cast<int>(service.size()), SQLITE_STATIC);
    while (sqlite3_step(pStatement) == SQLITE_ROW) {
        found[blobAt(pStatement, 0)] = blobAt(pStatement, 1);
    }
    sqlite3_finalize(pStatement);
    return found;
}

} // namespace host
