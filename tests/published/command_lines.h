// What the cases of commands share: keys, and the lines of the synchronisation service and of the pools.
#ifndef TESTS_PUBLISHED_COMMAND_LINES_H
#define TESTS_PUBLISHED_COMMAND_LINES_H

#include "tests/published/stage.h"

namespace published {

// The synchronisation service's lines of each table.
inline std::string listSync(const std::string &list, uint32_t value, uint32_t origin = 3) {
    return api_test::syncLine("list(\"" + list + "\")", 0x070A8001, origin, value);
}
inline std::string nodeSync(uint32_t field, uint32_t value, uint32_t origin = 3) {
    return api_test::syncLine("node(\"a\",10,mask=0,hop=0)", 0x08F04000 + field, origin, value);
}
inline std::string hopKey(uint32_t hop) { return "node(\"a\",10,mask=0,hop=" + std::to_string(hop) + ")"; }
inline std::string hopSync(uint32_t hop, uint32_t value, uint32_t origin = 3) {
    return api_test::syncLine(hopKey(hop), 0x0CC60001, origin, value);
}
inline std::string hopBytesSync(uint32_t field, const std::string &bytes, uint32_t origin = 3) {
    return api_test::syncBytesLine(hopKey(1), 0x0CC60000 + field, 0x80000000 + origin, bytes);
}
inline std::string ifSync(uint32_t value, uint32_t origin = 3) {
    return api_test::syncLine("if(7)", 0x04128001, 0x10000000 + origin, value);
}
inline std::string ifNameSync(const std::string &list, uint32_t origin = 3) {
    return api_test::syncBytesLine("if(7)", 0x04128002, 0x90000000 + origin, list);
}

inline const Lines POOLS_MADE = {"silMemPoolInit(\"pbr_if\", 48)",     "silMemPoolInit(\"pbr_list\", 64)",
                                 "silMemPoolInit(\"pbr_node\", 128)",  "silMemPoolInit(\"pbr_nexthop\", 512)",
                                 "silMemPoolInit(\"pbr_ifnode\", 6144)", "silMemPoolInit(\"pbr_nqa\", 512)",
                                 general("pbr allocate  memory success.")};
inline const Lines POOLS_FREED = {"silMemPoolDestroy(\"pbr_if\")",     "silMemPoolDestroy(\"pbr_list\")",
                                  "silMemPoolDestroy(\"pbr_node\")",   "silMemPoolDestroy(\"pbr_nexthop\")",
                                  "silMemPoolDestroy(\"pbr_ifnode\")", "silMemPoolDestroy(\"pbr_nqa\")",
                                  general("pbr free memory success.")};

inline const Key A = listKey("a"), A10 = nodeKey("a", 10), A10H1 = nodeKey("a", 10, 1), IF7 = unitKey(7);

} // namespace published

#endif
