// The daemon on the recording fake platform, for fuzzers: commands, reads, time, and the store checker.
//
// Whatever fails a check of the fake or of the store checker is a finding.
#ifndef FUZZ_STAGE_H
#define FUZZ_STAGE_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/model/driver.h"

namespace fuzz {

class Stage {
public:
    // A fresh platform and a started daemon, which prints all its texts.
    explicit Stage(const model::Limits &limits = {8, 24, 8});

    model::Driver driver;

    void setNumber(uint32_t command, const model::Key &key, uint32_t field, uint32_t number);
    void setBytes(uint32_t command, const model::Key &key, uint32_t field, const std::string &bytes);

    // Lists a, b and c with nodes of every kind, bound to interfaces 3, 7 and 9.
    void havePolicy();

    // The mutex is free and the store is right; allow: as for checkStore.
    void check(uint32_t allow = 0);
};

} // namespace fuzz

#endif
