// The recording fake of the platform: what tests use to script answers, to send events and to read what
// the daemon called, in order.
//
// Every call of a seam function appends a line to one trace:
//   aclIfSetApi(7, 20, if=7 acl=1501 dir=0 act=7 pri=0 vrf=0 hops=0a000001)   (words of the area joined by
//                      ",", zero words at its end left out: none gives "hops=")
//   aclLstSyncApi(1501, 2, 1)   aclLstGetApi(1501, 4)   aclRuleDevTrans(1501, 10)
//   hrdScalarSetApi(0, 6, 01010700 00000003 00000000 0a000001)   qrvIfSetApi(7, 56, 206)
//   qrvIfSetApi(7, 44, type=0x03e80135 68:00000002 224:01000000)   a device rule record: its words that
//                      are not zero, in hex, each behind its byte offset
//   qrvIfGetApi(5, 47, 0x03e80135)   the function asked; the answer byte is answer("aggAnswer", 1), else 0
//   qrvHwilCmdSyncApi(list("a"), code=0x12340001 flags=0x3 len=4 value=2)   keys: none, list("a"),
//                      node("a",10,mask=0,hop=0), if(7); a byte string: bytes=61 instead of value=
//   timerangeBind(7, "pbra-10", node("a",10,mask=0,hop=0))   timerangeUnbind(7, "pbra-10", 1)
//   qrvNetlinkSGrpSend(89, 350, admin="a"/1 test="t"/1 status=0)   qrvHwilScalarSet(0, 499, 206, 0)
//   qrv_ioctl(3, 0x4004667f)   qrv_ioctl(3, 0x8004667e, 1)   qrv_recvfrom(3, 3840)   qrv_close(3)
//   silTimerStart(timer1, 1000)   silTimerStop(timer1)   (timers numbered as they appear)
//   silOptRead("policyroute.enable")   silCreateMSem(9)   silMemPoolInit("pbr_if", 48) ...
//   debug 0x044B0003 7 0 "text"      log 0x044B0003 p6 f2 "text"      (escapes: \r \n \t \" \\ as in C)
// What the daemon prints goes to stdout and stderr (testing::internal::CaptureStdout/CaptureStderr).
// Not recorded, but checked: silTakeSem/silGiveSem (unlock without lock, double lock), pool take and give
// (double free, foreign slot), the lock around timers and the wait. Not recorded: avl, adr,
// qrvIfUnit2Name/qrvIfIndex2Name (answers "if<unit>", or the name set with nameInterface), errnoGet,
// silTimerListNextTimeout, silTimerListCheck, qrv_select (see selects). devSyncStore is counted.
// Misuse fails the running test. Time is virtual.
#ifndef TESTS_FAKE_FAKE_H
#define TESTS_FAKE_FAKE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/icm.h"

namespace fake {

// Everything as new: no pools, no semaphores, no timers, empty trace, default answers, time 0.
void reset();

// The trace since the last take, all lines / only calls / only texts (debug, log).
std::vector<std::string> takeTrace();
std::vector<std::string> takeCalls();
std::vector<std::string> takeTexts();
// takeCalls and takeTexts discard the lines of the other kind too.
// Shows every line to the watcher as it is written, also after a reset; null ends it.
void watch(std::function<void(const std::string &line)> watcher);

// ---- answers ----
void answer(const std::string &call, int64_t value);                     // from now on
void answerNth(const std::string &call, uint32_t nth, int64_t value);    // the nth from now, once (1 first)
void answerWith(const std::string &call, std::function<int64_t(const std::string &line)> f); // by its line
// `call` is the function's name, e.g. "aclIfSetApi"; "silMemPoolAlloc" answers 0 for "no slot". An answer
// overrides what the call would answer; answerWith is asked first, then answerNth, then answer.
// Fault sweep: the nth call (1 first) from now that can fail fails as its contract says (pool init,
// slot, task, semaphore, socket, bind, setsockopt, send, timer list, aclIfSetApi, aclLstGetApi, qrvIfSetApi,
// qrvHwilCmdSyncApi, timerangeBind/Unbind); 0 switches it off. faultHit: whether it happened, and where
// (the call's name, "" when not).
void failNth(uint32_t nth);
bool faultHit();
std::string faultCall();
constexpr int64_t FAULT_CODE = 0x0BAD0001; // what a failing device, sync or time-range call answers

// ---- options, interfaces, ACLs ----
void option(const std::string &key, const std::string &value);
void nameInterface(uint32_t unit, const std::string &name);
void acl(uint32_t aclNum, bool exists); // aclLstGetApi; default: every ACL exists
void ruleTranslation(const std::vector<uint8_t> &record); // of aclRuleDevTrans, but for ACL, rule and place

// ---- time and tasks ----
void advanceMs(uint32_t ms);                  // moves the virtual clock; nothing runs by itself
uint64_t nowMs();
// Tasks made with silCreateTask; they are not run.
struct Task { std::string name; uint32_t priority, stackBytes; void (*entry)(void *, void *); };
std::vector<Task> tasks();
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
uint32_t poolSlots(const std::string &pool);     // slots of the pool, taken or not; 0 when it does not exist
uint32_t poolSlotBytes(const std::string &pool); // bytes of a slot
std::string poolOf(const void *pSlot);           // the pool in which this is a taken slot, "" when none
bool locked();                                // whether a mutex is held
uint32_t semCount();                          // mutexes that exist
uint32_t syncCount();                         // calls of devSyncStore
struct TimerangeBinding { uint32_t id; std::string name; std::vector<uint8_t> context;
    uint32_t (*start)(void *); uint32_t (*stop)(void *); uint32_t (*unbind)(void *); };
std::vector<TimerangeBinding> timerangeBindings();
struct CommandServer { std::string task, path; const IcmCommand *pCommands; uint32_t count; };
std::vector<CommandServer> commandServers();  // started with icmProcTcpInit

} // namespace fake

#endif
