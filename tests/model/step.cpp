// Steps in words, and route messages as bytes.
#include "tests/model/step.h"

#include <cstdio>
#include <cstring>

namespace model {

namespace {

template <class Number> void put(std::vector<uint8_t> &bytes, size_t offset, Number value) {
    if (bytes.size() < offset + sizeof(value)) {
        bytes.resize(offset + sizeof(value));
    }
    memcpy(&bytes[offset], &value, sizeof(value));
}

std::string hex(const std::string &bytes) {
    std::string out;
    char two[3];
    for (char c : bytes) {
        snprintf(two, sizeof(two), "%02x", static_cast<unsigned char>(c));
        out += two;
    }
    return out;
}

std::vector<uint8_t> encode(const Message &m) {
    std::vector<uint8_t> out(24);
    switch (m.type) {
    case 32:
        put<uint32_t>(out, 28, m.word[0]);
        out.resize(48);
        for (const Message::Attribute &a : m.attributes) {
            const size_t at = out.size();
            put<uint16_t>(out, at, a.length);
            put<uint16_t>(out, at + 2, a.type);
            put<uint32_t>(out, at + 4, a.data);
        }
        break;
    case 34:
        put<uint32_t>(out, 28, m.word[0]);
        out.resize(48);
        break;
    case 97:
    case 108:
        put<uint16_t>(out, 6, static_cast<uint16_t>(m.word[1]));
        put<uint32_t>(out, 8, m.word[2]);
        put<uint32_t>(out, 12, m.word[3]);
        break;
    case 248:
    case 250:
    case 251:
        put<uint32_t>(out, 24, m.word[0]);
        put<uint32_t>(out, 28, m.word[1]);
        break;
    case 305:
    case 306:
    case 307:
        out.resize(48);
        memcpy(&out[24], m.address, 16);
        out[40] = m.family;
        put<uint32_t>(out, 44, m.word[0]);
        break;
    case 324:
        put<uint32_t>(out, 28, m.word[0]);
        break;
    case 349:
        out.resize(92);
        memcpy(&out[24], m.admin.data(), m.admin.size());
        memcpy(&out[56], m.test.data(), m.test.size());
        out[88] = m.adminLen;
        out[89] = m.testLen;
        out[90] = m.status;
        break;
    default:
        out.resize(32);
        break;
    }
    out.resize(out.size() - m.cut);
    put<uint32_t>(out, 0, m.lengthWord != 0 ? m.lengthWord : static_cast<uint32_t>(out.size()));
    put<uint16_t>(out, 4, m.type);
    while (out.size() % 4 != 0) {
        out.push_back(0);
    }
    return out;
}

std::string text(const Message &m) {
    std::string out = "type " + std::to_string(m.type);
    for (uint32_t word : m.word) {
        out += " " + std::to_string(word);
    }
    if (m.type >= 305 && m.type <= 307) {
        out += " family " + std::to_string(m.family) + " " + hex(std::string(reinterpret_cast<const char *>(m.address), 16));
    }
    if (m.type == 349) {
        out += " " + m.admin + "/" + std::to_string(m.adminLen) + " " + m.test + "/" + std::to_string(m.testLen) + " status " + std::to_string(m.status);
    }
    for (const Message::Attribute &a : m.attributes) {
        out += " {attribute " + std::to_string(a.type) + " length " + std::to_string(a.length) + " data " + std::to_string(a.data) + "}";
    }
    if (m.lengthWord != 0) {
        out += " length word " + std::to_string(m.lengthWord);
    }
    if (m.cut != 0) {
        out += " cut by " + std::to_string(m.cut);
    }
    return out;
}

std::string text(const Key &key) {
    return "key(\"" + key.list + "\"/" + std::to_string(key.nameLen) + " node " + std::to_string(key.node) + " mask " +
           std::to_string(key.mask) + " hop " + std::to_string(key.hop) + " unit " + std::to_string(key.unit) + ")";
}

const char *const COMMANDS[] = {"none",         "list first",   "list next",    "node first",    "node next",    "interface first",
                                "interface next", "next hop first", "next hop next", "list get",   "list set",     "list sync",
                                "node get",     "node set",     "node sync",    "interface get", "interface set", "interface sync",
                                "next hop get", "next hop set", "next hop sync", "scalar get",   "scalar set",   "scalar sync"};

} // namespace

std::vector<uint8_t> encode(const std::vector<Message> &messages) {
    std::vector<uint8_t> read;
    for (const Message &m : messages) {
        const std::vector<uint8_t> bytes = encode(m);
        read.insert(read.end(), bytes.begin(), bytes.end());
    }
    return read;
}

std::string text(const Answer &a) {
    char code[16];
    snprintf(code, sizeof(code), "0x%08x", a.code);
    std::string out = code;
    if (a.hasNumber) {
        out += " number " + std::to_string(a.number);
    }
    if (a.hasBytes) {
        out += " bytes " + hex(a.bytes);
    }
    if (a.hasKey) {
        out += " " + text(a.key);
    }
    return out;
}

std::string text(const Step &step) {
    const Command &c = step.command;
    switch (step.kind) {
    case StepKind::Command: {
        std::string out = std::string(COMMANDS[c.id]) + " field " + std::to_string(c.field) + " " + (c.hasKey ? text(c.key) : "no key");
        if (c.isBytes) {
            out += " bytes " + hex(c.bytes);
        } else {
            out += " number " + std::to_string(c.number);
        }
        return out + " capacity " + std::to_string(c.capacity) + (c.hasBuffer ? "" : " no buffer");
    }
    case StepKind::Read: {
        std::string out = "a read arrives:";
        for (const Message &m : step.messages) {
            out += " [" + text(m) + "]";
        }
        return out;
    }
    case StepKind::Pass: return "the main loop passes after " + std::to_string(step.number) + " ms";
    case StepKind::Range: return "time range binding " + std::to_string(step.index) + " reports " + std::to_string(step.number);
    case StepKind::Arm: return "call " + std::to_string(step.number) + " of " + step.call + " answers " + std::to_string(step.value);
    case StepKind::Answer: return step.call + " answers " + std::to_string(step.value) + " from now on";
    case StepKind::Acl: return "ACL " + std::to_string(step.index) + (step.number != 0 ? " exists" : " does not exist");
    case StepKind::SelfLog: return "pbrselflog " + std::to_string(step.number);
    case StepKind::Waiting: return "link " + std::to_string(step.index) + " waits for a first rule: " + std::to_string(step.number);
    }
    return "";
}

} // namespace model
