// See whole.h.
#include "fuzz/whole.h"

#include <sched.h>
#include <unistd.h>

#include "api/pbr_func_map.h"
#include "api/pbr_keys.h"
#include "core/pbr_start.h"
#include "core/pbr_types.h"
#include "fuzz/fuzz_input.h"
#include "host/bus/bus.h"
#include "host/option/option.h"
#include "host/process/host_services.h"

namespace fuzz {

namespace {

uint32_t destroy(PbrCommandId id, const void *pKey, uint32_t number) {
    PbrApiValue value{number, 0};
    return reinterpret_cast<IcmFieldHandler>(gPbrFuncMap[id].handler)(pKey, 1, &value);
}

template <class Key> bool first(PbrCommandId id, Key *pKey) {
    return reinterpret_cast<IcmFirstHandler>(gPbrFuncMap[id].handler)(pKey) == PBR_OK;
}

} // namespace

const char *const WHOLE_EMPTY_REQUESTS = "{\"op\": \"probe.replaceAll\", \"probes\": {}}\n"
                                         "{\"op\": \"timerange.replaceAll\", \"timeRanges\": {}, \"force\": true}\n"
                                         "{\"op\": \"acl.replaceAll\", \"acls\": {}}\n"
                                         "{\"op\": \"otherwise.replaceAll\", \"drop\": []}\n"
                                         "{\"op\": \"device.fail\", \"count\": 0, \"code\": 1}\n";

const std::string &wholeStart() {
    static const std::string root = [] {
        const std::string made = folderMake();
        if (unshare(CLONE_NEWNET) != 0) {
            require(unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0, "no network namespace of its own");
        }
        std::string error = host::optionLoad({"host.root=" + made, "host.device=memory", "host.log=stderr",
                                              "host.journal=off", "host.seccomp=off", "host.read-others=yes"}, "/dev/null");
        error = error.empty() ? host::busStart() : error;
        error = error.empty() ? host::hostServicesStart() : error;
        require(error.empty(), error);
        require(pbrInit(0, 0, 0) == PBR_OK, "the daemon does not start");
        return made;
    }();
    return root;
}

void wholeEmpty() {
    for (uint32_t unit = 0; first(PBR_CMD_IF_GET_FIRST, &unit);) {
        require(destroy(PBR_CMD_IF_SET, &unit, PBR_IF_DESTROY) == PBR_OK, "an interface cannot be destroyed");
    }
    for (PbrListKey key{}; first(PBR_CMD_LIST_GET_FIRST, &key);) {
        require(destroy(PBR_CMD_LIST_SET, &key, PBR_ROW_DESTROY) == PBR_OK, "a list that is not bound cannot be destroyed");
    }
}

} // namespace fuzz
