// See journal_replayer.h.
#include "host/journal/journal_replayer.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <set>

#include <sys/stat.h>

#include "api/pbr_keys.h"
#include "client/result_text.h"
#include "host/acl/acl_store.h"
#include "host/device/device.h"
#include "host/event/event_loop.h"
#include "host/ifnet/ifnet.h"
#include "host/journal/policy_replay.h"

namespace host {

namespace {

constexpr size_t SPARE_BYTES = 64; // zeroes behind a byte string, as the command server has them

// What makes the rows of a replay.
class Replayer {
public:
    Replayer(const std::map<std::string, std::string> &names, bool isSameRun, const IcmCommand *pCommands, uint32_t count)
        : names_(names), isSameRun_(isSameRun), pCommands_(pCommands), count_(count) {}

    ReplayResult run(const PolicyState &state);

private:
    std::string nameOf(uint32_t unit) const;
    std::optional<uint32_t> unitNow(uint32_t unit) const;
    uint32_t unitKept(uint32_t unit);
    void rowTake(PolicyRow row, PolicyFields fields, PolicyState &makeable);
    void refuse(const PolicyRow &row, const std::string &why);
    std::string rowText(const PolicyRow &row) const;
    void aclMake(const PolicySet &set);
    void aclsUnmake();
    uint32_t call(const PolicySet &set) const;
    void setRun(const PolicySet &set);

    const std::map<std::string, std::string> &names_;
    const bool isSameRun_;
    const IcmCommand *pCommands_;
    const uint32_t count_;
    ReplayResult result_;
    std::vector<PolicyRow> missing_; // rows that could not be made: nothing below them can
    std::set<uint32_t> madeAcls_;    // ACLs that nodes name and nobody has: made for the replay alone
    uint32_t nextNone_ = REPLAY_UNIT_NONE;
};

std::string Replayer::nameOf(uint32_t unit) const {
    const auto found = names_.find(std::to_string(unit));
    return found == names_.end() ? "" : found->second;
}

std::optional<uint32_t> Replayer::unitNow(uint32_t unit) const {
    const std::string name = nameOf(unit);
    if (name.empty()) {
        return unit;
    }
    if (isSameRun_ && unit < REPLAY_UNIT_NONE) {
        return ifnetByUnit(unit) ? std::optional(unit) : std::nullopt;
    }
    const auto link = ifnetByName(name);
    return link ? std::optional(link->unit) : std::nullopt;
}

// The unit under which the interface is kept from now on.
uint32_t Replayer::unitKept(uint32_t unit) {
    const auto now = unitNow(unit);
    const uint32_t kept = now ? *now : nextNone_++;
    const std::string name = now ? replayUnitName(*now) : nameOf(unit);
    if (!name.empty()) {
        result_.names[kept] = name;
    }
    return kept;
}

std::string Replayer::rowText(const PolicyRow &row) const {
    const auto name = result_.names.find(row.unit);
    const bool isNamed = row.table == PolicyTable::Interface && name != result_.names.end();
    return isNamed ? "interface " + name->second : policyRowText(row);
}

void Replayer::refuse(const PolicyRow &row, const std::string &why) {
    missing_.push_back(row);
    result_.refused.push_back({rowText(row), why});
}

// Gives a row the units of now; what needs an interface that is not there is kept and not made.
void Replayer::rowTake(PolicyRow row, PolicyFields fields, PolicyState &makeable) {
    uint32_t *pUnit = nullptr;
    const auto out = fields.find(PBR_NODE_OUT_IF_UNIT);
    if (row.table == PolicyTable::Interface) {
        pUnit = &row.unit;
    } else if (row.table == PolicyTable::Node && out != fields.end() && out->second.number != 0) {
        pUnit = &out->second.number;
    }
    if (pUnit != nullptr) {
        const std::string name = nameOf(*pUnit);
        *pUnit = unitKept(*pUnit);
        if (*pUnit >= REPLAY_UNIT_NONE && !name.empty()) {
            result_.rows[row] = fields;
            refuse(row, "interface " + name + " is not there");
            result_.unmade[row] = rowText(row);
            return;
        }
    }
    result_.rows[row] = fields;
    for (const auto &[field, value] : fields) {
        makeable.restore(row, field, value);
    }
}

// A node may name an ACL that was destroyed: it matches nothing until there is one again. The daemon takes
// such a number only while the ACL exists.
void Replayer::aclMake(const PolicySet &set) {
    const bool isAcl = set.row.table == PolicyTable::Node && set.field == PBR_NODE_ACL_NUM && set.value.number != 0;
    if (isAcl && aclStore().create(set.value.number)) {
        madeAcls_.insert(set.value.number);
    }
}

void Replayer::aclsUnmake() {
    for (const uint32_t aclNum : madeAcls_) {
        (void)aclStore().destroy(aclNum);
    }
    if (!madeAcls_.empty()) {
        hostEventLoop().post([gone = madeAcls_] {
            std::for_each(gone.begin(), gone.end(), [](uint32_t aclNum) { hostDevice().aclChanged(aclNum); });
        });
    }
}

// Whether the value is of the kind that the handler reads: it would take a number for an address. In a file
// that somebody changed it may be another.
bool isKindFitting(uint32_t commandId, const PolicySet &set) {
    constexpr uint32_t BYTE_FIELDS = 32; // fields that a shape's mask can name
    const bool isByteField = commandId < gIcmCommandShapeCount && set.field < BYTE_FIELDS &&
                             (gIcmCommandShapes[commandId].byteFields >> set.field & 1) != 0;
    return isByteField == set.value.isBytes;
}

uint32_t Replayer::call(const PolicySet &set) const {
    static constexpr uint32_t COMMANDS[] = {PBR_CMD_SCALAR_SET, PBR_CMD_LIST_SET, PBR_CMD_NODE_SET, PBR_CMD_NEXT_HOP_SET,
                                            PBR_CMD_IF_SET}; // in the order of PolicyTable
    const uint32_t id = COMMANDS[static_cast<size_t>(set.row.table)];
    const IcmCommand *pFound = std::find_if(pCommands_, pCommands_ + count_, [id](const IcmCommand &each) { return each.id == id; });
    if (pFound == pCommands_ + count_ || pFound->handler == nullptr) {
        return QRV_FAIL;
    }
    if (!isKindFitting(id, set)) {
        return QRV_ERR_BAD_ARGUMENT;
    }
    PbrListKey listKey{};
    PbrNodeKey nodeKey{};
    const uint32_t unit = set.row.unit;
    const auto nameLen = static_cast<uint16_t>(set.row.list.size());
    memcpy(listKey.listName, set.row.list.data(), std::min(set.row.list.size(), sizeof listKey.listName));
    memcpy(nodeKey.listName, listKey.listName, sizeof nodeKey.listName);
    listKey.listNameLen = nodeKey.listNameLen = nameLen;
    nodeKey.nodeIndex = set.row.node;
    nodeKey.nextHopIndex = static_cast<uint8_t>(set.row.hop);
    const void *const keys[] = {nullptr, &listKey, &nodeKey, &nodeKey, &unit}; // in the order of PolicyTable
    std::vector<uint64_t> buffer((set.value.bytes.size() + SPARE_BYTES) / sizeof(uint64_t) + 1);
    memcpy(buffer.data(), set.value.bytes.data(), set.value.bytes.size());
    PbrApiValue value{set.value.number, 0};
    if (set.value.isBytes) {
        value = {reinterpret_cast<uintptr_t>(buffer.data()), static_cast<uint32_t>(set.value.bytes.size())};
    }
    return reinterpret_cast<IcmFieldHandler>(pFound->handler)(keys[static_cast<size_t>(set.row.table)], set.field, &value);
}

void Replayer::setRun(const PolicySet &set) {
    const auto isWithin = [&](const PolicyRow &row) { return policyRowIsWithin(set.row, row); };
    if (std::any_of(missing_.begin(), missing_.end(), isWithin)) {
        return;
    }
    aclMake(set);
    const uint32_t code = call(set);
    if (code == QRV_OK) {
        ++result_.sets;
        return;
    }
    const std::string why = "the daemon refuses field " + std::to_string(set.field) + ": " + client::resultDescribe(code);
    const bool isCreate = set.field == PBR_LIST_STATUS && set.row.table != PolicyTable::Scalar;
    if (isCreate) {
        refuse(set.row, why);
    } else {
        result_.refused.push_back({rowText(set.row), why});
    }
}

ReplayResult Replayer::run(const PolicyState &state) {
    PolicyState makeable;
    for (const auto &[row, fields] : state.rows()) {
        rowTake(row, fields, makeable);
    }
    for (const PolicySet &set : policyReplay(makeable)) {
        setRun(set);
    }
    aclsUnmake();
    return std::move(result_);
}

} // namespace

uint32_t replayUnitOf(const PolicySet &set) {
    if (set.row.table == PolicyTable::Interface) {
        return set.row.unit;
    }
    return set.row.table == PolicyTable::Node && set.field == PBR_NODE_OUT_IF_UNIT ? set.value.number : 0;
}

std::string replayUnitName(uint32_t unit) {
    const auto link = ifnetByUnit(unit);
    return link ? link->name : "";
}

std::string replayMachineRun() {
    std::string run;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> run;
    struct stat space {};
    const bool isKnown = stat("/proc/self/ns/net", &space) == 0;
    return run + "/" + (isKnown ? std::to_string(space.st_ino) : "");
}

ReplayResult replayRun(const PolicyState &state, const std::map<std::string, std::string> &names, bool isSameRun,
                       const IcmCommand *pCommands, uint32_t count) {
    return Replayer(names, isSameRun, pCommands, count).run(state);
}

} // namespace host
