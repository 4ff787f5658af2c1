// The recording fake of the platform: what tests use to script answers, to send events and to read what
// the daemon called, in order.
//
// Every call of a seam function appends a line to one trace, e.g.
//   aclIfSetApi(7, 20, if=7 acl=1501 dir=0 act=7 pri=0 vrf=0 hops=0a000001)
//   hrdScalarSetApi(0, 6, 01010700 00000003 00000000 0a000001)
//   debug 0x044B0003 7 0 "text"      log 0x044B0003 p6 f2 "text"      (escapes: \r \n \t \" \\ as in C)
//   printf "text"   puts "text"   perror "text"
// Not recorded, but checked: silTakeSem/silGiveSem (unlock without lock, double lock), pool take and give
// (double free, foreign slot, not aligned), avl, adr, qrvIfUnit2Name/qrvIfIndex2Name (answers "if<unit>",
// or the name set with nameInterface), qrvHwilScalarGet is recorded. devSyncStore is counted.
// Misuse fails the running test. Time is virtual.
#ifndef TESTS_FAKE_FAKE_H
#define TESTS_FAKE_FAKE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace fake {

// Everything as new: no pools, no semaphores, no timers, empty trace, default answers, time 0.
void reset();

// The trace since the last take, all lines / only calls / only texts (debug, log, printf, puts, perror).
std::vector<std::string> takeTrace();
std::vector<std::string> takeCalls();
std::vector<std::string> takeTexts();
// takeCalls and takeTexts discard the lines of the other kind too.

// ---- answers ----
void answer(const std::string &call, int64_t value);                     // from now on
void answerNth(const std::string &call, uint32_t nth, int64_t value);    // the nth from now, once (1 first)
void answerWith(const std::string &call, std::function<int64_t(const std::string &line)> f); // by its line
// Fault sweep: the nth call (1 first) from now that can fail fails as its contract says (pool init,
// slot, task, semaphore, socket, bind, setsockopt, send, timer list, aclIfSetApi, aclLstGetApi, qrvIfSetApi,
// qrvHwilCmdSyncApi, timerangeBind/Unbind); 0 switches it off. faultHit: whether it happened.
void failNth(uint32_t nth);
bool faultHit();

// ---- options, interfaces, ACLs ----
void option(const std::string &key, const std::string &value);
void nameInterface(uint32_t unit, const std::string &name);
void acl(uint32_t aclNum, bool exists); // aclLstGetApi; default: every ACL exists

// ---- time and tasks ----
void advanceMs(uint32_t ms);                  // moves the virtual clock; nothing runs by itself
uint64_t nowMs();
struct Task { std::string name; uint32_t priority, stackBytes; void (*entry)(void *, void *); };
std::vector<Task> tasks();                    // created with silCreateTask, not run
std::vector<std::string> selects();           // "sec.usec maxFd" of each qrv_select since the last call

// ---- events: real message bytes, so the parser is always in the path ----
void deliver(const std::vector<uint8_t> &read); // one read of the route socket
std::vector<uint8_t> message(uint16_t type, const void *pPayload, uint32_t payloadLen, uint32_t lengthWord = 0); // 0: right length
std::vector<uint8_t> hrd(uint16_t type, const std::string &address, uint32_t vrf); // "10.0.0.1", "2001:db8::1"
void whenPeerGoesUp(const std::string &address, uint32_t vrf);      // deliver(hrd(305))
void whenPeerGoesDown(const std::string &address, uint32_t vrf);
void whenPeerChanges(const std::string &address, uint32_t vrf);
uint32_t pendingBytes(); // waiting in the fake route socket: what QRV_FIONREAD answers

// ---- state of the fake ----
uint32_t slotsTaken(const std::string &pool); // slots in use of the pool of that name, 0 when it does not exist
bool poolExists(const std::string &pool);
bool locked();                                // whether the daemon's mutex is held
uint32_t syncCount();                         // calls of devSyncStore
struct TimerangeBinding { uint32_t id; std::string name; std::vector<uint8_t> context;
    uint32_t (*start)(void *); uint32_t (*stop)(void *); uint32_t (*unbind)(void *); };
std::vector<TimerangeBinding> timerangeBindings();

} // namespace fake

#endif
