// The whole daemon on the recording fake, as operators and services see it: commands through the command
// map, route messages as bytes that the worker task reads, virtual time. Every line that the daemon leaves
// goes into the record of what was published.
//
// A case is written once and run with every setting of the debug flags: `said` compares the whole trace
// since the last step with the expected lines, less the debug texts whose bit is off.
#ifndef TESTS_PUBLISHED_STAGE_H
#define TESTS_PUBLISHED_STAGE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/published/table.h"
#include "tests/scenario/events.h"
#include "tests/support/builders.h"
#include "tests/unit/api/api_calls.h"
#include "tests/unit/hw/steps.h"

namespace published {

using api_test::Answer;
using api_test::Key;
using api_test::listKey;
using api_test::nodeKey;
using api_test::unitKey;
using events::Bytes;
using steps::pointerText;
using Lines = std::vector<std::string>;

constexpr uint32_t ALL_FLAGS = 0xFFFFFFFFu;

// Expected lines. Texts are given without the "\r\n" at their end, but for raw.
std::string general(const std::string &text);  // debug text of the management plane and of binding
std::string event(const std::string &text);    // of route messages, next-hop events, time ranges
std::string hardware(const std::string &text); // of device programming, selection, update
std::string table(const std::string &text);    // of pools and records
std::string hardwareRaw(const std::string &text);
std::string hardwareLog(uint32_t flags, const std::string &text); // log record of device programming
std::string peerLog(const std::string &text);                     // log record of peer reports
Lines both(uint32_t flags, const std::string &text);              // a debug text and the same as a log record
Lines operator+(const Lines &a, const Lines &b);

class Stage {
public:
    explicit Stage(uint32_t flags);
    ~Stage();

    // A started daemon with the stage's debug flags, set by command; limits: 0 for the default.
    void start(uint32_t maxListNum = 0, uint32_t maxNodeNum = 0, uint32_t maxIfNum = 0);

    // Commands, by their id in the map; the result code.
    uint32_t set(uint32_t command, const Key &key, uint32_t field, uint32_t number);
    uint32_t setBytes(uint32_t command, const Key &key, uint32_t field, const std::string &bytes);
    Answer getNumber(uint32_t command, const Key &key, uint32_t field);
    Answer getBytes(uint32_t command, const Key &key, uint32_t field, uint32_t capacity);
    uint32_t first(uint32_t command, Key &key);
    uint32_t next(uint32_t command, const Key &in, Key &out);

    // Configuration that is expected to be accepted; nothing of it is left in the trace.
    void list(const std::string &name);
    void node(const std::string &list, uint32_t index, const NodeSpec &spec);
    void hop(const std::string &list, uint32_t index, uint8_t number, const std::string &address);
    void hopActive(const std::string &list, uint32_t index, uint8_t number, const std::string &admin,
                   const std::string &test);
    void bind(uint32_t unit, const std::string &list);
    void unbind(uint32_t unit);

    // Events: one read of the route socket; the update timer.
    void read(const Bytes &bytes);
    void tick();

    // The trace since the last step or expectation.
    void said(const Lines &expected);
    void saidOfRead(Lines expected); // behind the read itself
    void saidOfTick(Lines expected); // before the timer is armed again; "" stands for the look at the socket
    void drop();                     // nothing is expected of it
    bool shows(uint32_t bit) const { return (flags_ & ~hidden & bit) != 0; }

    // What an action prints.
    void prints(const std::function<void()> &action, const std::string &out, const std::string &err);

    uint32_t hidden = 8;  // debug flags that stay off before `start`: dumps are a matter of their own
    uint32_t allowed = 0; // oddities that the case is about, for the store checker

private:
    void checked();
    uint32_t flags_;
};

// A case: a test of its own with all debug texts on, and part of the sweeps.
struct Case {
    const char *name;
    void (*run)(Stage &s);
};
std::vector<Case> &cases();
struct Registered {
    Registered(const char *name, void (*run)(Stage &s)) { cases().push_back({name, run}); }
};
#define PUBLISHED(group, name)                                                                      \
    static void run##name(Stage &s);                                                                \
    static const Registered registered##name(#group "." #name, run##name);                          \
    TEST(group, name) {                                                                             \
        Stage stage(ALL_FLAGS);                                                                     \
        run##name(stage);                                                                           \
    }                                                                                               \
    static void run##name(Stage &s)

} // namespace published

#endif
