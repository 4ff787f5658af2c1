// Random sequences.
#include "tests/model/generator.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

namespace model {
namespace {

// What a sequence is about.
enum class Profile {
    Mixed,          // everything
    ManyInterfaces, // one list on so many interfaces that its use count wraps
    Commands,       // mostly commands, good and bad
    Tight,          // pools that run out
};

const std::string FULL_NAME = "0123456789abcdef"; // as long as a name can be
const uint32_t NODES[] = {5, 10, 15, 20};
const uint32_t UNITS[] = {3, 7, 9, 0x80000001u};
const uint32_t PORTS[] = {21, 22, 7};
const uint32_t VRFS[] = {0, 0, 0, 0, 0, 3};
const uint32_t ACLS4[] = {1501, 1502, 1503, 1504};
const uint32_t ACLS6[] = {3501, 3502, 3503};
const uint32_t ACLS_ANY[] = {5001, 5002, 5003}; // of nodes without next hops
const uint32_t ODD_ACLS[] = {0, 1, 500, 1000, 1001, 1999, 2000, 2001, 2500, 3000, 3001, 4000, 4001, 5000, 5001, 0xFFFFFFFFu};
const uint32_t RANGES[] = {7, 8};
const char *const PEERS4[] = {"10.0.0.1", "10.0.0.2", "192.168.200.254"};
const char *const PEERS6[] = {"2001:db8::1", "2001:db8:0:1::ffff", "a00:1::"}; // the last one begins as 10.0.0.1
constexpr uint32_t PEERS = 3;
const std::string ADMINS[] = {"ops", "x"};
const std::string TESTS[] = {"t", "isp"};

std::string addressOf(bool six, size_t index) {
    std::string bytes(six ? 16 : 4, '\0');
    inet_pton(six ? AF_INET6 : AF_INET, six ? PEERS6[index] : PEERS4[index], bytes.data());
    return bytes;
}

struct Generator {
    std::mt19937_64 random;
    Profile profile = Profile::Mixed;
    std::string lists[3] = {"a", "ab", "b"};
    std::vector<Step> steps;

    // ---- chance ----
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random() % n); }
    bool chance(uint32_t percent) { return below(100) < percent; }
    template <class T, size_t N> const T &one(const T (&of)[N]) { return of[below(N)]; }

    // ---- steps ----
    Command &command(uint32_t id, uint32_t field) {
        Step step;
        step.kind = StepKind::Command;
        step.command.id = id;
        step.command.field = field;
        steps.push_back(step);
        return steps.back().command;
    }
    static void name(Key &key, const std::string &list) {
        key.list = list;
        key.nameLen = static_cast<uint16_t>(list.size());
    }
    // Arguments in braces are evaluated from left to right on every machine; those of a call are not, and
    // each draw counts.
    struct Number {
        uint32_t id;
        Key key;
        uint32_t field, value;
    };
    void number(const Number &n) {
        Command &c = command(n.id, n.field);
        c.key = n.key;
        c.number = n.value;
    }
    struct Bytes {
        uint32_t id;
        Key key;
        uint32_t field;
        std::string value;
    };
    void string(const Bytes &b) {
        Command &c = command(b.id, b.field);
        c.key = b.key;
        c.isBytes = true;
        c.bytes = b.value;
    }
    struct Other {
        StepKind kind;
        uint32_t value, index = 0;
    };
    void other(const Other &o) {
        Step step;
        step.kind = o.kind;
        step.number = o.value;
        step.index = o.index;
        steps.push_back(step);
    }
    struct Scripted {
        StepKind kind;
        std::string call;
        uint32_t nth;
        int64_t value;
    };
    void scripted(const Scripted &s) {
        Step step;
        step.kind = s.kind;
        step.call = s.call;
        step.number = s.nth;
        step.value = s.value;
        steps.push_back(step);
    }
    void pass(uint32_t ms) { other({StepKind::Pass, ms}); }

    // ---- keys ----
    Key listKey() {
        Key key;
        name(key, one(lists));
        if (chance(1)) { // names that cannot be
            name(key, chance(50) ? "" : FULL_NAME);
            key.nameLen = key.list.empty() ? 0 : chance(50) ? 17 : 0xFFFF;
        }
        return key;
    }
    Key nodeKey() {
        Key key = listKey();
        key.node = chance(2) ? 0 : chance(1) ? 0xFFFFFFF0u : one(NODES);
        return key;
    }
    Key hopKey() {
        Key key = nodeKey();
        key.hop = static_cast<uint8_t>(chance(2) ? 0 : chance(5) ? 200 + below(56) : 1 + below(3));
        return key;
    }
    uint32_t acl() {
        const uint32_t dice = below(10);
        return dice < 4 ? one(ACLS4) : dice < 7 ? one(ACLS6) : one(ACLS_ANY);
    }
    uint32_t unit() {
        return profile == Profile::ManyInterfaces ? 100 + below(18) : one(UNITS);
    }
    Key ifKey() {
        Key key;
        key.unit = unit();
        return key;
    }

    // ---- policies ----
    void hop(Key key, bool six) {
        number({19, key, 1, 2}); // next hop 1 beside others is refused
        if (!chance(3)) {
            string({19, key, 2, addressOf(six, below(PEERS))});
        }
        if (chance(20)) {
            string({19, key, 4, one(ADMINS)});
            string({19, key, 5, one(TESTS)});
            if (!chance(10)) {
                number({19, key, 1, 1});
            }
        }
    }
    void hops(Key key, bool six) {
        const uint32_t count = chance(3) ? 5 : 1 + below(3);
        for (uint32_t i = 1; i <= count; ++i) {
            key.hop = static_cast<uint8_t>(i);
            hop(key, six);
        }
    }
    void node(const std::string &list, uint32_t index) {
        Key key;
        name(key, list);
        key.node = index;
        const bool six = chance(40);
        const uint32_t kind = below(10); // 0 out of an interface, 1 priority only, else next hops
        number({13, key, 1, 2});
        number({13, key, 4, kind < 2 ? one(ACLS_ANY) : six ? one(ACLS6) : one(ACLS4)});
        if (!chance(10)) {
            number({13, key, chance(50) ? 2u : 3u, 1}); // matches even when the ACL is taken
        }
        if (chance(25) || kind == 1) {
            number({13, key, 5, 1 + below(7)});
        }
        if (chance(6)) {
            number({13, key, 8, below(4)});
        }
        if (kind == 0) {
            number({13, key, 6, one(PORTS)});
        } else if (kind != 1) {
            number({13, key, 10, six ? 2u : 1u});
            if (chance(20)) {
                number({13, key, 11, one(VRFS)});
            }
            if (chance(35)) {
                number({13, key, 9, chance(90) ? 1 : 2 + below(2)});
            }
            hops(key, six);
        }
        if (chance(12)) {
            number({13, key, 19, chance(15) ? 0u : one(RANGES)}); // 0 is stored and never gates
        }
    }
    void list(const std::string &list) {
        Key key;
        name(key, list);
        number({10, key, 1, 2});
        const uint32_t count = 1 + below(3);
        for (uint32_t i = 0; i < count; ++i) {
            node(list, NODES[i]);
        }
    }
    struct Binding {
        uint32_t unit;
        std::string list;
    };
    void bind(const Binding &b) {
        Key key;
        key.unit = b.unit;
        number({16, key, 1, 1});
        string({16, key, 2, b.list});
    }
    void unbind(uint32_t unit) {
        Key key;
        key.unit = unit;
        number({16, key, 1, 2});
    }

    // ---- route messages ----
    Message peer(uint16_t type) {
        Message m;
        m.type = type;
        const bool six = chance(40);
        m.family = static_cast<uint8_t>(six ? 2 : 1);
        const std::string address = addressOf(six, below(PEERS));
        memcpy(m.address, address.data(), address.size());
        m.word[0] = one(VRFS);
        if (chance(1)) {
            m.family = static_cast<uint8_t>(below(4));
        }
        return m;
    }
    Message link() {
        Message m;
        m.type = 32;
        m.word[0] = unit();
        const uint32_t count = below(3);
        for (uint32_t i = 0; i < count || chance(30); ++i) {
            const uint16_t types[] = {66, 66, 67, 67, 66, 67, 66, 67, 66, 67, 66, 67, 66, 67, 52, 1};
            m.attributes.push_back({8, one(types), one(PORTS)}); // drawn from left to right
            if (chance(3)) {
                m.attributes.back().length = static_cast<uint16_t>(below(12));
            }
        }
        return m;
    }
    Message rule(uint16_t type) {
        Message m;
        m.type = type;
        m.word[0] = chance(8) ? 1999 : acl();
        m.word[1] = 1 + below(5);
        m.word[1] += below(4) == 0 ? 0x10000u : 0; // the device's priority takes the low half
        return m;
    }
    Message probe() {
        Message m;
        m.type = 349;
        m.admin = one(ADMINS);
        m.test = one(TESTS);
        m.adminLen = static_cast<uint8_t>(m.admin.size());
        m.testLen = static_cast<uint8_t>(m.test.size());
        m.status = static_cast<uint8_t>(chance(60) ? 1 : below(4));
        if (chance(2)) {
            m.adminLen = static_cast<uint8_t>(below(256));
        }
        return m;
    }
    Message card() {
        Message m;
        m.type = chance(50) ? 97 : 108;
        m.word[1] = below(3);
        m.word[2] = below(3);
        m.word[3] = below(3);
        return m;
    }
    Message portMessage(uint16_t type) {
        Message m;
        m.type = type;
        m.word[0] = unit();
        return m;
    }
    Message event() {
        const uint32_t dice = below(100);
        Message m;
        if (dice < 38) {
            m = peer(305);
        } else if (dice < 56) {
            m = peer(306);
        } else if (dice < 65) {
            m = peer(307);
        } else if (dice < 75) {
            m = probe();
        } else if (dice < 84) {
            m = rule(250);
        } else if (dice < 90) {
            m = rule(251);
        } else if (dice < 92) {
            m = rule(248);
        } else if (dice < 96) {
            m = link();
        } else if (dice < 98) {
            m = card();
        } else if (chance(30)) {
            m = portMessage(chance(50) ? 34 : 324);
        } else {
            m.type = static_cast<uint16_t>(chance(50) ? 350 : below(400));
        }
        if (chance(m.type == 34 ? 20 : 1)) {
            const uint32_t cuts[] = {1, 4, 8, 24}; // what is missing is read from the message behind
            m.cut = m.type == 305 || m.type == 306 || m.type == 34 ? one(cuts) : 0;
        }
        if (chance(1)) {
            const uint32_t words[] = {0, 23, 24, 26, 28, 47, 48, 4000, 0xFFFFFFFFu};
            m.lengthWord = one(words);
        }
        return m;
    }
    void read() {
        Step step;
        step.kind = StepKind::Read;
        do {
            step.messages.push_back(event());
        } while (chance(18));
        while (below(1500) == 0 || (step.messages.size() > 20 && step.messages.size() < 90)) { // more than one read takes
            step.messages.push_back(event());
            while (step.messages.size() < 21) {
                step.messages.push_back(peer(305));
            }
        }
        steps.push_back(step);
    }

    // ---- everything else ----
    void fault() {
        struct Fault {
            const char *call;
            int64_t value;
        };
        static const Fault faults[] = {{"aclIfSetApi", 5},           {"aclIfSetApi", -7},
                                       {"aclIfSetApi", 5},           {"aclIfSetApi", 5},
                                       {"aclLstGetApi", 1},          {"timerangeBind", 9},
                                       {"timerangeUnbind", 0x03E80099}, {"silMemPoolAlloc", 0},
                                       {"aclIfSetApi", 5},           {"aclIfSetApi", 1},
                                       {"qrvHwilCmdSyncApi", 0x03E80099}, {"qrvIfSetApi", 3},
                                       {"qrvNetlinkSGrpSend", -1},   {"qrvIfGetApi", 1},
                                       {"silMemPoolInit", -1},       {"qrvHwilScalarGet", 0},       {"qrvHwilScalarGet", 0},
                                                                             {"qrvHwilSlotGet", 0},        {"qrvHwilCardGet", 0}};
        const Fault &f = one(faults);
        // A list whose use count wraps and a binding that stopped half-way together leave links to nodes
        // that can be destroyed: operators cannot come out of that either.
        if (profile == Profile::ManyInterfaces && std::string(f.call) == "silMemPoolAlloc") {
            return;
        }
        scripted({StepKind::Arm, f.call, 1 + below(3), f.value});
        if (std::string(f.call) == "qrvHwilScalarGet") { // both must be 0 to matter
            scripted({StepKind::Arm, f.call, 1, 0});
            scripted({StepKind::Arm, f.call, 2, 0});
        }
    }
    // Several peers come up and the update runs.
    void revive() {
        Step step;
        step.kind = StepKind::Read;
        for (uint32_t i = 0; i < 2 + below(3); ++i) {
            step.messages.push_back(peer(305));
        }
        steps.push_back(step);
        pass(1000);
    }
    // One change of a node whose list is free.
    void change(Key key) {
        const bool six = chance(40);
        key.hop = static_cast<uint8_t>(1 + below(3));
        switch (below(11)) {
        case 0:
            number({13, key, 1, 4});
            node(key.list, key.node);
            break;
        case 1: number({13, key, 9, below(2)}); break;
        case 2: number({13, key, 8, chance(50) ? 0u : 2u}); break;
        case 3:
            number({13, key, 13, below(3) != 0 ? 1u : 0u}); // with 0 the next hops stay under another version
            number({13, key, 10, six ? 2u : 1u});
            hop(key, six);
            break;
        case 4:
            if (chance(10)) {
                scripted({StepKind::Arm, "timerangeUnbind", 1, 0x03E80099});
            }
            number({13, key, 19, 0xFFFFFFFFu});
            break;
        case 5:
            if (chance(5)) {
                scripted({StepKind::Arm, "timerangeBind", 1, 9});
            }
            number({13, key, 19, one(RANGES)});
            break;
        case 6: number({19, key, 1, 4}); break;
        case 7: hop(key, six); break;
        case 8: number({13, key, 11, one(VRFS)}); break;
        case 9: number({13, key, 4, chance(30) ? 0 : acl()}); break;
        default: number({13, key, 5, below(8)}); break;
        }
    }
    void reconfigure() { // free a list, change it, bind it again
        const std::string &list = one(lists);
        for (uint32_t u : UNITS) {
            unbind(u);
        }
        for (uint32_t i = 0; i < 1 + below(3); ++i) {
            Key key;
            name(key, list);
            key.node = NODES[below(3)];
            change(key);
        }
        bind({unit(), list});
        for (uint32_t i = 0; i < below(3); ++i) {
            bind({unit(), one(lists)});
        }
        revive();
    }
    // A peer changes, and an interface is bound before the update runs.
    void changeThenBind() {
        Step step;
        step.kind = StepKind::Read;
        for (uint32_t i = 0; i < PEERS; ++i) {
            step.messages.push_back(peer(307));
        }
        steps.push_back(step);
        pass(0);
        bind({unit(), one(lists)});
        pass(1000);
    }
    // A port joins and leaves an aggregation whose members need entries of their own.
    void members() {
        scripted({StepKind::Answer, "aggAnswer", 0, 1});
        Step step;
        step.kind = StepKind::Read;
        step.messages.push_back(link());
        step.messages.push_back(link());
        steps.push_back(step);
        pass(0);
    }
    // A link that waits for its ACL's first rule gets one.
    void firstRule() {
        for (uint32_t i = 0; i < 3; ++i) {
            other({StepKind::Waiting, 1 + below(2), below(6)});
        }
        Step step;
        step.kind = StepKind::Read;
        step.messages.push_back(rule(250));
        steps.push_back(step);
        pass(0);
    }
    uint32_t oddNumber() {
        const uint32_t numbers[] = {0, 1, 2, 3, 4, 5, 9, 255, 65535, 0xFFFFFFFFu};
        return one(numbers);
    }
    void nodeCommand(bool good) {
        const Key key = nodeKey();
        const uint32_t id = chance(80) ? 13 : 14;
        const uint32_t field = good || chance(70) ? 1 + below(13) : below(22);
        switch (field) {
        case 1: number({id, key, 1, good ? 1 + 2 * below(2) : below(6)}); break;
        case 4: number({id, key, 4, chance(70) ? acl() : one(ODD_ACLS)}); break;
        case 5: number({id, key, 5, below(18)}); break;
        case 6: number({id, key, 6, chance(40) ? 0 : one(PORTS)}); break;
        case 9: number({id, key, 9, below(4)}); break;
        case 10: number({id, key, 10, chance(95) ? below(3) : 3}); break;
        case 11: number({id, key, 11, one(VRFS)}); break;
        case 13: number({id, key, 13, chance(60) ? 1u : 0u}); break;
        case 19: number({id, key, 19, chance(40) ? 0xFFFFFFFFu : chance(90) ? one(RANGES) : below(2)}); break;
        default: number({id, key, field, oddNumber()}); break;
        }
    }
    void hopCommand() {
        const Key key = hopKey();
        const uint32_t id = chance(80) ? 19 : 20;
        switch (below(8)) {
        case 0:
        case 1: number({id, key, 1, below(6)}); break;
        case 2:
        case 3: {
            const bool six = chance(40);
            string({id, key, 2, addressOf(six, below(PEERS))});
            break;
        }
        case 4: {
            const uint32_t lengths[] = {0, 3, 4, 4, 4, 5, 15, 16, 16, 17};
            const uint32_t length = one(lengths);
            string({id, key, 2, std::string(length, chance(50) ? '\0' : '\x11')});
            break;
        }
        case 5:
        case 6: {
            const uint32_t lengths[] = {0, 31, 32, 33, 64};
            const bool isAdmin = chance(50);
            string({id, key, isAdmin ? 4u : 5u, chance(60) ? (isAdmin ? one(ADMINS) : one(TESTS)) : std::string(one(lengths), 'q')});
            break;
        }
        default: number({id, key, chance(50) ? 3 : 6 + below(3), oddNumber()}); break;
        }
    }
    void listCommand() {
        number({chance(80) ? 10u : 11u, listKey(), chance(95) ? 1 : below(4), below(6)});
    }
    void ifCommand() {
        const uint32_t id = chance(80) ? 16 : 17;
        const Key key = ifKey();
        switch (below(12)) {
        case 0: number({id, key, 1, below(4)}); break;
        case 1: number({id, key, 1, 2}); break;
        case 2: // lists that are not there, a name as long as a name can be, longer ones
            string({id, key, 2, chance(50) ? "none" : std::string(1 + 15 * below(4), 'z')});
            break;
        case 3: number({id, key, 3 + below(3), 0}); break;
        default:
            if (chance(60)) {
                bind({key.unit, one(lists)});
            } else {
                string({id, key, 2, chance(3) ? "" : one(lists)});
            }
        }
    }
    void get() {
        const uint32_t ids[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 15, 18, 21};
        const uint32_t id = one(ids);
        const Key key = id == 5 || id == 6 || id == 15 ? ifKey() : hopKey();
        const uint32_t capacities[] = {64, 200, 200, 200, 11, 12, 4, 33, 0, 24};
        const uint32_t field = id < 9 ? 0 : id == 15 && chance(40) ? 2 : id == 12 && chance(30) ? 15 + 4 * below(2) : id == 12 ? below(14) : below(9);
        Command &c = command(id, field);
        c.key = key;
        c.capacity = one(capacities);
        if (id >= 3 && id <= 8) {
            c.key.mask = static_cast<uint8_t>(0x40 * below(4));
        }
        const bool mayLackBuffer = (id == 9 && field == 3) || (id == 12 && field == 15) || (id == 15 && field == 4) ||
                                   (id == 21 && field >= 5 && field <= 7);
        c.hasBuffer = !(mayLackBuffer && chance(5));
        if (id == 15 && chance(10)) {
            c.capacity = 0;
        }
        if (id == 18 && (field == 4 || field == 5)) {
            c.capacity = 64;
        }
        if (id == 21) {
            c.hasKey = false;
        }
        const bool mayMiss = id <= 2 || id == 5 || id == 6 || id == 9 || id == 12 || id == 15 || id == 18;
        c.hasKey = c.hasKey && !(mayMiss && chance(2));
        if (id == 8 && chance(3)) {
            name(c.key, "");
        }
    }
    void missingKey() {
        const uint32_t ids[] = {10, 11, 13, 14, 16, 17, 19, 20};
        Command &c = command(one(ids), 1);
        c.hasKey = false;
        c.number = 1;
    }
    void switches() {
        const uint32_t flags[] = {0, 4, 64, 68, 76, 0xFFFFFFFFu};
        switch (below(8)) {
        case 0:
        case 1:
        case 2: {
            Command &c = command(22, 4);
            if (chance(10)) {
                c.id = 23;
            }
            if (chance(5)) {
                c.field = below(9);
            }
            c.hasKey = false;
            c.number = one(flags);
            break;
        }
        case 3: other({StepKind::SelfLog, below(2)}); break;
        case 4: {
            const int64_t values[] = {1, 24, 24};
            scripted({StepKind::Answer, "qrvSelfSysIndex", 0, one(values)});
            break;
        }
        case 5: scripted({StepKind::Answer, "aggAnswer", 0, below(4)}); break;
        case 6: // a device that refuses everything for a while
            scripted({StepKind::Answer, "aclIfSetApi", 0, 12});
            read();
            pass(1000);
            manage();
            pass(1000);
            members();
            scripted({StepKind::Answer, "aclIfSetApi", 0, 0});
            break;
        default: // and an interface layer
            scripted({StepKind::Answer, "qrvIfSetApi", 0, -3});
            read();
            pass(0);
            manage();
            scripted({StepKind::Answer, "qrvIfSetApi", 0, 0});
            break;
        }
    }

    void prologue() {
        if (chance(70)) {
            const uint32_t flags[] = {4, 64, 68, 68, 76};
            Command &c = command(22, 4);
            c.hasKey = false;
            c.number = one(flags);
        }
        if (chance(50)) {
            scripted({StepKind::Answer, "aggAnswer", 0, 1});
            scripted({StepKind::Answer, "qrvSelfSysIndex", 0, 24});
        }
        if (chance(50)) {
            other({StepKind::Acl, 0, 1999});
        }
        if (chance(3)) {
            scripted({StepKind::Arm, "silMemPoolInit", 1 + below(6), -1});
        }
        if (profile == Profile::ManyInterfaces) {
            list("a");
            const uint32_t count = 13 + below(5);
            for (uint32_t i = 0; i < count; ++i) {
                bind({100 + i, "a"});
                if (chance(20)) {
                    revive();
                }
            }
            return;
        }
        for (const std::string &name : lists) {
            if (!chance(profile == Profile::Commands ? 60 : 10)) {
                list(name);
            }
        }
        if (profile == Profile::Commands) {
            return;
        }
        for (uint32_t u : UNITS) {
            if (!chance(30)) {
                bind({u, one(lists)});
            }
        }
        revive();
    }

    void manageOddly() { // lists are mostly free, so that commands get far
        switch (below(16)) {
        case 0:
        case 1: listCommand(); break;
        case 2:
        case 3:
        case 4: nodeCommand(false); break;
        case 5: nodeCommand(true); break;
        case 6:
        case 7:
        case 8: hopCommand(); break;
        case 9:
        case 10: ifCommand(); break;
        case 11: unbind(unit()); break;
        case 12:
        case 13: get(); break;
        case 14: missingKey(); break;
        default: list(one(lists)); break;
        }
    }

    void manageMany() {
        switch (below(12)) {
        case 0: listCommand(); break;
        case 1: nodeCommand(true); break;
        case 2: hopCommand(); break;
        case 3: get(); break;
        case 4: number({10, listKey(), 1, 4}); break;
        case 5: list("a"); break;
        case 6:
        case 7: unbind(unit()); break;
        default: bind({unit(), "a"}); break;
        }
    }
    void manage() {
        switch (below(20)) {
        case 0: listCommand(); break;
        case 1:
        case 2: nodeCommand(chance(70)); break;
        case 3: hopCommand(); break;
        case 4:
        case 5: ifCommand(); break;
        case 6:
        case 7:
        case 8: bind({unit(), one(lists)}); break;
        case 9: get(); break;
        case 10: chance(15) ? missingKey() : get(); break;
        case 11:
        case 12: list(one(lists)); break;
        case 13:
        case 14:
        case 15:
        case 16: reconfigure(); break;
        default: number({13, nodeKey(), 16 + below(3), 0}); break; // works while the list is bound
        }
    }

    void step() {
        const uint32_t commands = profile == Profile::Commands ? 90 : profile == Profile::Mixed ? 16 : 40;
        if (chance(commands)) {
            switch (profile) {
            case Profile::ManyInterfaces: manageMany(); break;
            case Profile::Commands: manageOddly(); break;
            case Profile::Mixed:
            case Profile::Tight: manage(); break;
            }
            return;
        }
        const uint32_t dice = below(100);
        if (dice < 52) {
            read();
            if (!chance(12)) { // else the bytes wait
                pass(chance(40) ? 1000 : 0);
            }
        } else if (dice < 74) {
            pass(chance(70) ? 1000 : below(1200));
        } else if (dice < 82) {
            other({StepKind::Range, below(10) < 6 ? 0 : 1 + below(2), below(4)});
        } else if (dice < 88) {
            fault();
        } else if (dice < 91) {
            firstRule();
        } else if (dice < 92) {
            changeThenBind();
        } else if (dice < 93) {
            members();
        } else if (dice < 94) {
            other({StepKind::Acl, below(2), acl()});
        } else {
            switches();
        }
    }
};

} // namespace

Sequence generate(uint64_t seed, size_t wanted) {
    Generator g;
    g.random.seed(seed * 0x9E3779B97F4A7C15ull + 1);
    Sequence sequence;
    sequence.seed = seed;
    const uint32_t dice = g.below(100);
    g.profile = dice < 72 ? Profile::Mixed : dice < 80 ? Profile::ManyInterfaces : dice < 94 ? Profile::Commands : Profile::Tight;
    sequence.limits = {3, 12, 4};
    if (g.profile == Profile::ManyInterfaces) {
        sequence.limits = {3, 12, 20};
    } else if (g.profile == Profile::Tight) {
        sequence.limits = {1 + g.below(3), 1 + g.below(4), 1 + g.below(3)};
    }
    if (g.chance(25)) {
        g.lists[2] = FULL_NAME;
    }
    if (g.chance(15)) {
        g.lists[1] = g.chance(50) ? "a%s%n" : "a\xff"; // texts must not take a name for a format
    }
    g.prologue();
    while (g.steps.size() < wanted) {
        g.step();
    }
    g.steps.resize(wanted);
    sequence.steps = g.steps;
    return sequence;
}

const std::vector<uint8_t> &ruleTranslation() {
    static const std::vector<uint8_t> bytes = [] {
        std::vector<uint8_t> out(508);
        for (size_t i = 0; i < out.size(); ++i) {
            out[i] = static_cast<uint8_t>(i % 255 + 1);
        }
        return out;
    }();
    return bytes;
}

} // namespace model
