// Bytes to the command server, with the daemon's handlers behind it; the store is checked afterwards.
//
//   u8    1 through the server's socket, else straight into its parser; 2 a policy is bound; 4 the peer may
//         only read (parser only)
//   u8    how many cuts; then that many u8: bytes of each piece, the rest is the last one
//   then what the client sends
//
// Straight, each frame lies in memory of its own size, so that a read beyond it shows. Through the socket
// it is the real server with its task: it answers everything and closes when the client has ended.
#include <cstddef>
#include <cstdint>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "client/command_frame.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/stage.h"
#include "host/icm/command_call.h"
#include "host/option/option.h"
#include "platform/sil_task.h"
#include "tests/fake/fake.h"

// The host's own, beside those of the fake platform.
extern "C" int32_t fuzzHostIcmProcTcpInit(const char *, const char *, const IcmCommand *, uint32_t);
extern "C" int32_t fuzzHostCreateTask(const char *, uint32_t, uint32_t, SilTaskEntry entry, void *pArg1, void *pArg2,
                                      uint32_t *) {
    std::thread(entry, pArg1, pArg2).detach();
    return 0;
}

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char *SOCKET = "/frames.socket";

// Frames of an answer: whole ones, each as a client reads it.
void answersCheck(const Bytes &answers) {
    for (size_t at = 0; at < answers.size();) {
        size_t frameBytes = 0;
        fuzz::require(host::commandFrameTake(answers.data() + at, answers.size() - at, &frameBytes) ==
                          host::FrameTake::Whole, "an answer is no whole frame");
        CommandFrameHeader header;
        commandFrameDecode(answers.data() + at, &header);
        const uint32_t bytes = header.kind == COMMAND_VALUE_BYTES ? header.number : 0;
        fuzz::require(header.length == COMMAND_FRAME_HEADER_BYTES - 4 + header.keyLength + bytes, "lengths of an answer");
        at += frameBytes;
    }
}

// As the server's task takes a client's bytes, with each frame in memory of its own.
void straight(const std::vector<Bytes> &pieces, host::PeerRight right) {
    const fake::CommandServer server = fake::commandServers().at(0);
    const host::CommandMap map{server.pCommands, server.count, gIcmCommandShapes, gIcmCommandShapeCount};
    Bytes in, answers;
    for (const Bytes &piece : pieces) {
        in.insert(in.end(), piece.begin(), piece.end());
        for (;;) {
            const Bytes have(in.begin(), in.end());
            size_t frameBytes = 0;
            const host::FrameTake take = host::commandFrameTake(have.data(), have.size(), &frameBytes);
            if (take == host::FrameTake::BadLength) {
                host::commandAnswerBadLength(have.data(), have.size(), &answers);
                answersCheck(answers);
                return;
            }
            if (take == host::FrameTake::NeedMore) {
                break;
            }
            const Bytes frame(in.begin(), in.begin() + static_cast<ptrdiff_t>(frameBytes));
            host::commandAnswer(map, right, frame.data(), &answers);
            in.erase(in.begin(), in.begin() + static_cast<ptrdiff_t>(frameBytes));
        }
    }
    answersCheck(answers);
}

std::string serverPath() {
    static const std::string path = [] {
        const std::string root = fuzz::folderMake();
        fuzz::require(host::optionLoad({"host.root=" + root, "host.log=stderr"}, "/dev/null").empty(), "options");
        const fake::CommandServer server = fake::commandServers().at(0); // its commands are constant
        fuzz::require(fuzzHostIcmProcTcpInit("server", SOCKET, server.pCommands, server.count) == 0, "no server");
        return root + SOCKET;
    }();
    return path;
}

int connected() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, serverPath().c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    fuzz::require(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0, "no connection");
    return fd;
}

void received(int fd, int flags, Bytes &answers, bool &isOpen) {
    uint8_t room[4096];
    for (ssize_t got = 1; got > 0;) {
        do { // the fuzzer's own alarm: the server is still at work
            got = recv(fd, room, sizeof(room), flags);
        } while (got < 0 && errno == EINTR);
        answers.insert(answers.end(), room, room + std::max<ssize_t>(got, 0));
        isOpen = isOpen && got != 0;
    }
}

// The server closes when everything is answered, so the daemon is idle afterwards.
void throughTheSocket(const std::vector<Bytes> &pieces) {
    const int fd = connected();
    Bytes answers;
    bool isOpen = true;
    for (const Bytes &piece : pieces) {
        (void)send(fd, piece.data(), piece.size(), MSG_NOSIGNAL); // closed by the server: it has said why
        received(fd, MSG_DONTWAIT, answers, isOpen);
    }
    (void)shutdown(fd, SHUT_WR);
    received(fd, 0, answers, isOpen);
    close(fd);
    answersCheck(answers);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    fuzz::Input input(pData, size);
    const uint8_t settings = input.u8();
    fuzz::Stage stage({8, 48, 8});
    if ((settings & 2) != 0) {
        stage.havePolicy();
    }
    const size_t cuts = input.below(8);
    std::vector<uint8_t> sizes;
    for (size_t i = 0; i < cuts; ++i) {
        sizes.push_back(input.u8());
    }
    std::vector<Bytes> pieces;
    for (const uint8_t bytes : sizes) {
        pieces.push_back(input.bytes(bytes));
    }
    pieces.push_back(input.rest());
    if ((settings & 1) != 0) {
        throughTheSocket(pieces);
    } else {
        straight(pieces, (settings & 4) != 0 ? host::PeerRight::Read : host::PeerRight::Write);
    }
    stage.check();
    return 0;
}
