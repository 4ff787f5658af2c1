// See journal.h.
#include "host/journal/journal.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "api/pbr_keys.h"
#include "core/pbr_types.h"
#include "host/hwil/cmd_sync.h"
#include "host/journal/journal_replayer.h"
#include "host/logging/host_log.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/option/option.h"
#include "host/process/own_files.h"

namespace host {

namespace {

using nlohmann::json;

constexpr const char *MODULE = "journal";
const std::string DEFAULT_FOLDER = "/var/lib/policyroute"; // below host.root
const std::string FILE_NAME = "/journal.db";
constexpr const char *INTERFACES = "interface"; // texts: the name of each unit that a set named
constexpr const char *MACHINE = "machine";      // texts: which run of the machine the units belong to
constexpr uint32_t SYNC_FLAG_BYTES = 0x80000000u;
constexpr uint64_t FOLD_SETS = 4096;            // longest log

struct NotRestored {
    std::string what;
    std::string why;
};

class Journal final : public CommandKeeper {
public:
    std::string open(const std::string &path, std::function<void()> settle);
    uint32_t accepted(const void *pKey, uint32_t commandCode, const PbrApiValue *pValue,
                      const PbrSyncCtx *pCtx) override;
    void answered(const CommandSet &set, uint32_t result) override;
    void replay(const IcmCommand *pCommands, uint32_t count) override;
    std::map<std::string, std::string> textsOf(const std::string &service);
    void mustBeReady();
    void keep(const std::string &service, const JournalTexts &texts);
    void keepAll(const std::string &service, const std::map<std::string, std::string> &texts);
    void notRestored(const std::string &what, const std::string &why);
    void interfaceLeft(uint32_t unit);
    void forget();
    json show();

private:
    bool written(const std::string &why);
    std::string note(const std::string &service, const JournalTexts &texts);
    std::string nameNote(const PolicySet &set);
    void appendDone(const PolicySet &set);
    void leftDrop(uint32_t unit);
    void fold();
    bool repair();

    std::mutex lock_;
    JournalFile file_;
    std::string path_;
    PolicyState state_;
    std::map<std::string, std::map<std::string, std::string>> texts_; // as written
    std::map<std::string, JournalTexts> owed_; // by service: not written, because the file could not be
    std::optional<PolicySet> pending_; // accepted, not answered
    std::set<uint32_t> left_;          // interfaces that left meanwhile
    bool mustTakeBack_ = false;        // the set appended last failed, and could not be taken back yet
    bool isReplaying_ = false;
    std::string failure_; // of the latest write; empty: writing
    std::vector<std::string> findings_;
    std::vector<NotRestored> notRestored_;
    std::map<PolicyRow, std::string> unmade_; // rows kept for the next start whose interface was not there at this one
    std::function<void()> settle_;
};

std::unique_ptr<Journal> &journal() {
    static auto *pJournal = new std::unique_ptr<Journal>; // outlives the daemon's tasks
    return *pJournal;
}

std::string Journal::open(const std::string &path, std::function<void()> settle) {
    path_ = path;
    settle_ = std::move(settle);
    const std::string error = file_.open(path, &state_, &findings_);
    if (!error.empty()) {
        return error;
    }
    for (const std::string &finding : findings_) {
        hostLog(LOG_LEVEL_ERROR, MODULE, "%s", finding.c_str());
    }
    return "";
}

// Takes down whether the file could be written. Result: whether. The lock is held.
bool Journal::written(const std::string &why) {
    if (!why.empty() && failure_.empty()) {
        hostLog(LOG_LEVEL_ERROR, MODULE, "%s cannot be written: %s; changes are refused until it can", path_.c_str(),
                why.c_str());
    } else if (why.empty() && !failure_.empty()) {
        hostLog(LOG_LEVEL_NOTICE, MODULE, "%s can be written again", path_.c_str());
    }
    failure_ = why;
    return why.empty();
}

// Makes up for a write that failed. Result: whether changes may be made. The lock is held.
bool Journal::repair() {
    if (mustTakeBack_ && !written(file_.takeBack())) {
        return false;
    }
    mustTakeBack_ = false;
    if (failure_.empty()) {
        return true;
    }
    // What a service changed and could not keep comes first; without any such thing a word is written.
    const auto owed = std::exchange(owed_, {});
    std::string why = owed.empty() ? note(MACHINE, {{"writable", "yes"}}) : "";
    for (const auto &[service, texts] : owed) {
        const std::string one = note(service, texts); // owed again when it fails
        why = why.empty() ? one : why;
    }
    return written(why);
}

// Writes texts that differ from those written. The lock is held.
std::string Journal::note(const std::string &service, const JournalTexts &texts) {
    JournalTexts differing;
    std::map<std::string, std::string> &held = texts_[service];
    for (const auto &[key, text] : texts) {
        const auto at = held.find(key);
        const bool isSame = text ? at != held.end() && at->second == *text : at == held.end();
        if (!isSame || !failure_.empty()) {
            differing[key] = text;
        }
    }
    const std::string why = differing.empty() ? "" : file_.textsPut(service, differing);
    for (const auto &[key, text] : differing) {
        if (!why.empty()) {
            owed_[service][key] = text;
        } else if (text) {
            held[key] = *text;
        } else {
            held.erase(key);
        }
    }
    return why;
}

// Keeps the name of the unit that a set names: units are given anew when the machine starts. The lock is held.
std::string Journal::nameNote(const PolicySet &set) {
    const uint32_t unit = replayUnitOf(set);
    if (unit == 0) {
        return "";
    }
    const std::string name = replayUnitName(unit);
    return name.empty() ? "" : note(INTERFACES, {{std::to_string(unit), name}});
}

uint32_t Journal::accepted(const void *pKey, uint32_t commandCode, const PbrApiValue *pValue, const PbrSyncCtx *pCtx) {
    const std::lock_guard guard(lock_);
    if (isReplaying_) {
        return QRV_OK;
    }
    const bool isBytes = (pCtx->syncFlags & SYNC_FLAG_BYTES) != 0;
    const auto set = policySetRead(pKey, pCtx->keyLen, commandCode, *pValue, isBytes);
    if (!set) {
        return QRV_OK; // nothing that could be brought back
    }
    if (!repair()) {
        return QRV_ERR_NOT_KEPT;
    }
    std::string why = nameNote(*set);
    why = why.empty() ? file_.append(*set) : why;
    if (!written(why)) {
        return QRV_ERR_NOT_KEPT;
    }
    pending_ = *set;
    return QRV_OK;
}

// Appends a set that was not asked for and counts as done. The lock is held.
void Journal::appendDone(const PolicySet &set) {
    if (repair() && written(file_.append(set))) {
        state_.done(set);
    }
}

void Journal::answered(const CommandSet &set, uint32_t result) {
    const std::lock_guard guard(lock_);
    const auto row = policyRowOf(set.commandId, set.pKey, set.keyLen);
    const auto pending = std::exchange(pending_, std::nullopt);
    if (pending && result == QRV_OK) {
        state_.done(*pending);
        unmade_.erase(pending->row); // there is one now
    } else if (pending) {
        mustTakeBack_ = !written(file_.takeBack());
        if (!mustTakeBack_ && state_.failed(*pending, result)) {
            appendDone({pending->row, PBR_IF_STATUS, {false, PBR_IF_DESTROY, ""}});
            appendDone({pending->row, PBR_IF_STATUS, {false, PBR_IF_CREATE, ""}});
        }
    } else if (row && row->table != PolicyTable::Interface && set.fieldId == PBR_LIST_STATUS &&
               set.number == PBR_ROW_DESTROY && state_.rows().count(*row) != 0 &&
               (result == QRV_OK || result == PBR_ERR_NO_ROW)) {
        // It was not there: one that could not be brought back is given up with that.
        appendDone({*row, PBR_LIST_STATUS, {false, PBR_ROW_DESTROY, ""}});
    }
    for (const uint32_t unit : std::exchange(left_, {})) {
        leftDrop(unit);
    }
    if (file_.logCount() >= FOLD_SETS && failure_.empty()) {
        fold();
    }
}

// The log becomes state. The lock is held.
void Journal::fold() {
    const std::set<PolicyRow> changed = state_.takeChanged();
    if (!written(file_.fold(state_, changed))) {
        for (const PolicyRow &row : changed) {
            state_.touch(row); // for the next time
        }
    }
}

void Journal::replay(const IcmCommand *pCommands, uint32_t count) {
    std::map<std::string, std::string> names, machine;
    {
        const std::lock_guard guard(lock_);
        names = texts_[INTERFACES];
        machine = texts_[MACHINE];
        isReplaying_ = true;
    }
    const std::string thisRun = replayMachineRun();
    const ReplayResult result = replayRun(state_, names, machine["run"] == thisRun, pCommands, count);
    for (const ReplayRefusal &refusal : result.refused) {
        notRestored(refusal.what, refusal.why);
    }
    {
        const std::lock_guard guard(lock_);
        isReplaying_ = false;
        JournalTexts newNames;
        for (const auto &[unit, name] : names) {
            newNames[unit] = std::nullopt;
        }
        for (const auto &[unit, name] : result.names) {
            newNames[std::to_string(unit)] = name;
        }
        for (const auto &[row, fields] : state_.rows()) {
            state_.touch(row);
        }
        state_.become(result.rows);
        unmade_ = result.unmade;
        // State, names and run belong together; without room the next start finds the earlier ones, whole.
        std::set<PolicyRow> changed = state_.takeChanged();
        if (written(file_.fold(state_, changed))) {
            (void)written(note(INTERFACES, newNames));
            (void)written(note(MACHINE, {{"run", thisRun}}));
        }
    }
    if (result.sets != 0) {
        hostLog(LOG_LEVEL_NOTICE, MODULE, "%zu sets brought back from %s, %zu rows not", result.sets, path_.c_str(),
                result.refused.size());
        settle_();
    }
}

std::map<std::string, std::string> Journal::textsOf(const std::string &service) {
    const std::lock_guard guard(lock_);
    return texts_[service] = file_.texts(service);
}

void Journal::mustBeReady() {
    const std::lock_guard guard(lock_);
    if (!repair()) {
        throw std::runtime_error("the journal " + path_ + " cannot be written: " + failure_ +
                                 "; nothing was changed. Make room, or restart the daemon with host.journal=off");
    }
}

void Journal::keep(const std::string &service, const JournalTexts &texts) {
    const std::lock_guard guard(lock_);
    if (!written(note(service, texts))) {
        throw std::runtime_error("done, but it will not come back after a restart: the journal " + path_ +
                                 " cannot be written: " + failure_);
    }
}

void Journal::keepAll(const std::string &service, const std::map<std::string, std::string> &texts) {
    JournalTexts all(texts.begin(), texts.end());
    {
        const std::lock_guard guard(lock_);
        for (const auto &[key, text] : texts_[service]) {
            all.try_emplace(key, std::nullopt);
        }
    }
    keep(service, all);
}

void Journal::notRestored(const std::string &what, const std::string &why) {
    hostLog(LOG_LEVEL_WARNING, MODULE, "%s is not brought back: %s", what.c_str(), why.c_str());
    const std::lock_guard guard(lock_);
    notRestored_.push_back({what, why});
}

void Journal::interfaceLeft(uint32_t unit) {
    const std::lock_guard guard(lock_);
    if (isReplaying_ || pending_) {
        left_.insert(unit); // behind what is under way
    } else {
        leftDrop(unit);
    }
}

// The lock is held.
void Journal::leftDrop(uint32_t unit) {
    PolicyRow row;
    row.table = PolicyTable::Interface;
    row.unit = unit;
    if (state_.rows().count(row) != 0) {
        appendDone({row, PBR_IF_STATUS, {false, PBR_IF_DESTROY, ""}});
    }
}

// The running policy is meant as it is: what waits for an interface is no part of it.
void Journal::forget() {
    const std::lock_guard guard(lock_);
    for (const auto &[row, what] : std::exchange(unmade_, {})) {
        appendDone({row, PBR_LIST_STATUS,
                    {false, row.table == PolicyTable::Interface ? PBR_IF_DESTROY : PBR_ROW_DESTROY, ""}});
        std::erase_if(notRestored_, [&what = what](const NotRestored &each) { return each.what == what; });
    }
}

json Journal::show() {
    const std::lock_guard guard(lock_);
    json refused = json::array();
    for (const NotRestored &each : notRestored_) {
        refused.push_back({{"what", each.what}, {"why", each.why}});
    }
    return {{"state", failure_.empty() ? "writing" : "failing"},
            {"path", path_},
            {"error", failure_},
            {"rows", state_.rows().size()},
            {"log", file_.logCount()},
            {"findings", findings_},
            {"notRestored", std::move(refused)}};
}

json opShow(const json &request) {
    mgmtArgsOnly(request, {});
    return journal() == nullptr ? json{{"state", "off"}} : journal()->show();
}

json opForget(const json &request) {
    mgmtArgsOnly(request, {});
    if (journal() != nullptr) {
        journal()->forget();
    }
    return json::object();
}

} // namespace

std::string journalOpen(std::function<void()> settle) {
    if (optionGet("host.journal") == "off") {
        return "";
    }
    const std::string given = optionGet("host.state-dir").value_or("");
    if (!given.empty() && given[0] != '/') {
        return "option host.state-dir=" + given + ": it must be a path that begins with a slash";
    }
    std::error_code ignored; // a folder that is missing shows when the file is opened
    std::filesystem::create_directories(given, ignored);
    const std::string path = given.empty() ? optionPath(DEFAULT_FOLDER + FILE_NAME) : given + FILE_NAME;
    auto pJournal = std::make_unique<Journal>();
    std::string error = fileCheck(path);
    error = error.empty() ? fileCheck(path + "-wal") : error;
    error = error.empty() ? pJournal->open(path, std::move(settle)) : error;
    if (!error.empty()) {
        return error + "; name another folder with host.state-dir, or do without with host.journal=off";
    }
    (void)pJournal->textsOf("interface");
    (void)pJournal->textsOf("machine");
    journal() = std::move(pJournal);
    commandKeeperSet(journal().get());
    return "";
}

void journalClose() {
    commandKeeperSet(nullptr);
    journal() = nullptr;
}

std::map<std::string, std::string> journalTexts(const std::string &service) {
    return journal() == nullptr ? std::map<std::string, std::string>() : journal()->textsOf(service);
}

void journalMustBeReady() {
    if (journal() != nullptr) {
        journal()->mustBeReady();
    }
}

void journalKeep(const std::string &service, const JournalTexts &texts) {
    if (journal() != nullptr) {
        journal()->keep(service, texts);
    }
}

void journalKeepAll(const std::string &service, const std::map<std::string, std::string> &texts) {
    if (journal() != nullptr) {
        journal()->keepAll(service, texts);
    }
}

void journalNotRestored(const std::string &what, const std::string &why) {
    if (journal() != nullptr) {
        journal()->notRestored(what, why);
    }
}

void journalInterfaceLeft(uint32_t unit) {
    if (journal() != nullptr) {
        journal()->interfaceLeft(unit);
    }
}

void journalMgmtRegister() {
    mgmtRegister("journal.show", false, opShow);
    mgmtRegister("journal.forget", true, opForget);
}

} // namespace host
