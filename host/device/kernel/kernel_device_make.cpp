// The kernel device on the real world: options, view, ACLs, routes, links, peers, event thread.
#include "host/device/desired/otherwise.h"
#include "host/device/kernel/kernel_device.h"
#include "host/hrd/hrd_service.h"
#include "host/nqa/nqa_probes.h"
#include "host/option/option.h"

namespace host {

KernelDeviceHooks kernelDeviceHooks() {
    KernelDeviceHooks hooks;
    hooks.options.markMask = static_cast<uint32_t>(optionNumber("host.mark-mask"));
    hooks.options.rulePreference = static_cast<uint32_t>(optionNumber("host.rule-preference"));
    hooks.options.tableBase = static_cast<uint32_t>(optionNumber("host.table-base"));
    hooks.options.defrag = optionGet("host.defrag") == "on";
    hooks.options.mapFrom = static_cast<size_t>(optionNumber("host.map-from"));
    hooks.adoptWait = std::chrono::milliseconds(optionNumber("host.adopt-wait-ms"));
    hooks.pLoop = &hostEventLoop();
    hooks.env.rules = aclSnapshot;
    hooks.env.link = ifnetByUnit;
    hooks.env.egress = fibLookup;
    hooks.env.drops = otherwiseDrops;
    hooks.take = desiredStateTake;
    hooks.get = [](uint32_t ifUnit, uint32_t aclNum) PBR_LOCK_HELD -> std::optional<RedirectEntry> {
        PbrRedirect redirect = {};
        if (!pbrRedirectViewGet(ifUnit, aclNum, &redirect)) {
            return std::nullopt;
        }
        return redirectEntryFrom(redirect);
    };
    hooks.isUndetermined = [] { return hrdUndetermined() || nqaUndetermined(); };
    hooks.askStore = hostStoreAsk;
    hooks.onWorldChange = [](std::function<void()> changed) {
        fibOnChange(changed);
        ifnetOnChange([changed](const IfnetLink &) { changed(); });
    };
    return hooks;
}

std::unique_ptr<Device> kernelDeviceMake() { return std::make_unique<KernelDevice>(kernelDeviceHooks()); }

} // namespace host
