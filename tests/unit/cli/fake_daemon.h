// A daemon in the test's process: the two sockets below a folder of its own, real frames and lines, a
// small store with the refusals that matter to pbrctl, and changes that fail on demand.
#ifndef TESTS_UNIT_CLI_FAKE_DAEMON_H
#define TESTS_UNIT_CLI_FAKE_DAEMON_H

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/command_codec.h"

struct FakeNextHop {
    uint32_t status = 2;
    client::Bytes address;
    std::string admin, test;
    bool operator==(const FakeNextHop &) const = default;
};
struct FakeNode {
    std::map<uint32_t, uint32_t> fields; // by field id, as the daemon holds them
    std::map<uint8_t, FakeNextHop> nextHops;
    bool operator==(const FakeNode &) const = default;
};
struct FakeList {
    uint32_t status = 2;
    std::map<uint32_t, FakeNode> nodes;
    bool operator==(const FakeList &) const = default;
};
struct FakeStore {
    std::map<std::string, FakeList> lists;
    std::map<uint32_t, std::string> interfaces; // unit -> bound list
    std::map<uint32_t, std::map<uint32_t, std::string>> acls;
    std::map<std::string, nlohmann::json> probes; // configured, by "administrator/test"
    std::map<std::string, nlohmann::json> timeRanges;
    std::set<std::pair<std::string, uint32_t>> drops; // nodes that drop with nothing usable
    bool operator==(const FakeStore &) const = default;
};

class FakeDaemon {
public:
    FakeDaemon();
    ~FakeDaemon();
    const std::string &root() const { return folder; }

    // Runs pbrctl against this daemon. Result: its exit status; out and err hold what it printed.
    int pbrctl(std::vector<std::string> words);
    std::string out, err;

    // The store now; changes in it are seen by the daemon.
    FakeStore store();
    void put(const FakeStore &value);

    // The count-th change from now (1: the next) is refused with `code`; 0 switches it off. A management
    // change is refused with a text.
    void failChange(int count, uint32_t code = 0x03E80001u);
    // From now on sets of list names to this interface ("if 7") are refused; "" switches it off.
    void failFrom(const std::string &interface, uint32_t code);
    int changes(); // changes asked for since the start, done or refused
    std::vector<std::string> log(); // the changes done, as text
    std::vector<std::string> locks(); // what single changes asked about the right to change the policy
    void logClear();

    // Answers of the management socket beside ACLs.
    void peersAre(const nlohmann::json &rows);
    void entriesAre(const nlohmann::json &rows); // of the device
    void settleAnswers(bool isDetermined, const std::string &error = "");
    void checkAnswers(const nlohmann::json &answer);   // of device.check; its warnings also elsewhere
    void releaseAnswers(const nlohmann::json &errors); // of device.release
    void trialAnswers(const nlohmann::json &errors);   // of device.trial
    // Somebody else has the lock for so many questions; holder: what for, as the daemon tells.
    void refusePid(uint32_t pid, int times = 1, const std::string &holder = "apply");
    void offerNothing(const std::set<std::string> &ops); // are unknown operations

    // The n-th change from now (1: the next) is made and not answered: the connection is closed. Then the
    // daemon serves again, with `after` as its store.
    void dieAtChange(int n, const FakeStore &after);

    // The thread that runs pbrctl gets this signal at the n-th change from now, once it is made; 0: no more.
    void signalAtChange(int n, int signal);

private:
    void serve();
    bool serveClient(int fd, bool isMgmt);
    uint32_t handle(const CommandFrameHeader &header, const client::Bytes &key, const client::Bytes &bytes,
                    client::Bytes &answerKey, client::Bytes &answerBytes, uint32_t &number, uint8_t &kind);
    uint32_t set(uint16_t command, uint32_t field, const client::Bytes &key, uint32_t number,
                 const client::Bytes &bytes);
    nlohmann::json mgmt(const nlohmann::json &request);
    nlohmann::json around(const std::string &op, const nlohmann::json &request);
    bool dieNow();
    void signalNow();
    nlohmann::json shell(const std::string &name, const nlohmann::json &args) const;

    const std::map<uint32_t, std::string> links = {{7, "lan0"}, {8, "lan1"}, {9, "tun0"}};
    std::string folder;
    int listeners[2] = {-1, -1};
    int wake[2] = {-1, -1};
    std::mutex lock; // of everything below but the thread's own `pending`
    FakeStore held;
    nlohmann::json peers = nlohmann::json::array();
    nlohmann::json device = {{"kind", "fake"}, {"entries", nlohmann::json::array()}};
    bool determined = true;
    std::string settleError;
    nlohmann::json checked = {{"compared", true}};
    nlohmann::json releaseErrors = nlohmann::json::array(), trialErrors = nlohmann::json::array();
    uint32_t lockedBy = 0;
    int lockedTimes = 0;
    std::string lockHolder;
    bool isSingleLocked = false;
    std::vector<std::string> lockLog;
    int asked = 0; // for the state of probes: each is found at every second question
    std::set<std::string> notOffered;
    int dieIn = 0;
    FakeStore diedTo;
    int signalIn = 0;
    int signalNumber = 0;
    pthread_t caller{};
    bool hasDied = false;
    int failIn = 0;
    uint32_t failCode = 0;
    std::string failName;
    uint32_t failNameCode = 0;
    int changeCount = 0;
    std::vector<std::string> changeLog;
    std::map<int, client::Bytes> pending; // bytes of each client that are not a whole request yet
    std::thread thread;
};

#endif
