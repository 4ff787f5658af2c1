// What comes from the network is understood exactly, or not at all.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "host/nqa/nqa_packet.h"

namespace {

using namespace host;

constexpr uint64_t SECRET = 0x0123456789abcdefull;
constexpr uint16_t IDENTIFIER = 0xbeef;
const NqaToken TOKEN{SECRET, 77, 0x1'0000'0005ull};

std::vector<uint8_t> replyOf(int version) {
    const NqaEchoBytes bytes = nqaEchoWrite(version, IDENTIFIER, TOKEN);
    std::vector<uint8_t> reply(bytes.begin(), bytes.end());
    reply[0] = version == 4 ? 0 : 129;
    if (version == 4) {
        std::vector<uint8_t> header(24, 0); // with an option
        header[0] = 0x46;
        reply.insert(reply.begin(), header.begin(), header.end());
    }
    return reply;
}

auto read(int version, const std::vector<uint8_t> &bytes) {
    return nqaEchoReplyRead(version, bytes.data(), bytes.size(), IDENTIFIER, SECRET);
}

TEST(NqaPacket, AnEchoReplyBringsTheTokenBack) {
    EXPECT_EQ(read(4, replyOf(4)), TOKEN);
    EXPECT_EQ(read(6, replyOf(6)), TOKEN);
}

TEST(NqaPacket, TheChecksumOfAnEchoRequestIsRight) {
    const NqaEchoBytes bytes = nqaEchoWrite(4, IDENTIFIER, TOKEN);
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    }
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    EXPECT_EQ(sum, 0xffffu);
    EXPECT_EQ(bytes[0], 8);
    EXPECT_EQ(nqaEchoWrite(6, IDENTIFIER, TOKEN)[0], 128);
}

TEST(NqaPacket, EveryOtherByteAndEveryOtherLengthIsNoReply) {
    for (const int version : {4, 6}) {
        const std::vector<uint8_t> good = replyOf(version);
        const size_t icmp = version == 4 ? 24 : 0;
        for (size_t len = 0; len < good.size(); len++) {
            EXPECT_FALSE(read(version, {good.begin(), good.begin() + static_cast<long>(len)})) << len;
        }
        std::vector<uint8_t> longer = good;
        longer.push_back(0);
        EXPECT_FALSE(read(version, longer));
        for (size_t at = icmp; at < good.size(); at++) {
            if (at == icmp + 2 || at == icmp + 3) {
                continue; // the checksum is the kernel's to check
            }
            std::vector<uint8_t> other = good;
            other[at] ^= 1;
            const auto token = read(version, other);
            EXPECT_FALSE(token && *token == TOKEN) << version << " " << at;
        }
    }
}

TEST(NqaPacket, HeaderLengthsThatLieAreNoReply) {
    std::vector<uint8_t> bytes = replyOf(4);
    for (int first = 0; first < 256; first++) {
        bytes[0] = static_cast<uint8_t>(first);
        EXPECT_EQ(read(4, bytes).has_value(), first == 0x46) << first;
    }
    EXPECT_FALSE(read(4, std::vector<uint8_t>(20, 0x4f)));
}

TEST(NqaPacket, AnyBytesAreReadWithoutHarm) {
    std::mt19937 random(4711);
    for (int i = 0; i < 200000; i++) {
        std::vector<uint8_t> bytes(random() % 80);
        for (uint8_t &byte : bytes) {
            byte = static_cast<uint8_t>(random());
        }
        const int version = i % 2 == 0 ? 4 : 6;
        EXPECT_FALSE(read(version, bytes));
        EXPECT_FALSE(nqaEchoQuoteRead(version, bytes.data(), bytes.size(), IDENTIFIER, SECRET));
        uint32_t status = 0;
        (void)nqaHttpStatus(std::string(bytes.begin(), bytes.end()), &status);
    }
}

TEST(NqaPacket, AQuotedRequestIsFoundAlsoWithPadding) {
    const NqaEchoBytes request = nqaEchoWrite(4, IDENTIFIER, TOKEN);
    std::vector<uint8_t> quote(request.begin(), request.end());
    EXPECT_EQ(nqaEchoQuoteRead(4, quote.data(), quote.size(), IDENTIFIER, SECRET), TOKEN);
    quote.resize(128, 0);
    EXPECT_EQ(nqaEchoQuoteRead(4, quote.data(), quote.size(), IDENTIFIER, SECRET), TOKEN);
    EXPECT_FALSE(nqaEchoQuoteRead(4, quote.data(), 8, IDENTIFIER, SECRET));
    EXPECT_FALSE(nqaEchoQuoteRead(4, quote.data(), quote.size(), IDENTIFIER, SECRET + 1));
}

TEST(NqaPacket, AnHttpStatusIsReadFromTheFirstLineInAnyPieces) {
    const std::string answer = "HTTP/1.1 204 No Content\r\n\r\n";
    uint32_t status = 0;
    for (size_t len = 0; len < 13; len++) {
        EXPECT_EQ(nqaHttpStatus(answer.substr(0, len), &status), NqaHttp::More) << len;
    }
    for (size_t len = 13; len <= answer.size(); len++) {
        status = 0;
        EXPECT_EQ(nqaHttpStatus(answer.substr(0, len), &status), NqaHttp::Status) << len;
        EXPECT_EQ(status, 204u);
    }
    EXPECT_EQ(nqaHttpStatus("HTTP/1.0 503\r\n", &status), NqaHttp::Status);
    EXPECT_EQ(status, 503u);
}

TEST(NqaPacket, WhatIsNoStatusLineIsStrangeAtOnce) {
    uint32_t status = 0;
    for (const char *pText : {"S", "SSH-2.0-x\r\n", "HTTP/2 200 OK\r\n", "HTTP/1.1  200 OK", "HTTP/1.1 20x OK\r\n",
                              "HTTP/1.1 2000 OK\r\n", "HTTP/1.1 099 OK\r\n", "http/1.1 200 OK\r\n", "\r\nHTTP/1.1 200"}) {
        EXPECT_EQ(nqaHttpStatus(pText, &status), NqaHttp::Strange) << pText;
    }
    EXPECT_EQ(nqaHttpStatus(std::string("HTTP/1.1 200\0 OK", 16), &status), NqaHttp::Strange);
}

} // namespace
