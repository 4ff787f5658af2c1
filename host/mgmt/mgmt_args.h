// Members of a management request, checked: each function takes one member or refuses the request with
// a text that names the member and what it may be (std::runtime_error, as handlers report refusals).
#ifndef HOST_MGMT_MGMT_ARGS_H
#define HOST_MGMT_MGMT_ARGS_H

#include <cstdint>
#include <initializer_list>
#include <string>

#include <nlohmann/json.hpp>

namespace host {

// Refuses members other than "op" and these, so that a misspelt one is not passed over. Lock: none
void mgmtArgsOnly(const nlohmann::json &request, std::initializer_list<const char *> names);

// A whole number least..most that must be there. Lock: none
uint32_t mgmtArgNumber(const nlohmann::json &request, const char *name, uint32_t least, uint32_t most);

// The same with a value for a member that is not there. Lock: none
uint32_t mgmtArgNumber(const nlohmann::json &request, const char *name, uint32_t least, uint32_t most,
                       uint32_t absent);

// A text that must be there. Lock: none
std::string mgmtArgText(const nlohmann::json &request, const char *name);

// true or false; `absent` for a member that is not there. Lock: none
bool mgmtArgFlag(const nlohmann::json &request, const char *name, bool absent);

// An object that must be there. Lock: none
const nlohmann::json &mgmtArgObject(const nlohmann::json &request, const char *name);

// A member's name as a number least..most: for objects whose keys are numbers. Lock: none
uint32_t mgmtKeyNumber(const std::string &key, const char *what, uint32_t least, uint32_t most);

} // namespace host

#endif
