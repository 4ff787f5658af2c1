// See shell_task.h.
#include "host/shell/shell_task.h"

#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

#include "host/shell/stdout_capture.h"
#include "platform/sil_task.h"

namespace host {

namespace {

constexpr uint32_t TASK_PRIORITY = 200; // of 0..255, 255 the lowest: reports come last
constexpr uint32_t STACK_BYTES = 256 * 1024;
constexpr size_t NAME_SHOWN = 64;

std::string join(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

// A number of 32 bits, decimal or 0x and hexadecimal digits.
std::optional<uint32_t> numberOf(const std::string &text) {
    const bool isHex = text.size() > 2 && (text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0);
    const char *pBegin = text.data() + (isHex ? 2 : 0);
    const char *pEnd = text.data() + text.size();
    uint32_t value = 0;
    const auto result = std::from_chars(pBegin, pEnd, value, isHex ? 16 : 10);
    return result.ec == std::errc() && result.ptr == pEnd ? std::optional<uint32_t>(value) : std::nullopt;
}

// The value that the arguments of a switch name: "1", "=1", "= 1".
std::string valueTextOf(const std::vector<std::string> &args) {
    std::string text;
    for (const std::string &arg : args) {
        text += arg;
    }
    return text.compare(0, 1, "=") == 0 ? text.substr(1) : text;
}

template <typename Row> const Row *rowOf(const Row *pRows, uint32_t count, const std::string &name) {
    for (uint32_t i = 0; i < count; i++) {
        if (name == pRows[i].name) {
            return &pRows[i];
        }
    }
    return nullptr;
}

} // namespace

ShellTask::ShellTask(const ShellTable &shellTable, size_t mostWaiting, size_t mostBytes)
    : table(shellTable), waitingLimit(mostWaiting), outputLimit(mostBytes) {}

std::vector<std::string> ShellTask::commandNames() const {
    std::vector<std::string> names;
    for (uint32_t i = 0; i < table.commandCount; i++) {
        names.push_back(table.pCommands[i].name);
    }
    return names;
}

std::vector<std::string> ShellTask::variableNames() const {
    std::vector<std::string> names;
    for (uint32_t i = 0; i < table.variableCount; i++) {
        names.push_back(table.pVariables[i].name);
    }
    return names;
}

std::string ShellTask::unknownText(const std::string &name) const {
    return "the shell has no \"" + name.substr(0, NAME_SHOWN) + "\"; commands are " + join(commandNames()) +
           "; switches are " + join(variableNames());
}

// Fills a job. Result: empty, or why the request is refused.
std::string ShellTask::jobMake(const std::string &name, const std::vector<std::string> &args, Job &job) const {
    job.pCommand = rowOf(table.pCommands, table.commandCount, name);
    job.pVariable = rowOf(table.pVariables, table.variableCount, name);
    if (job.pCommand != nullptr) {
        return args.empty() ? "" : name + " is a command: it takes no arguments";
    }
    if (job.pVariable == nullptr) {
        return unknownText(name);
    }
    job.isSet = !args.empty();
    if (job.isSet) {
        const bool isOne = args.size() == 1 || (args.size() == 2 && args[0] == "=");
        const auto value = isOne ? numberOf(valueTextOf(args)) : std::nullopt;
        if (!value) {
            return name + " is a switch: it takes one number 0 to 4294967295, or nothing to show it";
        }
        job.value = *value;
    }
    return "";
}

void ShellTask::run(const std::string &name, const std::vector<std::string> &args, ShellDone done) {
    Job job{};
    job.done = done;
    std::string error = jobMake(name, args, job);
    if (error.empty()) {
        error = post(std::move(job));
    }
    if (!error.empty()) {
        done({error, 0, ""});
    }
}

// Hands a job to the task, which is made when it is not there. Result: empty, or why not.
std::string ShellTask::post(Job &&job) {
    const std::lock_guard guard(lock);
    if (waiting.size() >= waitingLimit) {
        return "the shell is busy: " + std::to_string(waitingLimit) + " requests wait for it already";
    }
    if (!isServing) {
        uint32_t taskId = 0;
        const auto entry = [](void *pShell, void *) { static_cast<ShellTask *>(pShell)->serve(); };
        if (silCreateTask("shell", TASK_PRIORITY, STACK_BYTES, entry, this, nullptr, &taskId) != 0) {
            return std::string("the shell's task cannot be made: ") + strerror(errnoGet());
        }
        isServing = true;
    }
    waiting.push_back(std::move(job));
    posted.notify_one();
    return "";
}

ShellAnswer ShellTask::carryOut(const Job &job) const {
    ShellAnswer answer;
    if (job.pVariable != nullptr) {
        // The program reads its switches wherever it works: each access is whole.
        if (job.isSet) {
            __atomic_store_n(job.pVariable->pValue, job.value, __ATOMIC_RELAXED);
        } else {
            const uint32_t value = __atomic_load_n(job.pVariable->pValue, __ATOMIC_RELAXED);
            answer.output = std::string(job.pVariable->name) + " = " + std::to_string(value) + "\n";
        }
        return answer;
    }
    StdoutCapture capture(outputLimit);
    answer.result = job.pCommand->run();
    if (capture.isCut()) {
        answer.error = std::string(job.pCommand->name) + " printed more than " + std::to_string(outputLimit) +
                       " bytes; ask for parts of it (pbrctl show)";
        return answer;
    }
    answer.output = std::move(capture.text());
    return answer;
}

void ShellTask::serve() {
    for (;;) {
        Job job;
        {
            std::unique_lock guard(lock);
            posted.wait(guard, [this] { return !waiting.empty(); });
            job = std::move(waiting.front());
            waiting.pop_front();
        }
        job.done(carryOut(job));
    }
}

} // namespace host
