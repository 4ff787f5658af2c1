// Starts the services beside the daemon in their order. See host/process/host_services.h.
#include "host/process/host_services.h"

#include <functional>
#include <future>

#include "host/acl/acl_mgmt.h"
#include "host/confine/system_calls.h"
#include "host/device/device.h"
#include "host/event/event_loop.h"
#include "host/fib/fib.h"
#include "host/hrd/hrd_service.h"
#include "host/ifnet/ifnet.h"
#include "host/journal/journal.h"
#include "host/logging/host_log.h"
#include "host/mgmt/confirm_ops.h"
#include "host/mgmt/explain_ops.h"
#include "host/mgmt/hold_ops.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/otherwise_ops.h"
#include "host/mgmt/service_ops.h"
#include "host/mgmt/watch_ops.h"
#include "host/nqa/nqa_service.h"
#include "host/option/option.h"
#include "host/process/privileges.h"
#include "host/shell/shell_mgmt.h"
#include "host/timerange/timerange_service.h"

namespace host {

namespace {

struct Step {
    const char *name;                   // what it is, for the operator
    std::function<std::string()> start; // empty, or why not
    bool needsKernel;                   // may fail when nothing is forwarded
    std::string advice;                 // what to do when it fails
};

void registerAll() {
    aclMgmtRegister();
    timerangeMgmtRegister();
    nqaStart();
    serviceOpsRegister();
    explainOpsRegister();
    watchOpsRegister();
    holdOpsRegister();
    confirmOpsRegister();
    otherwiseOpsRegister();
    shellMgmtRegister();
    journalMgmtRegister();
}

// The journal, and what the services have in it: before anything asks them.
std::string journalStart() {
    const std::string error = journalOpen(settleAfterReplay);
    if (!error.empty()) {
        return error;
    }
    aclRestore();
    timerangeRestore();
    otherwiseRestore();
    return "";
}

// The probes of the journal: behind interfaces and routing tables, or their next hops would not be found, and
// each would fail before it has asked anything.
std::string probesRestore() {
    std::promise<void> isDone;
    hostEventLoop().post([&isDone] {
        nqaRestore();
        isDone.set_value();
    });
    isDone.get_future().wait();
    return "";
}

} // namespace

std::string hostServicesStart() {
    constexpr const char *privileges = "run as root, or use --option host.device=memory";
    const Step steps[] = {
        {"system call filter", systemCallsConfine, false, ""},
        {"journal", journalStart, false, privilegesAdvice()},
        {"interfaces", ifnetStart, true, privileges},
        {"routing tables", fibStart, true, privileges},
        {"probes", probesRestore, false, ""},
        {"next-hop detection", hrdStart, true, privileges},
        {"forwarding plane", hostDeviceStart, false, privileges},
        {"management socket", mgmtStart, false,
         "stop what is in the way, or use another folder with --option host.root=DIR"},
    };
    const bool isMemory = optionGet("host.device") == "memory";
    registerAll();
    for (const Step &step : steps) {
        const std::string error = step.start();
        if (error.empty()) {
            continue;
        }
        if (step.needsKernel && isMemory) {
            hostLog(LOG_LEVEL_WARNING, "services", "%s: %s; going on without", step.name, error.c_str());
            continue;
        }
        // A text that names an option says already what to do.
        const bool isAdvised = error.find("host.") != std::string::npos;
        return std::string(step.name) + ": " + error + (isAdvised ? "" : ": " + step.advice);
    }
    return "";
}

} // namespace host
