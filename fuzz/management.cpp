// Lines of the management socket, to the real server with every operation behind it, and the readers of
// probes and time ranges by themselves: what they accept, written and read again, is equal.
//
//   lines: each is sent as it is, and read as the members of a probe, of a time range, and as its words;
//   requests that would wait are not sent
#include <cstddef>
#include <cstdint>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "fuzz/fuzz_input.h"
#include "fuzz/whole.h"
#include "host/mgmt/mgmt_request.h"
#include "host/nqa/nqa_config.h"
#include "host/timerange/schedule_json.h"
#include "schedule/schedule_text.h"

namespace {

using nlohmann::json;

int connected() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = fuzz::wholeStart() + "/tmp/policyroutemgmt.socket";
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    fuzz::require(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0, "no connection");
    return fd;
}

// What the server answers until it has nothing more to say: the client's input has ended.
std::string answersOf(const std::string &lines) {
    const int fd = connected();
    std::string answers;
    for (size_t sent = 0; sent < lines.size();) {
        const ssize_t count = send(fd, lines.data() + sent, lines.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            break; // closed by the server: it has said why
        }
        sent += static_cast<size_t>(count);
    }
    (void)shutdown(fd, SHUT_WR);
    char room[16384];
    for (ssize_t got = 1; got > 0;) {
        got = recv(fd, room, sizeof(room), 0);
        answers.append(room, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
    close(fd);
    return answers;
}

void answersCheck(const std::string &answers) {
    for (size_t at = 0; at < answers.size();) {
        const size_t end = answers.find('\n', at);
        fuzz::require(end != std::string::npos, "an answer without its end");
        const json answer = json::parse(answers.substr(at, end - at), nullptr, false);
        fuzz::require(answer.is_object(), "an answer that is no object: " + answers.substr(at, end - at));
        const bool isEvent = !answer.contains("ok");
        fuzz::require(isEvent || answer["ok"] == true || (answer.contains("error") && !answer["error"].get<std::string>().empty()),
                      "a refusal without a reason");
        at = end + 1;
    }
}

template <class Read, class Write> void twice(const json &members, Read read, Write write) {
    try {
        const auto value = read(members);
        const json written = write(value);
        bool isSame = false;
        try {
            isSame = read(written) == value;
        } catch (const std::runtime_error &error) {
            fuzz::finding(written.dump() + " was written and is refused: " + error.what());
        }
        fuzz::require(isSame, "read again it differs: " + written.dump());
    } catch (const std::runtime_error &refusal) {
        fuzz::require(refusal.what()[0] != '\0', "a refusal without a reason");
    }
}

// Operations that wait, or that keep a connection open, as they are meant to.
bool isWaiting(const json &request) {
    const auto op = request.find("op");
    const json waiting = {"watch", "device.settle", "device.release", "confirm.wait", "shell"};
    return op != request.end() && std::find(waiting.begin(), waiting.end(), *op) != waiting.end();
}

void membersTry(const json &members) {
    twice(members, [](const json &each) { return host::nqaConfigRead(each, false); }, host::nqaConfigWrite);
    twice(members, [](const json &each) { host::scheduleMembersOnly(each); return host::scheduleRead(each); },
          host::scheduleMembers);
}

void wordsTry(const std::string &text) {
    const auto twiceText = [&](auto read, auto write) {
        try {
            const auto value = read(text);
            fuzz::require(read(write(value)) == value, "read again it differs: " + text);
        } catch (const std::runtime_error &) { // refused
        }
    };
    twiceText(schedule::daysRead, schedule::daysText);
    twiceText([](const std::string &each) { return schedule::timeOfDayRead(each, true); }, schedule::timeOfDayText);
    twiceText([](const std::string &each) { return schedule::localTimeRead(each); }, schedule::localTimeText);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    (void)fuzz::wholeStart();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    fuzz::Input input(pData, size);
    std::string sent;
    while (!input.ended()) {
        const std::string line = input.line();
        std::string error;
        const std::optional<json> request = host::mgmtRequestParse(line, &error);
        fuzz::require(request.has_value() == error.empty(), "neither a request nor an error, or both");
        if (request) {
            membersTry(*request);
        }
        wordsTry(line);
        sent += request && isWaiting(*request) ? "" : line + "\n";
    }
    answersCheck(answersOf(sent));
    answersCheck(answersOf(fuzz::WHOLE_EMPTY_REQUESTS));
    return 0;
}
