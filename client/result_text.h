// The result codes of the command socket in words: what happened and what to do about it.
#ifndef CLIENT_RESULT_TEXT_H
#define CLIENT_RESULT_TEXT_H

#include <cstdint>
#include <string>

#include "core/pbr_types.h"

namespace client {

struct ResultText {
    uint32_t code;
    const char *pName;    // the code's name, as in core/pbr_types.h
    const char *pMeaning; // what happened
    const char *pAdvice;  // what to do; empty for success
};

// The text of a published code, valid for the life of the process; null for any other. Lock: none
const ResultText *resultTextGet(uint32_t code);

// "meaning (0x044B0005)"; for a code that is not published "the platform refused it (0x...)". Lock: none
std::string resultDescribe(uint32_t code);

// What to do about a code; a general advice for one that is not published. Lock: none
std::string resultAdvice(uint32_t code);

} // namespace client

#endif
