// The operations of the management socket, from the request line to the device and the route bus.
#include <gtest/gtest.h>

#include <cstring>
#include <future>

#include <unistd.h>

#include "host/acl/acl_mgmt.h"
#include "host/acl/acl_store.h"
#include "host/bus/bus.h"
#include "host/device/device.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/hold_ops.h"
#include "host/mgmt/service_ops.h"
#include "host/nqa/nqa_service.h"
#include "host/timerange/timerange_service.h"
#include "platform/acl.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;
using hosttest::Client;
using hosttest::RouteSocket;
using nlohmann::json;

std::string socketPath() {
    return hosttest::root() + "/tmp/policyroutemgmt.socket";
}

// The process's management socket with all operations, opened once.
class Operations : public testing::Test {
protected:
    static void SetUpTestSuite() {
        aclMgmtRegister();
        timerangeMgmtRegister();
        nqaStart();
        serviceOpsRegister();
        holdOpsRegister();
        mgmtRegister("broken", false,
                     [](const json &) -> json { throw std::logic_error("broken on purpose"); });
        ASSERT_EQ(hostDeviceStart(), "");
        ASSERT_EQ(hosttest::mgmtOpen(), "");
    }
    void SetUp() override {
        client.emplace(socketPath());
        ASSERT_TRUE(client->isConnected());
        aclStore().replace({}, true);
        ASSERT_EQ(hostDevice().flush(), "");
    }

    json call(const json &request) { return client->call(request); }
    std::string errorOf(const json &request) {
        const json answer = call(request);
        EXPECT_FALSE(answer.value("ok", true)) << request << answer;
        return answer.value("error", "");
    }
    uint64_t aclChanges() { return hostDevice().show()["counters"]["aclChanges"]; }

    std::optional<Client> client;
};

// "250 1501 10" of an ACL message.
std::string aclMessage(const std::vector<uint8_t> &bytes) {
    if (bytes.size() < QRV_RTM_HEADER_BYTES + 4) {
        return "none";
    }
    RtMsgHeader header;
    std::memcpy(&header, bytes.data(), sizeof header);
    EXPECT_EQ(header.length, header.type == QRV_RTM_ACL_DELACL ? 28u : 32u);
    uint32_t words[2] = {};
    std::memcpy(words, bytes.data() + QRV_RTM_HEADER_BYTES, header.type == QRV_RTM_ACL_DELACL ? 4 : 8);
    std::string text = std::to_string(header.type) + " " + std::to_string(words[0]);
    return header.type == QRV_RTM_ACL_DELACL ? text : text + " " + std::to_string(words[1]);
}

std::vector<std::string> aclMessages(RouteSocket &socket, size_t count) {
    std::vector<std::string> texts;
    for (size_t i = 0; i < count; i++) {
        texts.push_back(aclMessage(socket.read(10000)));
    }
    EXPECT_TRUE(socket.read(0).empty()) << "more messages than expected";
    return texts;
}
using Texts = std::vector<std::string>;

TEST_F(Operations, AnUnknownOperationIsNamedWithTheKnownOnes) {
    const std::string error = errorOf({{"op", "acl.sho"}});
    EXPECT_EQ(error.substr(0, 29), "unknown operation \"acl.sho\"; ");
    EXPECT_NE(error.find("acl.show"), std::string::npos);
    EXPECT_EQ(errorOf({{"op", 5}}), "member \"op\" must name the operation, such as \"version\"");
    EXPECT_EQ(errorOf({{"acl", 1501}}), "member \"op\" must name the operation, such as \"version\"");
}

TEST_F(Operations, AFailingOperationIsAnsweredAndTheConnectionStays) {
    EXPECT_EQ(errorOf({{"op", "broken"}}), "broken on purpose");
    EXPECT_EQ(call({{"op", "version"}}).value("ok", false), true);
}

TEST_F(Operations, VersionTellsWhoServes) {
    const json answer = call({{"op", "version"}});
    EXPECT_EQ(answer.value("program", ""), "policyrouted");
    EXPECT_EQ(answer.value("device", ""), "memory");
    EXPECT_EQ(answer.value("pid", 0), getpid());
    EXPECT_FALSE(answer.value("version", "").empty());
}

TEST_F(Operations, AclSetMakesTheAclTheRuleAndTheMessages) {
    RouteSocket socket;
    const uint64_t before = aclChanges();
    json answer =
        call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit tcp to any port 80-80"}});
    EXPECT_EQ(answer, (json{{"ok", true}, {"changes", 1}, {"text", "permit tcp from any to any port 80"}}));
    EXPECT_EQ(aclMessages(socket, 1), Texts{"250 1501 10"});
    EXPECT_EQ(aclChanges(), before + 1);

    answer = call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip"}});
    EXPECT_EQ(answer.value("changes", 0), 2);
    EXPECT_EQ(aclMessages(socket, 2), (Texts{"251 1501 10", "250 1501 10"}));
    EXPECT_EQ(aclChanges(), before + 2);
}

TEST_F(Operations, ARuleThatStaysTheSameTellsNobody) {
    call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip"}});
    RouteSocket socket;
    const uint64_t before = aclChanges();
    EXPECT_EQ(call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip from any"}})
                  .value("changes", 9),
              0);
    EXPECT_EQ(aclMessages(socket, 0), Texts{});
    EXPECT_EQ(aclChanges(), before);
}

TEST_F(Operations, AclDelRemovesARuleAndRefusesAnAbsentOne) {
    call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip"}});
    RouteSocket socket;
    EXPECT_EQ(errorOf({{"op", "acl.del"}, {"acl", 1501}, {"rule", 20}}), "ACL 1501 has no rule 20");
    EXPECT_EQ(call({{"op", "acl.del"}, {"acl", 1501}, {"rule", 10}}).value("changes", 0), 1);
    EXPECT_EQ(aclMessages(socket, 1), Texts{"251 1501 10"});
}

TEST_F(Operations, AclDestroyWarnsWhenTheAclHasUsers) {
    call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip"}});
    aclStore().usersAdd(1501, 2);
    RouteSocket socket;
    const json answer = call({{"op", "acl.destroy"}, {"acl", 1501}});
    aclStore().usersAdd(1501, -2);
    EXPECT_EQ(answer.value("ok", false), true);
    EXPECT_EQ(answer["warnings"][0],
              "ACL 1501 had 2 users: their entries match nothing until it is made again");
    EXPECT_EQ(aclMessages(socket, 1), Texts{"248 1501"});
    EXPECT_EQ(errorOf({{"op", "acl.destroy"}, {"acl", 1501}}), "ACL 1501 does not exist");
}

TEST_F(Operations, AclDestroyOfAnUnusedAclDoesNotWarn) {
    call({{"op", "acl.create"}, {"acl", 1501}});
    EXPECT_EQ(call({{"op", "acl.destroy"}, {"acl", 1501}}), (json{{"ok", true}, {"changes", 1}}));
}

TEST_F(Operations, AclCreateMakesAnEmptyAclOnce) {
    EXPECT_EQ(call({{"op", "acl.create"}, {"acl", 3501}}), (json{{"ok", true}, {"created", true}}));
    EXPECT_EQ(call({{"op", "acl.create"}, {"acl", 3501}}), (json{{"ok", true}, {"created", false}}));
    EXPECT_EQ(call({{"op", "acl.show"}, {"acl", 3501}})["acls"],
              json::parse(R"([{"acl": 3501, "users": 0, "rules": []}])"));
}

TEST_F(Operations, AclReplaceTellsOnlyTheDifference) {
    call({{"op", "acl.replace"}, {"acl", 1501}, {"rules", {{"10", "permit ip"}, {"20", "deny tcp"}}}});
    RouteSocket socket;
    const json answer =
        call({{"op", "acl.replace"}, {"acl", 1501}, {"rules", {{"20", "deny tcp"}, {"30", "permit udp"}}}});
    EXPECT_EQ(answer.value("changes", 0), 2);
    EXPECT_EQ(aclMessages(socket, 2), (Texts{"251 1501 10", "250 1501 30"}));
    EXPECT_EQ(call({{"op", "acl.show"}, {"acl", 1501}})["acls"][0]["rules"],
              json::parse(R"([{"rule": 20, "text": "deny tcp from any to any"},
                              {"rule": 30, "text": "permit udp from any to any"}])"));
}

TEST_F(Operations, AclReplaceChangesNothingWhenOneRuleIsWrong) {
    call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip"}});
    RouteSocket socket;
    EXPECT_EQ(
        errorOf({{"op", "acl.replace"}, {"acl", 1501}, {"rules", {{"10", "deny ip"}, {"20", "deny foo"}}}}),
        "ACL 1501 rule 20: word 2 'foo': expected ip, tcp, udp, icmp, another protocol's name "
              "such as gre, or a protocol number 0 to 255");
    EXPECT_EQ(aclMessages(socket, 0), Texts{});
    EXPECT_TRUE(aclStore().snapshot(1501)->at(10).permit);
}

TEST_F(Operations, AclReplaceAllChangesAllOrNothing) {
    call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip"}});
    EXPECT_NE(
        errorOf({{"op", "acl.replaceAll"},
                 {"acls", {{"1502", {{"10", "permit ip"}}}, {"3501", {{"10", "permit ip to 10.0.0.0/8"}}}}}})
            .find("ACL 3501 rule 10: word 4 '10.0.0.0/8': "),
        std::string::npos);
    EXPECT_EQ(aclStore().snapshot(1502), nullptr);
    ASSERT_NE(aclStore().snapshot(1501), nullptr);

    RouteSocket socket;
    const json all = {{"op", "acl.replaceAll"},
                      {"acls", {{"1502", {{"10", "permit ip"}}}, {"3501", json::object()}}}};
    EXPECT_EQ(call(all).value("changes", 0), 2);
    EXPECT_EQ(aclMessages(socket, 2), (Texts{"248 1501", "250 1502 10"}));
    EXPECT_EQ(aclStore().snapshot(1501), nullptr);
    EXPECT_NE(aclStore().snapshot(3501), nullptr);
}

TEST_F(Operations, AclReplaceAllCanKeepTheOthers) {
    call({{"op", "acl.set"}, {"acl", 1501}, {"rule", 10}, {"text", "permit ip"}});
    call({{"op", "acl.replaceAll"}, {"keepOthers", true}, {"acls", {{"1502", {{"10", "permit ip"}}}}}});
    EXPECT_NE(aclStore().snapshot(1501), nullptr);
    EXPECT_NE(aclStore().snapshot(1502), nullptr);
}

TEST_F(Operations, AclCheckAnswersCanonicalTextsAndChangesNothing) {
    const json answer = call({{"op", "acl.check"}, {"acls", {{"1501", {{"10", "permit 6 to 10.0.0.1"}}}}}});
    EXPECT_EQ(answer["acls"]["1501"]["10"], "permit tcp from any to 10.0.0.1/32");
    EXPECT_EQ(aclStore().snapshot(1501), nullptr);
    EXPECT_NE(errorOf({{"op", "acl.check"}, {"acls", {{"1501", {{"10", "permit"}}}}}}), "");
}

TEST_F(Operations, AclShowListsAclsAscendingWithUsers) {
    call({{"op", "acl.replaceAll"}, {"acls", {{"3501", {{"5", "permit icmp"}}}, {"1501", json::object()}}}});
    aclStore().usersAdd(3501, 3);
    const json answer = call({{"op", "acl.show"}});
    aclStore().usersAdd(3501, -3);
    EXPECT_EQ(answer["acls"], json::parse(R"([
        {"acl": 1501, "users": 0, "rules": []},
        {"acl": 3501, "users": 3, "rules": [{"rule": 5, "text": "permit icmp from any to any"}]}])"));
    EXPECT_EQ(errorOf({{"op", "acl.show"}, {"acl", 1777}}), "ACL 1777 does not exist");
}

TEST_F(Operations, MembersThatAreMissingMisspeltOrOutOfRangeAreNamed) {
    EXPECT_EQ(errorOf({{"op", "acl.set"}, {"acl", 1501}, {"rul", 10}, {"text", "permit ip"}}),
              "unknown member \"rul\"; this operation takes acl, rule, text");
    EXPECT_EQ(errorOf({{"op", "acl.set"}, {"acl", 1501}, {"text", "permit ip"}}),
              "member \"rule\" is missing: it must be a whole number 1 to 4294967295");
    for (const json &bad :
         {json(0), json(-1), json(1.5), json("10"), json(true), json(), json(4294967296u)}) {
        EXPECT_EQ(errorOf({{"op", "acl.set"}, {"acl", 1501}, {"rule", bad}, {"text", "permit ip"}}),
                  "member \"rule\" must be a whole number 1 to 4294967295");
    }
    EXPECT_EQ(errorOf({{"op", "acl.set"}, {"acl", 1501}, {"rule", 1}, {"text", 5}}),
              "member \"text\" must be a text");
    EXPECT_EQ(errorOf({{"op", "acl.replace"}, {"acl", 1501}, {"rules", json::array()}}),
              "member \"rules\" must be an object");
    EXPECT_EQ(errorOf({{"op", "acl.replace"}, {"acl", 1501}, {"rules", {{"010", "permit ip"}}}}),
              "rule number \"010\" must be a whole number 1 to 4294967295");
    EXPECT_EQ(errorOf({{"op", "acl.replace"}, {"acl", 1501}, {"rules", {{"10", 7}}}}),
              "ACL 1501 rule 10 must be a text");
    EXPECT_EQ(errorOf({{"op", "acl.replaceAll"}, {"acls", {{"1501", 7}}}}),
              "ACL 1501 must be an object of rule numbers and texts");
    EXPECT_EQ(errorOf({{"op", "acl.replaceAll"}, {"acls", json::object()}, {"keepOthers", "no"}}),
              "member \"keepOthers\" must be true or false");
    EXPECT_EQ(errorOf({{"op", "acl.create"}, {"acl", 2500}}).substr(0, 30), "ACL number 2500 cannot be used");
    EXPECT_EQ(errorOf({{"op", "version"}, {"x", 1}}), "unknown member \"x\"; this operation takes none");
    EXPECT_TRUE(aclStore().rows().empty());
}

TEST_F(Operations, DeviceShowTellsKindEntriesRecordsAndCounters) {
    const json answer = call({{"op", "device.show"}});
    EXPECT_EQ(answer.value("kind", ""), "memory");
    EXPECT_TRUE(answer["entries"].is_array());
    EXPECT_TRUE(answer["records"].is_array());
    EXPECT_TRUE(answer["counters"].is_object());
}

TEST_F(Operations, DeviceFailMakesTheNextAddsFail) {
    const std::array<uint8_t, PBR_HW_ACL_CONTENT_BYTES> record{};
    EXPECT_EQ(call({{"op", "device.fail"}, {"count", 1}, {"after", 1}, {"unit", 7}, {"code", 99}})
                  .value("ok", false),
              true);
    EXPECT_EQ(hostDevice().add(7, 1501, record.data()), 0);
    EXPECT_EQ(hostDevice().add(8, 1501, record.data()), 0);
    EXPECT_EQ(hostDevice().add(7, 1501, record.data()), 99);
    EXPECT_EQ(hostDevice().add(7, 1501, record.data()), 0);
    EXPECT_EQ(errorOf({{"op", "device.fail"}, {"count", 1}, {"code", 0}}),
              "member \"code\" must be a whole number 1 to 4294967295");
    EXPECT_EQ(errorOf({{"op", "device.fail"}, {"count", 1}, {"call", "set"}, {"code", 5}}),
              "member \"call\" must be \"add\", \"del\", \"rule-add\" or \"rule-del\"");
    EXPECT_EQ(call({{"op", "device.flush"}}).value("ok", false), true);
    EXPECT_EQ(call({{"op", "device.show"}})["records"].size(), 0u);
}

TEST_F(Operations, CountersTellBusAndDevice) {
    const json answer = call({{"op", "counters"}});
    EXPECT_TRUE(answer["bus"]["published"].is_number());
    EXPECT_TRUE(answer["bus"]["lost"].is_number());
    EXPECT_TRUE(answer["device"]["adds"].is_number());
}

TEST_F(Operations, PeersAndInterfacesAreLists) {
    EXPECT_TRUE(call({{"op", "peers"}})["peers"].is_array());
    EXPECT_TRUE(call({{"op", "interfaces"}})["interfaces"].is_array());
}

TEST_F(Operations, DeviceSettleAnswersAndLetsOthersWorkMeanwhile) {
    const uint64_t before = hostDevice().show()["counters"]["settles"];
    Client other(socketPath());
    client->send("{\"op\": \"device.settle\"}\n");
    EXPECT_EQ(other.call({{"op", "version"}}).value("ok", false), true);
    EXPECT_EQ(client->answer().value().value("ok", false), true);
    EXPECT_EQ(hostDevice().show()["counters"]["settles"], before + 1);
}

TEST_F(Operations, OneClientAtATimeHoldsAndItsEndReleases) {
    const json held = {{"op", "device.hold"}, {"lists", {"wan"}}};
    for (const char *pOp : {"device.release", "device.trial"}) {
        EXPECT_EQ(errorOf({{"op", pOp}}), "nothing is held by this connection");
    }
    {
        Client first(socketPath());
        EXPECT_EQ(first.call(held), (json{{"ok", true}}));
        EXPECT_EQ(first.call({{"op", "device.trial"}}), json::parse(R"({"ok": true, "errors": []})"));
        EXPECT_EQ(errorOf({{"op", "device.trial"}}), "nothing is held by this connection");
        EXPECT_EQ(first.call({{"op", "device.hold"}, {"lists", {"dmz"}}}), (json{{"ok", true}}));
        EXPECT_EQ(errorOf(held), "another client changes the policy now; try again when it has finished");
        EXPECT_EQ(errorOf({{"op", "device.release"}}), "nothing is held by this connection");
        EXPECT_EQ(first.call({{"op", "device.release"}}),
                  json::parse(R"({"ok": true, "determined": true, "errors": []})"));
        EXPECT_EQ(call(held), (json{{"ok", true}}));
        EXPECT_EQ(call({{"op", "device.release"}})["ok"], true);
        EXPECT_EQ(first.call(held), (json{{"ok", true}}));
    }
    bool isFree = false; // the server sees the end of the first connection in its own time
    for (int i = 0; i < 10000 && !isFree; i++) {
        isFree = call(held)["ok"].get<bool>();
    }
    EXPECT_TRUE(isFree);
    EXPECT_EQ(call({{"op", "device.release"}})["ok"], true);
}

TEST_F(Operations, DeviceHoldRefusesWhatIsNoListOfNames) {
    for (const json &lists : {json("wan"), json{1}, json::object()}) {
        EXPECT_EQ(errorOf({{"op", "device.hold"}, {"lists", lists}}), "member \"lists\" must be a list of names");
    }
    EXPECT_EQ(errorOf({{"op", "device.hold"}}), "member \"lists\" must be a list of names");
    EXPECT_EQ(errorOf({{"op", "device.release"}}), "nothing is held by this connection");
}

// Waits on the event thread and answers whether it was determined.
bool settled(std::function<bool()> isDetermined, std::chrono::milliseconds longest) {
    std::promise<bool> answer;
    hostEventLoop().post([&] {
        settleWait(
            hostEventLoop(), isDetermined, [&](bool determined) { answer.set_value(determined); }, longest);
    });
    return answer.get_future().get();
}

TEST(SettleWait, AnswersOnceThePeersAreDetermined) {
    int looks = 0;
    EXPECT_TRUE(settled([&] { return ++looks == 3; }, std::chrono::minutes(5)));
    EXPECT_EQ(looks, 3);
}

TEST(SettleWait, GivesUpAfterTheLongestTime) {
    EXPECT_FALSE(settled([] { return false; }, std::chrono::milliseconds(30)));
}

// ---- probes ----

std::vector<uint8_t> question(const std::string &admin, const std::string &test) {
    NqaStatusMsg message{};
    std::memcpy(message.adminName, admin.data(), admin.size());
    std::memcpy(message.testName, test.data(), test.size());
    message.adminNameLen = static_cast<uint8_t>(admin.size());
    message.testNameLen = static_cast<uint8_t>(test.size());
    return busMessage(QRV_RTM_NQA_STATEREQ, &message, sizeof message);
}

// The next message of type 349; empty when none comes.
std::vector<uint8_t> statusFrom(RouteSocket &socket) {
    for (;;) {
        auto bytes = socket.read(10000);
        if (bytes.empty()) {
            return bytes;
        }
        RtMsgHeader header;
        std::memcpy(&header, bytes.data(), sizeof header);
        if (header.type == QRV_RTM_NQA) {
            return bytes;
        }
    }
}

TEST_F(Operations, EveryProbeQuestionIsAnsweredFailing) {
    RouteSocket socket;
    const std::string longest(NQA_NAME_BYTES, 'n');
    for (const auto &[admin, test] :
         {std::pair<std::string, std::string>{"ops", "isp-a"}, {longest, longest}, {"ops", "isp-a"}}) {
        const auto asked = question(admin, test);
        ASSERT_GE(qrvNetlinkSGrpSend(QRV_RTNLGRP_NQA, 0, asked.data(), static_cast<uint32_t>(asked.size())),
                  0);
        const auto bytes = statusFrom(socket);
        ASSERT_EQ(bytes.size(), 92u);
        NqaStatusMsg expected;
        std::memcpy(&expected, asked.data() + QRV_RTM_HEADER_BYTES, sizeof expected);
        expected.status = NQA_STATUS_FAILING;
        EXPECT_EQ(std::memcmp(bytes.data() + QRV_RTM_HEADER_BYTES, &expected, sizeof expected), 0);
    }
    const json probes = call({{"op", "probes"}})["probes"];
    ASSERT_EQ(probes.size(), 2u);
    EXPECT_EQ(probes[1],
              json::parse(R"({"admin": "ops", "test": "isp-a", "status": "failing", "requests": 2})"));
}

TEST(NqaAnswer, PassesOverWhatIsNoQuestion) {
    const auto good = question("ops", "isp-a");
    ASSERT_TRUE(nqaAnswer(good, 2));
    auto cut = good;
    cut.pop_back();
    EXPECT_FALSE(nqaAnswer(cut, 2));
    EXPECT_FALSE(nqaAnswer({}, 2));
    auto status = good; // type 349 is an answer
    status[4] = status[5] = 0;
    const uint16_t type = QRV_RTM_NQA;
    std::memcpy(status.data() + 4, &type, 2);
    EXPECT_FALSE(nqaAnswer(status, 2));
    for (const size_t lengthAt : {88u, 89u}) {
        for (const uint8_t bad : {uint8_t{0}, uint8_t{33}, uint8_t{255}}) {
            auto wrong = good;
            wrong[lengthAt] = bad;
            EXPECT_FALSE(nqaAnswer(wrong, 2)) << lengthAt << " " << int{bad};
        }
    }
}

} // namespace
