// Drives the real daemon with steps, and shows what it did as the model does.
//
// Commands go through the command map as the command server calls it, messages as bytes through the
// route socket, time ranges through the registered callbacks, time through the main loop.
#ifndef TESTS_MODEL_DRIVER_H
#define TESTS_MODEL_DRIVER_H

#include <string>
#include <vector>

#include "tests/model/image.h"
#include "tests/model/model.h"
#include "tests/model/step.h"

namespace model {

class Driver {
public:
    // A fresh platform and a started daemon.
    Driver(const Limits &limits, const std::vector<uint8_t> &translation);

    Answer command(const Command &command);
    void deliver(const std::vector<uint8_t> &read);
    void pass(uint32_t ms);
    void range(size_t binding, uint32_t action);
    void arm(const std::string &call, uint32_t nth, int64_t value);
    void answer(const std::string &call, int64_t value);
    void aclExists(uint32_t acl, bool exists);
    void selfLog(uint32_t value);
    void waiting(size_t link, uint32_t mark); // counted over interfaces in unit order
    size_t ranges() const;

    // The trace since the last take; addresses of records are written as the model names them.
    void takeTrace(std::vector<std::string> &trace);
    void write(Sink &sink) const;

private:
    int32_t maxFd_ = 0;
};

} // namespace model

#endif
