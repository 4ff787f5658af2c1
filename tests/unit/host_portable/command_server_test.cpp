// The command server over real sockets, with frames made by hand.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/command_frame.h"
#include "platform/icm.h"
#include "platform/platform_types.h"
#include "tests/unit/host_portable/support.h"

// ---- a program with a few commands that note how they were called ----

namespace {

constexpr uint32_t OK = QRV_OK, BAD = QRV_ERR_BAD_ARGUMENT;
constexpr uint32_t KEY_BYTES = 18;
constexpr uint32_t NUMBER_FIELD = 1, BYTES_FIELD = 2, REFUSED_FIELD = 3, GREEDY_FIELD = 4, UNTOUCHED_FIELD = 5;
constexpr uint32_t BIG_FIELD = 6;

enum Command : uint16_t { NOTHING, FIRST, NEXT, GET, SET, NO_HANDLER, SCALAR_GET, UNSHAPED };

std::atomic<uint32_t> gCalls{0};
std::vector<uint8_t> gSetBytes; // what the last set was given
uint32_t gSetNumber;
bool gIsSpareZero;
std::atomic<bool> gHold{false}; // the set waits while this is true

bool isAligned(const void *p) {
    return reinterpret_cast<uintptr_t>(p) % alignof(uint64_t) == 0;
}

uint32_t first(void *pKey) {
    ++gCalls;
    auto *pBytes = static_cast<uint8_t *>(pKey);
    if (!isAligned(pKey) || pBytes[0] == 'e') {
        return QRV_FAIL;
    }
    pBytes[1] = 'f';
    return OK;
}

uint32_t next(const void *pInKey, void *pOutKey) {
    ++gCalls;
    const auto *pIn = static_cast<const uint8_t *>(pInKey);
    auto *pOut = static_cast<uint8_t *>(pOutKey);
    if (!isAligned(pIn) || !isAligned(pOut) || pIn[0] == 'e') {
        return QRV_FAIL;
    }
    pOut[0] = static_cast<uint8_t>(pIn[0] + 1); // the rest is left as it came
    return OK;
}

uint32_t get(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    ++gCalls;
    if (pKey != nullptr && !isAligned(pKey)) {
        return QRV_FAIL;
    }
    auto *pBytes = reinterpret_cast<uint8_t *>(pValue->word0);
    switch (fieldId) {
    case NUMBER_FIELD:
        pValue->word0 = 0xDEADBEEFu;
        return OK;
    case BYTES_FIELD:
        memcpy(pBytes, "abcdef", 6);
        pValue->word1 = 6;
        return OK;
    case GREEDY_FIELD: // writes and claims more than the capacity
        memset(pBytes, 'g', pValue->word1 + 64);
        pValue->word1 += 64;
        return OK;
    case BIG_FIELD:
        memset(pBytes, 'b', pValue->word1);
        return OK;
    case REFUSED_FIELD:
        return 22;
    default:
        return OK;
    }
}

uint32_t set(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    ++gCalls;
    while (gHold) {
        std::this_thread::yield();
    }
    if (pKey == nullptr || !isAligned(pKey)) {
        return QRV_FAIL;
    }
    gSetNumber = pValue->word1;
    if (fieldId == BYTES_FIELD) {
        const auto *pBytes = reinterpret_cast<const uint8_t *>(pValue->word0);
        gSetBytes.assign(pBytes, pBytes + pValue->word1);
        gIsSpareZero = pBytes[pValue->word1] == 0 && pBytes[pValue->word1 + 63] == 0;
    } else {
        gSetNumber = static_cast<uint32_t>(pValue->word0);
    }
    return fieldId == REFUSED_FIELD ? 0x044B0005u : OK;
}

template <typename Handler> IcmHandler handler(Handler function) {
    return reinterpret_cast<IcmHandler>(function);
}

const IcmCommand COMMANDS[] = {{NOTHING, nullptr},         {FIRST, handler(first)}, {NEXT, handler(next)},
                               {GET, handler(get)},        {SET, handler(set)},     {NO_HANDLER, nullptr},
                               {SCALAR_GET, handler(get)}, {UNSHAPED, handler(set)}};
constexpr uint32_t BYTE_FIELDS =
    1u << BYTES_FIELD | 1u << GREEDY_FIELD | 1u << UNTOUCHED_FIELD | 1u << BIG_FIELD;

} // namespace

const IcmCommandShape gIcmCommandShapes[] = {
    {ICM_SHAPE_NONE, 0, 0},           {ICM_SHAPE_FIRST, KEY_BYTES, 0},
    {ICM_SHAPE_NEXT, KEY_BYTES, 0},   {ICM_SHAPE_GET, KEY_BYTES, BYTE_FIELDS},
    {ICM_SHAPE_SET, KEY_BYTES, BYTE_FIELDS}, {ICM_SHAPE_GET, KEY_BYTES, 0},
    {ICM_SHAPE_GET, 0, BYTE_FIELDS},
};
const uint32_t gIcmCommandShapeCount = 7;

namespace {

using Bytes = std::vector<uint8_t>;
const Bytes KEY = {'k', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9, 9};

Bytes keyOf(char letter) {
    Bytes key = KEY;
    key[0] = static_cast<uint8_t>(letter);
    return key;
}

// A frame by hand; length and key length are right unless given.
struct Frame {
    uint16_t command = GET;
    uint32_t field = NUMBER_FIELD;
    uint8_t kind = COMMAND_VALUE_NUMBER;
    uint32_t number = 0;
    Bytes key = KEY;
    Bytes bytes = {};
    uint32_t requestId = 0x01020304;
    uint8_t version = 1;
    uint16_t reserved = 0;
    int64_t length = -1;
    int32_t keyLength = -1;

    Bytes encode() const {
        CommandFrameHeader header{};
        const size_t right = 20 + key.size() + bytes.size();
        header.length = static_cast<uint32_t>(length >= 0 ? length : static_cast<int64_t>(right));
        header.version = version;
        header.kind = kind;
        header.commandId = command;
        header.requestId = requestId;
        header.fieldOrResult = field;
        header.number = number;
        header.keyLength = static_cast<uint16_t>(keyLength >= 0 ? keyLength : static_cast<int32_t>(key.size()));
        header.reserved = reserved;
        Bytes all(COMMAND_FRAME_HEADER_BYTES);
        commandFrameEncode(&header, all.data());
        all.insert(all.end(), key.begin(), key.end());
        all.insert(all.end(), bytes.begin(), bytes.end());
        return all;
    }
};

struct Reply {
    CommandFrameHeader header{};
    Bytes key, bytes;
    uint32_t result() const { return header.fieldOrResult; }
};

class Connection {
public:
    explicit Connection(const std::string &path) : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path.c_str());
        const timeval patience{20, 0};
        EXPECT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)));
        EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address))) << strerror(errno);
    }
    ~Connection() { close(fd); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void sendBytes(const Bytes &bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    bool receive(void *pBytes, size_t count) {
        return count == 0 || recv(fd, pBytes, count, MSG_WAITALL) == static_cast<ssize_t>(count);
    }
    Reply reply() {
        uint8_t head[COMMAND_FRAME_HEADER_BYTES];
        Reply found;
        if (!receive(head, sizeof(head))) {
            ADD_FAILURE() << "no answer: " << strerror(errno);
            return found;
        }
        commandFrameDecode(head, &found.header);
        found.key.resize(found.header.keyLength);
        found.bytes.resize(found.header.length - 20 - found.header.keyLength);
        EXPECT_TRUE(receive(found.key.data(), found.key.size()));
        EXPECT_TRUE(receive(found.bytes.data(), found.bytes.size()));
        return found;
    }
    Reply call(const Frame &frame) {
        sendBytes(frame.encode());
        return reply();
    }
    bool isClosed() { // by the server; waits for it
        uint8_t byte;
        const ssize_t count = recv(fd, &byte, 1, 0);
        return count == 0 || (count < 0 && errno == ECONNRESET);
    }

    const int fd;
};

class Commands : public testing::Test {
protected:
    explicit Commands(const std::vector<std::string> &options = {}) : settings(options) {
        support::StderrCapture captured;
        path = settings.root.path + "/tmp/cmd.socket";
        EXPECT_EQ(0, icmProcTcpInit("pbrcmdtask", "/tmp/cmd.socket", COMMANDS, std::size(COMMANDS)));
        said = captured.take();
        gCalls = 0;
        gHold = false;
    }
    Connection client() { return Connection(path); }
    // Others are served.
    void expectServed() {
        Connection other(path);
        EXPECT_EQ(OK, other.call({}).result());
    }

    support::Options settings;
    std::string path, said;
};

// ---- good frames ----

TEST_F(Commands, TheServerSaysInOneLineWhereItServes) {
    EXPECT_EQ("policyrouted: serving on " + path + "\n", said);
    struct stat status {};
    ASSERT_EQ(0, stat(path.c_str(), &status));
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(0660u, status.st_mode & 0777u);
}

TEST_F(Commands, AGetOfANumberAnswersWithTheNumberAndTheRequestsIds) {
    Connection one(path);
    const Reply reply = one.call({});
    EXPECT_EQ(OK, reply.result());
    EXPECT_EQ(0xDEADBEEFu, reply.header.number);
    EXPECT_EQ(20u, reply.header.length);
    EXPECT_EQ(1, reply.header.version);
    EXPECT_EQ(COMMAND_VALUE_NUMBER, reply.header.kind);
    EXPECT_EQ(GET, reply.header.commandId);
    EXPECT_EQ(0x01020304u, reply.header.requestId);
    EXPECT_EQ(0, reply.header.keyLength);
    EXPECT_EQ(0, reply.header.reserved);
}

TEST_F(Commands, AGetOfBytesAnswersWithTheBytes) {
    Connection one(path);
    const Reply reply = one.call({.field = BYTES_FIELD, .kind = COMMAND_VALUE_BYTES, .number = 100});
    EXPECT_EQ(OK, reply.result());
    EXPECT_EQ(COMMAND_VALUE_BYTES, reply.header.kind);
    EXPECT_EQ(6u, reply.header.number);
    EXPECT_EQ((Bytes{'a', 'b', 'c', 'd', 'e', 'f'}), reply.bytes);
}

TEST_F(Commands, MoreThanTheCapacityIsCutOnTheWire) {
    Connection one(path);
    for (const uint32_t capacity : {0u, 4u}) {
        const Reply reply = one.call({.field = BYTES_FIELD, .kind = COMMAND_VALUE_BYTES, .number = capacity});
        EXPECT_EQ(OK, reply.result());
        EXPECT_EQ(capacity, reply.header.number);
        EXPECT_EQ(capacity, reply.bytes.size());
    }
    for (const uint32_t capacity : {0u, 1u, 23u, 65516u, 65536u, 0xFFFFFFFFu}) {
        const Reply reply = one.call({.field = GREEDY_FIELD, .kind = COMMAND_VALUE_BYTES, .number = capacity});
        EXPECT_EQ(OK, reply.result()) << capacity;
        EXPECT_EQ(std::min(capacity, 65516u), reply.bytes.size());
    }
}

TEST_F(Commands, AFieldThatTheHandlerLeavesAloneReadsAsZeros) {
    Connection one(path);
    const Reply reply = one.call({.field = UNTOUCHED_FIELD, .kind = COMMAND_VALUE_BYTES, .number = 3});
    EXPECT_EQ((Bytes{0, 0, 0}), reply.bytes);
    EXPECT_EQ(0u, one.call({.field = 31}).header.number);
}

TEST_F(Commands, AGetMayLeaveTheKindToTheField) {
    Connection one(path);
    EXPECT_EQ(COMMAND_VALUE_NUMBER, one.call({.kind = COMMAND_VALUE_NONE}).header.kind);
    const Reply reply = one.call({.field = BYTES_FIELD, .kind = COMMAND_VALUE_NONE, .number = 3});
    EXPECT_EQ(COMMAND_VALUE_BYTES, reply.header.kind);
    EXPECT_EQ((Bytes{'a', 'b', 'c'}), reply.bytes);
}

TEST_F(Commands, ASetHandsOverNumbersAndBytes) {
    Connection one(path);
    EXPECT_EQ(OK, one.call({.command = SET, .number = 0xFFFFFFFF}).result());
    EXPECT_EQ(0xFFFFFFFFu, gSetNumber);
    const Reply reply = one.call(
        {.command = SET, .field = BYTES_FIELD, .kind = COMMAND_VALUE_BYTES, .number = 3, .bytes = {7, 8, 9}});
    EXPECT_EQ(OK, reply.result());
    EXPECT_EQ(COMMAND_VALUE_NONE, reply.header.kind);
    EXPECT_EQ((Bytes{7, 8, 9}), gSetBytes);
    EXPECT_TRUE(gIsSpareZero);
}

TEST_F(Commands, ASetOfNoBytesAndOfTheMostBytes) {
    Connection one(path);
    EXPECT_EQ(OK, one.call({.command = SET, .field = BYTES_FIELD, .kind = COMMAND_VALUE_BYTES}).result());
    EXPECT_EQ(Bytes{}, gSetBytes);
    const Bytes most(65536 - 20 - KEY_BYTES, 'm');
    const auto count = static_cast<uint32_t>(most.size());
    EXPECT_EQ(OK, one.call({.command = SET, .field = BYTES_FIELD, .kind = 2, .number = count, .bytes = most})
                      .result());
    EXPECT_EQ(most, gSetBytes);
}

TEST_F(Commands, WalksAnswerWithTheKeyAndAtTheEndWithoutOne) {
    Connection one(path);
    Reply reply = one.call({.command = FIRST, .kind = COMMAND_VALUE_NONE});
    EXPECT_EQ(OK, reply.result());
    EXPECT_EQ('k', reply.key.at(0));
    EXPECT_EQ('f', reply.key.at(1));
    EXPECT_EQ(9, reply.key.at(17));
    reply = one.call({.command = NEXT, .kind = COMMAND_VALUE_NONE});
    EXPECT_EQ(OK, reply.result());
    EXPECT_EQ('l', reply.key.at(0));
    EXPECT_EQ(0, reply.key.at(17)); // what the handler does not write is zero
    for (const uint16_t command : {FIRST, NEXT}) {
        reply = one.call({.command = command, .kind = COMMAND_VALUE_NONE, .key = keyOf('e')});
        EXPECT_EQ(QRV_FAIL, reply.result());
        EXPECT_EQ(0, reply.header.keyLength);
    }
}

TEST_F(Commands, AScalarHasNoKey) {
    Connection one(path);
    EXPECT_EQ(0xDEADBEEFu, one.call({.command = SCALAR_GET, .key = {}}).header.number);
    EXPECT_EQ(BAD, one.call({.command = SCALAR_GET}).result());
}

TEST_F(Commands, TheHandlersCodeIsPassedOnAndAFailedGetCarriesNoValue) {
    Connection one(path);
    const Reply reply = one.call({.field = REFUSED_FIELD});
    EXPECT_EQ(22u, reply.result());
    EXPECT_EQ(COMMAND_VALUE_NONE, reply.header.kind);
    EXPECT_EQ(0u, reply.header.number);
    EXPECT_EQ(0x044B0005u, one.call({.command = SET, .field = REFUSED_FIELD}).result());
}

// ---- malformed frames that can be skipped ----

TEST_F(Commands, MalformedFramesGetAnErrorAndTheConnectionGoesOn) {
    const struct {
        const char *what;
        Frame frame;
    } cases[] = {
        {"version 0", {.version = 0}},
        {"version 2", {.version = 2}},
        {"kind 3", {.kind = 3}},
        {"kind 255", {.kind = 255}},
        {"reserved", {.reserved = 1}},
        {"id 0", {.command = NOTHING}},
        {"id without handler", {.command = NO_HANDLER}},
        {"id without shape", {.command = UNSHAPED}},
        {"id beyond the map", {.command = 8}},
        {"id 65535", {.command = 65535}},
        {"no key", {.key = {}}},
        {"key too short", {.key = Bytes(KEY_BYTES - 1)}},
        {"key too long", {.key = Bytes(KEY_BYTES + 1)}},
        {"very long key", {.key = Bytes(60000)}},
        {"key length beyond the frame", {.key = {1, 2, 3}, .keyLength = 500}},
        {"key length too small", {.keyLength = KEY_BYTES - 2}},
        {"first without key", {.command = FIRST, .kind = 0, .key = {}}},
        {"next without key", {.command = NEXT, .kind = 0, .key = {}}},
        {"next with a long key", {.command = NEXT, .kind = 0, .key = Bytes(28)}},
        {"walk with bytes", {.command = NEXT, .kind = 2}},
        {"bytes behind a walk's key", {.command = NEXT, .kind = 0, .bytes = {1}}},
        {"bytes behind a number", {.bytes = {1, 2, 3}}},
        {"bytes behind a get of bytes", {.field = BYTES_FIELD, .kind = 2, .number = 3, .bytes = {1, 2, 3}}},
        {"fewer bytes than said", {.command = SET, .field = BYTES_FIELD, .kind = 2, .number = 4, .bytes = {1, 2}}},
        {"more bytes than said", {.command = SET, .field = BYTES_FIELD, .kind = 2, .number = 2, .bytes = {1, 2, 3}}},
        {"far more bytes said", {.command = SET, .field = BYTES_FIELD, .kind = 2, .number = ~0u, .bytes = {1}}},
        {"a set without value", {.command = SET, .kind = 0}},
        {"a number for bytes, set", {.command = SET, .field = BYTES_FIELD, .kind = 1, .number = 0xFFFFFFFF}},
        {"a number for bytes, get", {.field = BYTES_FIELD, .kind = 1, .number = 1}},
        {"bytes for a number, set", {.command = SET, .kind = 2, .number = 3, .bytes = {1, 2, 3}}},
        {"bytes for a number, get", {.kind = 2, .number = 3}},
        {"bytes for a field beyond the mask", {.field = 32 + BYTES_FIELD, .kind = 2, .number = 3}},
        {"bytes for the greatest field", {.field = 0xFFFFFFFF, .kind = 2, .number = 3}},
    };
    Connection one(path);
    for (const auto &c : cases) {
        gCalls = 0;
        const Reply reply = one.call(c.frame);
        EXPECT_EQ(BAD, reply.result()) << c.what;
        EXPECT_EQ(0u, gCalls) << c.what;
        EXPECT_EQ(c.frame.requestId, reply.header.requestId) << c.what;
        EXPECT_EQ(c.frame.command, reply.header.commandId) << c.what;
        EXPECT_EQ(20u, reply.header.length) << c.what;
        EXPECT_EQ(OK, one.call({}).result()) << c.what;
    }
}

TEST_F(Commands, AFieldBeyondTheMaskIsANumber) {
    Connection one(path);
    EXPECT_EQ(OK, one.call({.field = 32 + BYTES_FIELD}).result());
    EXPECT_EQ(OK, one.call({.field = 0xFFFFFFFF}).result());
}

// ---- frames that cannot be skipped ----

TEST_F(Commands, ALengthThatNoFrameHasIsAnsweredAndClosesThatConnectionOnly) {
    for (const int64_t length : {0LL, 19LL, 65537LL, 0xFFFFFFFFLL}) {
        Connection bad(path), good(path);
        EXPECT_EQ(OK, good.call({}).result());
        bad.sendBytes(Frame{.length = length}.encode());
        const Reply reply = bad.reply();
        EXPECT_EQ(BAD, reply.result()) << length;
        EXPECT_EQ(0x01020304u, reply.header.requestId);
        EXPECT_TRUE(bad.isClosed()) << length;
        EXPECT_EQ(OK, good.call({}).result());
    }
}

TEST_F(Commands, AnImpossibleLengthAloneIsEnoughToBeAnswered) {
    Connection bad(path);
    bad.sendBytes({0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(BAD, bad.reply().result());
    EXPECT_TRUE(bad.isClosed());
}

TEST_F(Commands, RequestsBeforeAnImpossibleLengthAreStillAnswered) {
    Connection one(path);
    Bytes all = Frame{.requestId = 1}.encode();
    const Bytes bad = Frame{.requestId = 2, .length = 3}.encode();
    const Bytes never = Frame{.command = SET, .requestId = 3}.encode();
    all.insert(all.end(), bad.begin(), bad.end());
    all.insert(all.end(), never.begin(), never.end());
    one.sendBytes(all);
    EXPECT_EQ(OK, one.reply().result());
    EXPECT_EQ(BAD, one.reply().result());
    EXPECT_TRUE(one.isClosed());
    EXPECT_EQ(1u, gCalls);
}

TEST_F(Commands, TheShortestAndTheLongestFrameArePassedOn) {
    Connection one(path);
    EXPECT_EQ(OK, one.call({.command = SCALAR_GET, .key = {}}).result()); // 20 bytes after the length
    EXPECT_EQ(BAD, one.call({.key = Bytes(65516)}).result());            // 65536: a frame, with a wrong key
    EXPECT_EQ(OK, one.call({}).result());
}

// ---- streams ----

TEST_F(Commands, PipelinedRequestsAreAnsweredInOrder) {
    Connection one(path);
    Bytes all;
    for (uint32_t id = 0; id < 500; ++id) {
        const uint32_t field = id % 3 == 0 ? REFUSED_FIELD : NUMBER_FIELD;
        const Bytes frame = Frame{.field = field, .requestId = id}.encode();
        all.insert(all.end(), frame.begin(), frame.end());
    }
    one.sendBytes(all);
    for (uint32_t id = 0; id < 500; ++id) {
        const Reply reply = one.reply();
        ASSERT_EQ(id, reply.header.requestId);
        ASSERT_EQ(id % 3 == 0 ? 22u : OK, reply.result());
    }
}

TEST_F(Commands, AFrameThatComesByteByByteIsServedWhenItIsWhole) {
    Connection slow(path);
    const Bytes frame =
        Frame{.command = SET, .field = BYTES_FIELD, .kind = 2, .number = 3, .bytes = {1, 2, 3}}.encode();
    for (size_t i = 0; i < frame.size(); ++i) {
        EXPECT_EQ(0u, gCalls);
        slow.sendBytes({frame[i]});
        if (i == 3 || i == 23 || i + 2 == frame.size()) {
            Connection other(path);
            EXPECT_EQ(OK, other.call({.kind = 1}).result());
            gCalls = 0;
        }
    }
    EXPECT_EQ(OK, slow.reply().result());
    EXPECT_EQ((Bytes{1, 2, 3}), gSetBytes);
}

TEST_F(Commands, AClientThatHangsUpInTheMiddleOfAFrameDoesNoHarm) {
    for (const size_t part : {1u, 4u, 24u, 40u}) {
        Connection bad(path);
        Bytes frame = Frame{}.encode();
        frame.resize(part);
        bad.sendBytes(frame);
    }
    expectServed();
}

TEST_F(Commands, RequestsOfAClientThatShutItsSideAreStillAnswered) {
    Connection one(path);
    Bytes all = Frame{.requestId = 1}.encode();
    const Bytes second = Frame{.requestId = 2}.encode();
    all.insert(all.end(), second.begin(), second.end());
    one.sendBytes(all);
    ASSERT_EQ(0, shutdown(one.fd, SHUT_WR));
    EXPECT_EQ(1u, one.reply().header.requestId);
    EXPECT_EQ(2u, one.reply().header.requestId);
    EXPECT_TRUE(one.isClosed());
}

TEST_F(Commands, WholeRequestsOfAClientThatHungUpAreCarriedOutInOrder) {
    gHold = true;
    {
        Connection gone(path);
        Bytes all;
        for (uint32_t number = 1; number <= 100; ++number) {
            const Bytes frame = Frame{.command = SET, .number = number}.encode();
            all.insert(all.end(), frame.begin(), frame.end());
        }
        gone.sendBytes(all);
        while (gCalls == 0) {
            std::this_thread::yield();
        }
    }
    gHold = false;
    while (gCalls < 100) {
        std::this_thread::yield();
    }
    EXPECT_EQ(100u, gCalls);
    expectServed();
    EXPECT_EQ(100u, gSetNumber);
}

TEST_F(Commands, ManyClientsAreServedAtOnce) {
    std::vector<std::unique_ptr<Connection>> all;
    for (uint32_t i = 0; i < 100; ++i) {
        all.push_back(std::make_unique<Connection>(path));
        all.back()->sendBytes(Frame{.requestId = i}.encode());
    }
    for (uint32_t i = 100; i-- > 0;) {
        EXPECT_EQ(i, all[i]->reply().header.requestId);
    }
}

// Sends requests with large answers until the socket takes no more; result: how many whole ones went.
size_t flood(Connection &lazy) {
    const Bytes frame = Frame{.field = BIG_FIELD, .kind = 2, .number = 60000}.encode();
    size_t sent = 0;
    pollfd writable{lazy.fd, POLLOUT, 0};
    while (poll(&writable, 1, 200) == 1) { // it stays unwritable: the server does not read any more
        const ssize_t count = send(lazy.fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) {
            break;
        }
        EXPECT_EQ(static_cast<ssize_t>(frame.size()), count);
        ++sent;
    }
    return sent;
}

TEST_F(Commands, AClientThatNeverReadsIsNotReadFromAndHoldsNobodyUp) {
    Connection lazy(path);
    const size_t sent = flood(lazy);
    EXPECT_LT(gCalls, sent); // the rest waits unread
    int socketBytes = 0;
    socklen_t len = sizeof(socketBytes);
    ASSERT_EQ(0, getsockopt(lazy.fd, SOL_SOCKET, SO_SNDBUF, &socketBytes, &len));
    const uint32_t most = 256 * 1024 + 2 * static_cast<uint32_t>(socketBytes); // the server's bound, the socket's
    EXPECT_LE(gCalls, most / 60000 + 2);
    for (int i = 0; i < 20; ++i) {
        expectServed();
    }
}

TEST_F(Commands, AClientThatReadsLateGetsEveryAnswer) {
    Connection lazy(path);
    const size_t sent = flood(lazy);
    for (size_t i = 0; i < sent; ++i) {
        const Reply reply = lazy.reply();
        ASSERT_EQ(OK, reply.result());
        ASSERT_EQ(60000u, reply.bytes.size());
    }
    EXPECT_EQ(OK, lazy.call({}).result());
}

TEST_F(Commands, TooManyClientsAreHungUpOnAndTheOthersAreServed) {
    support::StderrCapture captured;
    std::vector<std::unique_ptr<Connection>> all;
    for (int i = 0; i < 512; ++i) {
        all.push_back(std::make_unique<Connection>(path));
    }
    EXPECT_EQ(OK, all.back()->call({}).result());
    {
        Connection extra(path);
        EXPECT_TRUE(extra.isClosed());
    }
    EXPECT_EQ(OK, all.front()->call({}).result());
    all.resize(10);
    EXPECT_EQ(OK, all.front()->call({}).result());
    expectServed();
}

// ---- rights ----

TEST_F(Commands, WithoutRightsEveryRequestIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    ASSERT_EQ(0, chmod(path.c_str(), 0666)); // to get as far as the server
    ASSERT_EQ(0, chmod(settings.root.path.c_str(), 0755));
    ASSERT_EQ(0, seteuid(65534));
    Connection other(path);
    ASSERT_EQ(0, seteuid(0));
    for (const Frame &frame : {Frame{}, Frame{.command = SET}, Frame{.command = 99}, Frame{.version = 9}}) {
        EXPECT_EQ(QRV_ERR_NOT_PERMITTED, other.call(frame).result());
    }
    EXPECT_EQ(0u, gCalls);
    expectServed();
}

class CommandsForReaders : public Commands {
protected:
    CommandsForReaders() : Commands({"host.read-others=yes"}) {}
};

TEST_F(CommandsForReaders, OthersMayReadAndWalkButNotSet) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    ASSERT_EQ(0, chmod(settings.root.path.c_str(), 0755));
    ASSERT_EQ(0, seteuid(65534));
    Connection other(path);
    ASSERT_EQ(0, seteuid(0));
    EXPECT_EQ(OK, other.call({}).result());
    EXPECT_EQ(OK, other.call({.command = NEXT, .kind = 0}).result());
    gCalls = 0;
    EXPECT_EQ(QRV_ERR_NOT_PERMITTED, other.call({.command = SET}).result());
    EXPECT_EQ(0u, gCalls);
    EXPECT_EQ(OK, other.call({}).result());
}

// ---- the socket's file ----

TEST_F(Commands, ASecondServerOnTheSamePathIsRefusedAndTheFirstGoesOn) {
    support::StderrCapture captured;
    EXPECT_NE(0, icmProcTcpInit("pbrcmdtask", "/tmp/cmd.socket", COMMANDS, std::size(COMMANDS)));
    EXPECT_NE(std::string::npos, captured.take().find(path + " is served by another process"));
    expectServed();
}

TEST_F(Commands, APathThatIsTooLongIsRefused) {
    support::StderrCapture captured;
    const std::string longPath = "/" + std::string(120, 'p');
    EXPECT_NE(0, icmProcTcpInit("pbrcmdtask", longPath.c_str(), COMMANDS, std::size(COMMANDS)));
    EXPECT_NE(std::string::npos, captured.take().find("too long for a socket"));
}

} // namespace
