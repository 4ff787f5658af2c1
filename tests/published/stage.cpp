// The whole daemon on the recording fake: see the header.
#include "tests/published/stage.h"

#include "core/pbr_loop.h"
#include "tests/support/store_checker.h"

namespace published {

std::string general(const std::string &text) { return steps::generalText(text + "\r\n"); }
std::string event(const std::string &text) { return steps::eventText(text + "\r\n"); }
std::string hardware(const std::string &text) { return steps::hwText(text + "\r\n"); }
std::string table(const std::string &text) { return steps::debugText(0x044B0004, text + "\r\n"); }
std::string hardwareRaw(const std::string &text) { return steps::hwText(text); }
std::string hardwareLog(uint32_t flags, const std::string &text) {
    return steps::logText(0x044B0003, 6, flags, text + "\r\n");
}
std::string peerLog(const std::string &text) { return steps::logText(0x044B0002, 6, 284, text + "\r\n"); }
Lines both(uint32_t flags, const std::string &text) { return {hardware(text), hardwareLog(flags, text)}; }
Lines operator+(const Lines &a, const Lines &b) {
    Lines out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

std::vector<Case> &cases() {
    static std::vector<Case> all;
    return all;
}

Stage::Stage(uint32_t flags) : flags_(flags) {
    fake::reset();
    gPbrDebug = 0;
    gPbrSelfLog = 0;
    fake::watch([](const std::string &line) { record().line(line); });
}

Stage::~Stage() {
    EXPECT_FALSE(fake::locked());
    fake::watch(nullptr);
}

void Stage::start(uint32_t maxListNum, uint32_t maxNodeNum, uint32_t maxIfNum) {
    startDaemon(maxListNum, maxNodeNum, maxIfNum);
    EXPECT_EQ(PBR_OK, set(PBR_CMD_SCALAR_SET, {}, PBR_SCALAR_DEBUG_FLAGS, flags_ & ~hidden));
    drop();
}

void Stage::checked() {
    EXPECT_FALSE(fake::locked()) << "the mutex was not given back";
    checkStore(allowed);
}

// ---- commands ----

namespace {

// The handler of a command, as the command server calls it.
template <class Handler> Handler handlerOf(uint32_t command) {
    EXPECT_EQ(command, gPbrFuncMap[command].id);
    record().number("command", command);
    return reinterpret_cast<Handler>(gPbrFuncMap[command].handler);
}

void *dataOf(Key &key) { return key.empty() ? nullptr : key.data(); }

uint32_t noted(uint32_t code) {
    record().number("code", code);
    return code;
}

} // namespace

uint32_t Stage::set(uint32_t command, const Key &key, uint32_t field, uint32_t number) {
    Key copy = key;
    PbrApiValue value = {number, 0};
    const uint32_t code = handlerOf<IcmFieldHandler>(command)(dataOf(copy), field, &value);
    checked();
    return noted(code);
}

uint32_t Stage::setBytes(uint32_t command, const Key &key, uint32_t field, const std::string &bytes) {
    Key copy = key;
    std::string data = bytes;
    PbrApiValue value = {reinterpret_cast<uintptr_t>(data.data()), static_cast<uint32_t>(data.size())};
    const uint32_t code = handlerOf<IcmFieldHandler>(command)(dataOf(copy), field, &value);
    checked();
    return noted(code);
}

Answer Stage::getNumber(uint32_t command, const Key &key, uint32_t field) {
    Key copy = key;
    PbrApiValue value = {0x5A5A5A5Au, 0};
    const uint32_t code = handlerOf<IcmFieldHandler>(command)(dataOf(copy), field, &value);
    checked();
    return {noted(code), static_cast<uint32_t>(value.word0), 0, ""};
}

Answer Stage::getBytes(uint32_t command, const Key &key, uint32_t field, uint32_t capacity) {
    Key copy = key;
    std::string buffer(capacity + 64, '\xA5');
    PbrApiValue value = {reinterpret_cast<uintptr_t>(buffer.data()), capacity};
    const uint32_t code = handlerOf<IcmFieldHandler>(command)(dataOf(copy), field, &value);
    checked();
    return {noted(code), 0, value.word1, buffer.substr(0, value.word1)};
}

uint32_t Stage::first(uint32_t command, Key &key) {
    return noted(handlerOf<IcmFirstHandler>(command)(dataOf(key)));
}

uint32_t Stage::next(uint32_t command, const Key &in, Key &out) {
    Key copy = in;
    out.assign(in.size(), 0);
    return noted(handlerOf<IcmNextHandler>(command)(dataOf(copy), dataOf(out)));
}

// ---- configuration ----

void Stage::list(const std::string &name) {
    EXPECT_EQ(PBR_OK, set(PBR_CMD_LIST_SET, listKey(name), PBR_LIST_STATUS, PBR_ROW_CREATED));
    drop();
}

void Stage::node(const std::string &list, uint32_t index, const NodeSpec &spec) {
    const Key key = nodeKey(list, index);
    auto field = [&](uint32_t id, uint32_t value, uint32_t none) {
        if (value != none) {
            EXPECT_EQ(PBR_OK, set(PBR_CMD_NODE_SET, key, id, value)) << list << " " << index << " field " << id;
        }
    };
    field(PBR_NODE_STATUS, PBR_ROW_CREATED, 0);
    field(PBR_NODE_IP_VERSION, spec.ipVer, 0);
    field(PBR_NODE_ACL_NUM, spec.acl, 0);
    field(PBR_NODE_VRF_ID, spec.vrf, 0);
    field(PBR_NODE_IS_ECMP, spec.ecmp, 0);
    field(PBR_NODE_OUT_IF_UNIT, spec.outIf, 0);
    field(PBR_NODE_IP_PRI, spec.pri, PBR_IP_PRI_NONE);
    field(PBR_NODE_FORWARD_FLAG, spec.forwardFlag, 0);
    field(PBR_NODE_MATCH_VALUE1, spec.match1, 0);
    field(PBR_NODE_TIME_RANGE_ID, spec.timeRangeId, PBR_TIME_RANGE_NONE);
    drop();
}

void Stage::hop(const std::string &list, uint32_t index, uint8_t number, const std::string &address) {
    const Key key = nodeKey(list, index, number);
    EXPECT_EQ(PBR_OK, set(PBR_CMD_NEXT_HOP_SET, key, PBR_NEXT_HOP_STATUS, PBR_ROW_CREATED));
    EXPECT_EQ(PBR_OK, setBytes(PBR_CMD_NEXT_HOP_SET, key, PBR_NEXT_HOP_ADDRESS, api_test::address(address)));
    drop();
}

void Stage::hopActive(const std::string &list, uint32_t index, uint8_t number, const std::string &admin,
                      const std::string &test) {
    const Key key = nodeKey(list, index, number);
    EXPECT_EQ(PBR_OK, setBytes(PBR_CMD_NEXT_HOP_SET, key, PBR_NEXT_HOP_NQA_ADMIN_NAME, admin));
    EXPECT_EQ(PBR_OK, setBytes(PBR_CMD_NEXT_HOP_SET, key, PBR_NEXT_HOP_NQA_TEST_NAME, test));
    EXPECT_EQ(PBR_OK, set(PBR_CMD_NEXT_HOP_SET, key, PBR_NEXT_HOP_STATUS, PBR_ROW_ACTIVE));
    drop();
}

void Stage::bind(uint32_t unit, const std::string &list) {
    EXPECT_EQ(PBR_OK, set(PBR_CMD_IF_SET, unitKey(unit), PBR_IF_STATUS, PBR_IF_CREATE));
    EXPECT_EQ(PBR_OK, setBytes(PBR_CMD_IF_SET, unitKey(unit), PBR_IF_PBR_NAME, list));
    drop();
}

void Stage::unbind(uint32_t unit) {
    EXPECT_EQ(PBR_OK, set(PBR_CMD_IF_SET, unitKey(unit), PBR_IF_STATUS, PBR_IF_DESTROY));
    drop();
}

// ---- events ----

void Stage::read(const Bytes &bytes) {
    drop();
    for (size_t at = 0; at + QRV_RTM_HEADER_BYTES <= bytes.size();) {
        RtMsgHeader header;
        memcpy(&header, bytes.data() + at, sizeof(header));
        record().number("message", header.type);
        at += (header.length + QRV_RTM_ALIGN - 1) & ~(QRV_RTM_ALIGN - 1);
    }
    fake::deliver(bytes);
    int32_t maxFd = 0;
    pbrMainPass(&maxFd);
    checked();
}

void Stage::tick() {
    drop();
    fake::advanceMs(1000);
    int32_t maxFd = 0;
    pbrMainPass(&maxFd);
    checked();
}

// ---- expectations ----

void Stage::said(const Lines &expected) {
    Lines wanted;
    for (const std::string &line : expected) {
        const Row *pRow = rowOfLine(line);
        EXPECT_NE(nullptr, pRow) << "expected without a row: " << line;
        if (pRow == nullptr || pRow->kind != "text" || shows(pRow->number)) {
            wanted.push_back(line);
        }
    }
    EXPECT_EQ(wanted, fake::takeTrace()) << "debug flags " << flags_;
}

void Stage::saidOfRead(Lines expected) {
    expected.insert(expected.begin(), "qrv_recvfrom(3, 3840)");
    said(expected);
}

void Stage::saidOfTick(Lines expected) {
    for (std::string &line : expected) {
        line = line.empty() ? "qrv_ioctl(3, 0x4004667f)" : line;
    }
    expected.push_back("silTimerStart(timer1, 1000)");
    said(expected);
}

void Stage::drop() { (void)fake::takeTrace(); }

void Stage::prints(const std::function<void()> &action, const std::string &out, const std::string &err) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    action();
    fflush(stdout);
    const std::string printed = testing::internal::GetCapturedStdout();
    const std::string complained = testing::internal::GetCapturedStderr();
    record().printed("stdout", printed);
    record().printed("stderr", complained);
    EXPECT_EQ(out, printed);
    // perror puts the error's name behind its text.
    EXPECT_EQ(err, complained.substr(0, err.size()));
    EXPECT_EQ(err.empty(), complained.empty());
}

} // namespace published
