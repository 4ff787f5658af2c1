// See shell_mgmt.h.
#include "host/shell/shell_mgmt.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/event/event_loop.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/process/shell.h"
#include "host/shell/shell_task.h"
#include "host/shell/stdout_capture.h"

namespace host {

namespace {

using nlohmann::json;

constexpr size_t MOST_WAITING = 32;
// The answer is made and sent by the event thread; a report of all limits at their defaults fits.
constexpr size_t MOST_OUTPUT_BYTES = 16u << 20;

ShellTask &shellTask() {
    static ShellTask *pShell =
        new ShellTask({gProcShellCommands, gProcShellCommandCount, gProcShellVariables, gProcShellVariableCount},
                      MOST_WAITING, MOST_OUTPUT_BYTES);
    return *pShell;
}

std::string hexOf(const std::string &bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

// JSON is UTF-8 only, and names in a report may be any bytes.
bool isUtf8(const std::string &text) {
    try {
        (void)json(text).dump();
        return true;
    } catch (const json::exception &) {
        return false;
    }
}

json answerOf(const ShellAnswer &answer) {
    if (!answer.error.empty()) {
        return {{"ok", false}, {"error", answer.error}};
    }
    json shown = {{"ok", true}, {"result", answer.result}};
    if (isUtf8(answer.output)) {
        shown["output"] = answer.output;
    } else {
        shown["outputHex"] = hexOf(answer.output);
    }
    return shown;
}

std::vector<std::string> argsOf(const json &request) {
    std::vector<std::string> args;
    const auto found = request.find("args");
    if (found == request.end()) {
        return args;
    }
    const auto refuse = [] { throw std::runtime_error("member \"args\" must be a list of texts"); };
    if (!found->is_array()) {
        refuse();
    }
    for (const json &arg : *found) {
        if (!arg.is_string()) {
            refuse();
        }
        args.push_back(arg.get<std::string>());
    }
    return args;
}

void opShell(const json &request, const MgmtDone &done) {
    const std::string error = stdoutCaptureInstall(); // done already: tells how it went
    if (!error.empty()) {
        throw std::runtime_error(error);
    }
    mgmtArgsOnly(request, {"name", "args"});
    shellTask().run(mgmtArgText(request, "name"), argsOf(request), [done](const ShellAnswer &answer) {
        auto pShown = std::make_shared<json>(answerOf(answer)); // large: the shell's task makes it
        hostEventLoop().post([done, pShown] { done(std::move(*pShown)); });
    });
}

json opShellList(const json &request) {
    mgmtArgsOnly(request, {});
    return {{"shell", shellName()},
            {"commands", shellTask().commandNames()},
            {"switches", shellTask().variableNames()}};
}

} // namespace

void shellMgmtRegister() {
    (void)stdoutCaptureInstall(); // a failure is told to who asks for a report
    mgmtRegisterAsync("shell", true, opShell);
    mgmtRegister("shell.list", false, opShellList);
}

} // namespace host
