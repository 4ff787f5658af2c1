// What the files of the fake share: the trace, the answers, the state of each component.
#ifndef TESTS_FAKE_FAKE_STATE_H
#define TESTS_FAKE_FAKE_STATE_H

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/sil_timer.h"
#include "tests/fake/fake.h"

namespace fake {

struct Pool {
    std::string name;
    uint32_t slotBytes = 0, stride = 0;
    uint8_t *pMemory = nullptr;
    std::vector<bool> taken;
    uint32_t takenCount = 0;
    size_t firstFree = 0; // no free slot before it
};

struct ArmedTimer {
    SilTimer *pTimer;
    SilTimerList *pList;
    uint64_t dueMs, sequence;
    SilTimerCallback callback;
    void *pArg;
};

struct State {
    std::vector<std::string> trace;
    std::map<std::string, int64_t> answers;
    std::map<std::string, std::map<uint32_t, int64_t>> nthAnswers; // by calls still to come
    std::map<std::string, std::function<int64_t(const std::string &)>> functions;
    uint32_t faultIn = 0; // fallible calls until the fault, 0 off
    std::string faultCall;

    std::map<std::string, std::string> options;
    std::map<uint32_t, std::string> interfaceNames;
    std::map<uint32_t, bool> acls;
    std::vector<uint8_t> translation; // what aclRuleDevTrans puts into a record

    uint64_t nowMs = 0, sequence = 0;
    std::vector<Task> tasks;
    std::vector<ArmedTimer> armed;
    std::vector<const SilTimer *> knownTimers;
    std::set<const SilTimerList *> timerLists;

    std::map<const void *, Pool> pools; // by the address of the pool object
    std::map<uint32_t, bool> semaphores; // handle: taken
    uint32_t lastSemaphore = 0;

    std::set<int32_t> sockets;
    std::deque<std::vector<uint8_t>> reads;
    std::vector<std::string> selects;

    uint32_t syncs = 0;
    std::vector<TimerangeBinding> timeranges;
    std::vector<CommandServer> commandServers;
};

State &state();

std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string quoted(const std::string &bytes); // with the escapes of the trace, in quotes
std::string hex(const void *pBytes, size_t count);
std::string key(const void *pKey, size_t keyLen); // a management key in words

void record(const std::string &line);

// Records the line and tells what the call answers: the script's answer, else normal. A call that can
// fail gives its failure value, which the fault sweep makes it answer.
int64_t call(const char *name, const std::string &line, int64_t normal);
int64_t fallible(const char *name, const std::string &line, int64_t normal, int64_t failure);
// The same without a line in the trace.
int64_t quiet(const char *name, const std::string &line, int64_t normal);
int64_t quietFallible(const char *name, const std::string &line, int64_t normal, int64_t failure);

void misuse(const std::string &what); // fails the running test

} // namespace fake

#endif
