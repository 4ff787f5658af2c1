// The store checker: walks everything and fails the test for whatever must never be. Used by every test
// after every operation.
//
// Rings are closed both ways and free of strangers; orders hold; owners are right; every record that is
// reached is a taken slot of its pool, and every taken slot is reached; use counts agree with the chains
// of bound interfaces; a link's node is alive and in the bound list.
#ifndef TESTS_SUPPORT_STORE_CHECKER_H
#define TESTS_SUPPORT_STORE_CHECKER_H

#include <cstdint>

// What a published oddity leaves behind and a test about it allows.
constexpr uint32_t STORE_ALLOW_COUNTS = 1; // use counts and chains differ (a binding that stopped half-way)
constexpr uint32_t STORE_ALLOW_LEAKS = 2;  // interface-node links that nothing reaches any more

void checkStore(uint32_t allow = 0);

#endif
