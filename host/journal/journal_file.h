// The journal's file: an SQLite database with what comes back at the next start.
//
//   log       the sets accepted since the state was folded, one transaction each, in their order
//   state     the last value of each field of each row of the policy, as of the last fold
//   service   what the host's services keep: texts by service and key
//
// The file belongs to this process alone while it is open. Written is what a transaction has written when
// the process dies; the last ones may be missing, whole, when the machine dies. Not for several threads.
#ifndef HOST_JOURNAL_JOURNAL_FILE_H
#define HOST_JOURNAL_JOURNAL_FILE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/journal/policy_state.h"

struct sqlite3;
struct sqlite3_stmt;

namespace host {

using JournalTexts = std::map<std::string, std::optional<std::string>>; // none: the key goes

class JournalFile {
public:
    JournalFile() = default;
    ~JournalFile() { close(); }
    JournalFile(const JournalFile &) = delete;
    JournalFile &operator=(const JournalFile &) = delete;

    // Opens, or makes, the file and reads its policy: *pState is the state with the log in it. A file that is
    // damaged is moved aside ("PATH.damaged") and an empty one made, and rows that this program does not write are
    // dropped; *pFindings gets a line about that, or about a last set that was not whole. Result: empty, or why it
    // cannot be used. Lock: none
    std::string open(const std::string &path, PolicyState *pState, std::vector<std::string> *pFindings);
    void close();

    // Appends a set, before it is applied. Result: empty, or why not. Lock: none
    std::string append(const PolicySet &set);

    // The set appended last failed: it is taken away again. Result: empty, or why not. Lock: none
    std::string takeBack();

    // How many sets the log holds.
    uint64_t logCount() const { return logCount_; }

    // Writes these rows as they are in `state` and empties the log, in one transaction. Result: empty, or why
    // not: the file is as it was then. Lock: none
    std::string fold(const PolicyState &state, const std::set<PolicyRow> &changed);

    // Texts of a service, in one transaction. Result: empty, or why not: none was written. Lock: none
    std::string textsPut(const std::string &service, const JournalTexts &texts);
    std::map<std::string, std::string> texts(const std::string &service);

private:
    std::string run(const char *pSql);
    std::string error() const;
    std::string step(sqlite3_stmt *pStatement);
    std::string transaction(std::string (JournalFile::*body)(const void *), const void *pArgument);
    std::string foldBody(const void *pArgument);
    std::string textsBody(const void *pArgument);
    std::string openOnce(const std::string &path, PolicyState *pState);
    std::string prepareAll();
    std::string strangeRowsDrop();
    std::string readAll(PolicyState *pState);
    void bindSet(sqlite3_stmt *pStatement, const PolicyRow &row, uint32_t field, const PolicyValue &value);

    sqlite3 *pDb_ = nullptr;
    std::vector<sqlite3_stmt *> statements_;
    bool isDamaged_ = false; // as the latest attempt to open it found
    int framesFound_ = -1;   // whole frames of the write-ahead log then; -1: not known
    int strangeRows_ = 0;    // dropped then, because they are none that this program writes
    uint64_t logCount_ = 0;
    int64_t lastSeq_ = 0;
};

} // namespace host

#endif
