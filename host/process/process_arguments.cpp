// The process's start (silProcessArguments): arguments, options, privileges, the lock, signals, the
// route bus, the services, in this order. A file of its own, so that only the daemon's program is linked with the services.
#include <cstdio>
#include <string>

#include "host/bus/bus.h"
#include "host/option/option.h"
#include "host/process/arguments.h"
#include "host/process/host_services.h"
#include "host/process/privileges.h"
#include "host/process/run_lock.h"
#include "host/process/stop_signals.h"
#include "host/process/unix_listen.h"
#include "platform/sil_process.h"
#include "policyroute_version.h"

namespace {

constexpr int32_t GO_ON = -1;
constexpr int32_t EXIT_DONE = 0;
constexpr int32_t EXIT_REFUSED = 1;

bool beginsWith(const char *key, const char *letters) {
    const std::string value = host::optionGet(key).value_or("");
    return !value.empty() && std::string(letters).find(value[0]) != std::string::npos;
}

// The daemon's own rules for a process that will not serve: nothing is started for it then.
bool isServing() {
    return !beginsWith("policyroute.processmerge", "tT") && !beginsWith("policyroute.enable", "fF");
}

// Result: empty, or why the process cannot serve.
std::string servicesStart() {
    std::string error = host::privilegesDrop();
    if (error.empty()) {
        error = host::runLockTake();
    }
    if (!error.empty()) {
        return error;
    }
    host::stopSignalsWatch();
    error = host::busStart();
    return error.empty() ? host::hostServicesStart() : error;
}

int32_t refused(const std::string &error) {
    fprintf(stderr, "policyrouted: %s\n", error.c_str());
    host::filesRemove();
    return EXIT_REFUSED;
}

} // namespace

int32_t silProcessArguments(int argc, char **argv) {
    const host::Arguments arguments = host::argumentsParse(argc, argv);
    if (!arguments.error.empty()) {
        return refused(arguments.error);
    }
    if (arguments.isHelpWanted) {
        fputs(host::argumentsHelp().c_str(), stdout);
        return EXIT_DONE;
    }
    if (arguments.isVersionWanted) {
        printf("policyrouted %s\n", POLICYROUTE_VERSION);
        return EXIT_DONE;
    }
    std::string error = host::optionLoad(arguments.options, arguments.configFile);
    if (error.empty() && isServing()) {
        error = servicesStart();
    }
    return error.empty() ? GO_ON : refused(error);
}
