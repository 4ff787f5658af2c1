// The steps that drive the model and the daemon: values without behaviour.
#ifndef TESTS_MODEL_STEP_H
#define TESTS_MODEL_STEP_H

#include <cstdint>
#include <string>
#include <vector>

namespace model {

// Key of a command; interface commands use the unit, list commands the name.
struct Key {
    std::string list;      // at most 16 bytes that are sent
    uint16_t nameLen = 0;  // as sent; differs from the name's length in bad keys
    uint32_t node = 0;
    uint8_t mask = 0, hop = 0;
    uint32_t unit = 0;
    bool operator==(const Key &) const = default;
};

// A command of the command map.
struct Command {
    uint32_t id = 0, field = 0;
    bool hasKey = true;
    Key key;
    bool isBytes = false;      // the value is a byte string
    uint32_t number = 0;       // value of a set
    std::string bytes;         // value of a set
    uint32_t capacity = 0;     // of a get of bytes
    bool hasBuffer = true;     // of a get of bytes
};

// What a command answered.
struct Answer {
    uint32_t code = 0;
    bool hasNumber = false;    // a get wrote a number
    uint32_t number = 0;
    bool hasBytes = false;     // a get wrote bytes
    std::string bytes;
    bool hasKey = false;       // a walk wrote a key
    Key key;
    bool operator==(const Answer &) const = default;
};
std::string text(const Answer &answer);

// A route message.
struct Message {
    uint16_t type = 0;
    uint32_t lengthWord = 0;              // 0: the right one
    uint32_t word[4] = {};                // header words or payload words, by type
    uint8_t family = 1;
    uint8_t address[16] = {};
    std::string admin, test;
    uint8_t adminLen = 0, testLen = 0, status = 0;
    struct Attribute {
        uint16_t length, type;
        uint32_t data;
    };
    std::vector<Attribute> attributes;
    uint32_t cut = 0;                     // bytes left out at its end
};
std::vector<uint8_t> encode(const std::vector<Message> &messages);

// Waiting marks a link as waiting for its first rule (number 1 emptyAcl, 2 aclNoAction): a mark that the
// daemon reads and clears and never sets.
enum class StepKind { Command, Read, Pass, Range, Arm, Answer, Acl, SelfLog, Waiting };

struct Step {
    StepKind kind = StepKind::Pass;
    Command command;
    std::vector<Message> messages; // Read
    uint32_t number = 0;           // Pass: ms; Range: action; Arm: nth; Acl: exists; SelfLog: value; Waiting: which mark
    uint32_t index = 0;            // Range: which binding; Acl: the ACL; Waiting: which link
    std::string call;              // Arm, Answer
    int64_t value = 0;             // Arm, Answer
};
std::string text(const Step &step);

} // namespace model

#endif
