// Whole reads of the route socket, as the daemon gets them; the store is checked after each.
//
//   u8       1 a policy is bound; 2 members of aggregations need entries of their own; 4 messages about
//            cards are about this system; 8 the device refuses entries; 16 no ACL exists
//   then, until the end: u16 bytes of a read (15 bits), its top bit: a second passes; the read
#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_input.h"
#include "fuzz/stage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    fuzz::Input input(pData, size);
    const uint8_t settings = input.u8();
    fuzz::Stage stage;
    stage.driver.answer("aggAnswer", (settings & 2) != 0 ? 1 : 0);
    stage.driver.answer("qrvSelfSysIndex", (settings & 4) != 0 ? 24 : 1);
    if ((settings & 1) != 0) {
        stage.havePolicy();
    }
    if ((settings & 8) != 0) {
        stage.driver.answer("aclIfSetApi", 12);
    }
    if ((settings & 16) != 0) {
        stage.driver.answer("aclLstGetApi", 1);
    }
    while (!input.ended()) {
        const uint16_t word = input.u16();
        stage.driver.deliver(input.bytes(word & 0x7FFF));
        stage.driver.pass((word & 0x8000) != 0 ? 1000 : 0);
        stage.check();
    }
    return 0;
}
