// The shell task: runs the program's diagnostic commands (platform/sil_process.h) one after the other and
// gives back what each printed.
//
// Commands may take the daemon's mutex and print for long, so they run on a task of their own, which is
// made with the first command and waits for the next ones. Switches are read and set on the same task, in
// the order of the requests.
#ifndef HOST_SHELL_SHELL_TASK_H
#define HOST_SHELL_SHELL_TASK_H

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <condition_variable>
#include <string>
#include <vector>

#include "platform/sil_process.h"

namespace host {

// What there is to call and to set.
struct ShellTable {
    const ProcShellCommand *pCommands;
    uint32_t commandCount;
    const ProcShellVariable *pVariables;
    uint32_t variableCount;
};

struct ShellAnswer {
    std::string error;  // empty, or why nothing could be answered
    int32_t result = 0; // of the command
    std::string output; // exactly what the command printed to standard output
};
using ShellDone = std::function<void(ShellAnswer)>;

class ShellTask {
public:
    // mostWaiting: requests that may wait for their turn. mostBytes: longest output of a command. The
    // object outlives its task, that is, it lives as long as the process.
    ShellTask(const ShellTable &shellTable, size_t mostWaiting, size_t mostBytes);
    ShellTask(const ShellTask &) = delete;
    ShellTask &operator=(const ShellTask &) = delete;

    // Runs a command by its name without arguments, or shows a switch (no arguments: "NAME = VALUE" and a
    // newline as output) or sets it ("1", "=1" or "=", "1": no output). `done` is called once, on the shell
    // task; for what is refused at once (the error says why), before this returns. Lock: takes its own
    void run(const std::string &name, const std::vector<std::string> &args, ShellDone done);

    // The names of all commands, then of all switches. Lock: none
    std::vector<std::string> commandNames() const;
    std::vector<std::string> variableNames() const;

private:
    struct Job {
        const ProcShellCommand *pCommand;   // null: a switch
        const ProcShellVariable *pVariable; // null: a command
        bool isSet;                         // of a switch
        uint32_t value;                     // to set
        ShellDone done;
    };

    std::string jobMake(const std::string &name, const std::vector<std::string> &args, Job &job) const;
    std::string unknownText(const std::string &name) const;
    std::string post(Job &&job);
    ShellAnswer carryOut(const Job &job) const;
    void serve();

    const ShellTable table;
    const size_t waitingLimit;
    const size_t outputLimit;
    std::mutex lock; // of what follows
    std::condition_variable posted;
    std::deque<Job> waiting;
    bool isServing = false; // the task is there
};

} // namespace host

#endif
