// See confirm_ops.h. Called by the management socket.
#include "host/mgmt/confirm_ops.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "host/event/event_loop.h"
#include "host/logging/host_log.h"
#include "host/mgmt/hold_ops.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"

namespace host {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr uint32_t PID_MOST = 0x7fffffff;
constexpr uint32_t MOST_SECONDS = 86400;
constexpr uint32_t MOST_MILLISECONDS = MOST_SECONDS * 1000;

// Who may change the policy.
struct Lock {
    MgmtClientPtr owner; // null: nobody has it
    bool isApply = true; // else a single change
    std::string who;     // "process 4711 applies policy.yaml"
};

enum class Phase { Applying, Waiting, RollingBack };

// The apply that waits for its confirmation.
struct Pending {
    MgmtClientPtr owner; // null: none
    uint32_t pid = 0;
    std::string file;
    uint32_t seconds = 0; // 0: it only guards the steps
    Phase phase = Phase::Applying;
    std::optional<bool> word; // said while it was still applying: confirmed, or to be rolled back
    MgmtDone done;            // Waiting: the answer to confirm.wait
    Clock::time_point end;    // Waiting
    EventLoop::TimerId timer = 0;
};

struct State {
    Lock lock;
    Pending pending;
};

State &state() {
    static State *pState = new State; // outlives the event thread
    return *pState;
}

// Runs `ended` at the connection's end when it still is the owner of `which` then.
template <typename Owned> void endWith(const MgmtClientPtr &client, Owned &which, void (*ended)()) {
    const std::weak_ptr<MgmtClient> weak = client;
    client->onEnd([weak, &which, ended] {
        const MgmtClientPtr owner = weak.lock();
        if (owner != nullptr && which.owner == owner) {
            ended();
        }
    });
}

// ---- the lock ----

void lockEnd() {
    state().lock = {};
}

std::string secondsLeftText(const Pending &pending) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(pending.end - Clock::now()).count();
    return std::to_string(left < 0 ? 0 : left);
}

// Why a client may not change the policy now.
struct Refusal {
    const char *holder; // for programs: "change", "apply", "confirmation"
    std::string who;    // what the holder does
    std::string error;
};

std::optional<Refusal> lockRefusal(const MgmtClientPtr &client) {
    const Lock &lock = state().lock;
    const Pending &pending = state().pending;
    if (lock.owner != nullptr && lock.owner != client) {
        return Refusal{lock.isApply ? "apply" : "change", lock.who,
                       "another change of the policy is under way: " + lock.who +
                           "; try again when it has ended. Nothing was changed"};
    }
    if (pending.owner == nullptr || pending.owner == client) {
        return std::nullopt;
    }
    if (pending.phase == Phase::Waiting) {
        const std::string who = pending.file + " was applied and waits for its confirmation";
        return Refusal{"confirmation", who,
                       who + ", " + secondsLeftText(pending) + " s are left: 'pbrctl confirm' keeps it, 'pbrctl "
                       "confirm --rollback' undoes it. Nothing was changed"};
    }
    const std::string who = pending.file + (pending.phase == Phase::Applying ? " is being applied" : " is being rolled back");
    return Refusal{"apply", who, who + "; try again when that has ended. Nothing was changed"};
}

void opLock(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {"pid", "file", "command"});
    const std::string pid = std::to_string(mgmtArgNumber(request, "pid", 1, PID_MOST));
    const bool isApply = !request.contains("command");
    const std::string what = mgmtArgText(request, isApply ? "file" : "command");
    if (!isApply && request.contains("file")) {
        throw std::runtime_error("give \"file\" or \"command\"");
    }
    if (const auto refusal = lockRefusal(client)) {
        done({{"ok", false}, {"error", refusal->error}, {"holder", refusal->holder}, {"who", refusal->who}});
        return;
    }
    if (state().lock.owner == nullptr) {
        endWith(client, state().lock, lockEnd);
    }
    state().lock = {client, isApply,
                    "process " + pid + (isApply ? " applies " + what : " runs 'pbrctl " + what + "'")};
    done({{"ok", true}});
}

void opUnlock(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {});
    if (state().lock.owner != client) {
        throw std::runtime_error("this connection has not the lock");
    }
    lockEnd();
    done({{"ok", true}});
}

// ---- the confirmation ----

void pendingEnd() {
    hostEventLoop().timerStop(std::exchange(state().pending.timer, 0));
    state().pending = {};
    holdGuardSet(false);
}

void pendingLost() {
    const Pending &pending = state().pending;
    if (pending.phase == Phase::Waiting) {
        hostLog(LOG_LEVEL_WARNING, "confirm", "process %u, which would undo %s, has ended: the policy stays", pending.pid,
                pending.file.c_str());
    }
    pendingEnd();
}

void ownerCheck(const MgmtClientPtr &client) {
    if (state().pending.owner != client) {
        throw std::runtime_error("this connection has begun nothing that could be confirmed");
    }
}

void opBegin(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {"pid", "file", "seconds"});
    Pending begun;
    begun.pid = mgmtArgNumber(request, "pid", 1, PID_MOST);
    begun.file = mgmtArgText(request, "file");
    begun.seconds = request.contains("seconds") ? mgmtArgNumber(request, "seconds", 1, MOST_SECONDS) : 0;
    begun.owner = client;
    Pending &pending = state().pending;
    if (pending.owner != nullptr && pending.owner != client) {
        throw std::runtime_error(pending.file + " waits for its confirmation already");
    }
    if (pending.owner == nullptr) {
        endWith(client, pending, pendingLost);
    } else {
        pendingEnd();
    }
    pending = begun;
    holdGuardSet(true);
    done({{"ok", true}});
}

// Answers the waiting client. confirmed: the policy stays; else the client undoes it.
void waitAnswer(bool confirmed) {
    Pending &pending = state().pending;
    const MgmtDone done = std::move(pending.done);
    pending.done = nullptr;
    hostEventLoop().timerStop(std::exchange(pending.timer, 0));
    pending.phase = Phase::RollingBack;
    hostLog(LOG_LEVEL_NOTICE, "confirm", "%s %s", pending.file.c_str(),
            confirmed ? "is confirmed" : "is not confirmed and rolled back");
    if (confirmed) {
        pendingEnd();
    }
    done({{"ok", true}, {"confirmed", confirmed}});
}

void opWait(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {"milliseconds"});
    const uint32_t milliseconds = mgmtArgNumber(request, "milliseconds", 0, MOST_MILLISECONDS);
    ownerCheck(client);
    Pending &pending = state().pending;
    if (pending.phase != Phase::Applying) {
        throw std::runtime_error("this connection has waited already");
    }
    pending.phase = Phase::Waiting;
    holdGuardSet(false);
    pending.done = done;
    pending.end = Clock::now() + std::chrono::milliseconds(milliseconds);
    if (pending.word) {
        waitAnswer(*pending.word);
        return;
    }
    pending.timer = hostEventLoop().timerStart(std::chrono::milliseconds(milliseconds), [] {
        state().pending.timer = 0;
        waitAnswer(false);
    });
}

json opConfirm(const json &request) {
    mgmtArgsOnly(request, {"rollback"});
    const bool rollback = mgmtArgFlag(request, "rollback", false);
    Pending &pending = state().pending;
    const bool isGuardOnly = pending.phase == Phase::Applying && pending.seconds == 0;
    if (pending.owner == nullptr || isGuardOnly) {
        throw std::runtime_error("nothing waits for a confirmation");
    }
    if (pending.phase == Phase::RollingBack) {
        throw std::runtime_error("too late: " + pending.file + " is being rolled back");
    }
    const std::string file = pending.file;
    if (pending.phase == Phase::Applying) {
        pending.word = !rollback;
    } else {
        waitAnswer(!rollback);
    }
    return {{"file", file}};
}

json opShow(const json &request) {
    mgmtArgsOnly(request, {});
    const Pending &pending = state().pending;
    if (pending.owner == nullptr) {
        return {{"pending", false}};
    }
    static const char *const texts[] = {"applying", "waiting", "rolling back"}; // in the order of Phase
    const bool isWaiting = pending.phase == Phase::Waiting;
    const auto left = std::chrono::ceil<std::chrono::seconds>(pending.end - Clock::now()).count();
    return {{"pending", true},
            {"file", pending.file},
            {"pid", pending.pid},
            {"state", texts[static_cast<size_t>(pending.phase)]},
            {"secondsLeft", isWaiting ? std::max<int64_t>(left, 0) : pending.phase == Phase::Applying ? pending.seconds : 0}};
}

} // namespace

void confirmOpsRegister() {
    mgmtRegisterForClient("apply.lock", true, opLock);
    mgmtRegisterForClient("apply.unlock", true, opUnlock);
    mgmtRegisterForClient("confirm.begin", true, opBegin);
    mgmtRegisterForClient("confirm.wait", true, opWait);
    mgmtRegister("confirm", true, opConfirm);
    mgmtRegister("confirm.show", false, opShow);
}

} // namespace host
