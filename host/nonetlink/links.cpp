// The links of a host without netlink: asked for one by one when somebody wants to know. Nothing is followed: a
// change is seen at the next question and told to nobody. See host/ifnet/ifnet.h.
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "host/ifnet/ifnet.h"
#include "host/ifnet/ifnet_state.h"

namespace host {

namespace {

// Flags of an interface by its name; none: there is no such interface, or it cannot be asked for.
std::optional<unsigned> flagsOf(const std::string &name) {
    ifreq request = {};
    if (name.size() >= sizeof(request.ifr_name)) {
        return std::nullopt;
    }
    std::memcpy(request.ifr_name, name.data(), name.size());
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return std::nullopt;
    }
    const bool isKnown = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    close(fd);
    return isKnown ? std::optional(static_cast<unsigned>(static_cast<unsigned short>(request.ifr_flags)))
                   : std::nullopt;
}

std::optional<IfnetLink> linkOf(uint32_t unit, const std::string &name) {
    const std::optional<unsigned> flags = flagsOf(name);
    if (unit == 0 || !flags) {
        return std::nullopt;
    }
    constexpr unsigned UP = IFF_UP | IFF_RUNNING;
    constexpr unsigned WITHOUT_NEIGHBOURS = IFF_NOARP | IFF_LOOPBACK | IFF_POINTOPOINT;
    return IfnetLink{unit, name, (*flags & UP) == UP, (*flags & WITHOUT_NEIGHBOURS) == 0, 0};
}

} // namespace

std::optional<IfnetLink> ifnetByUnit(uint32_t unit) {
    char name[IF_NAMESIZE];
    return if_indextoname(unit, name) == nullptr ? std::nullopt : linkOf(unit, name);
}

std::optional<IfnetLink> ifnetByName(const std::string &name) {
    return linkOf(if_nametoindex(name.c_str()), name);
}

std::vector<IfnetLink> ifnetAll() {
    std::vector<IfnetLink> all;
    struct if_nameindex *pNames = if_nameindex();
    for (auto *pName = pNames; pName != nullptr && pName->if_index != 0; ++pName) {
        if (const std::optional<IfnetLink> link = linkOf(pName->if_index, pName->if_name)) {
            all.push_back(*link);
        }
    }
    if (pNames != nullptr) {
        if_freenameindex(pNames);
    }
    return all;
}

std::string ifnetName(uint32_t unit) {
    char name[IF_NAMESIZE];
    return if_indextoname(unit, name) == nullptr ? "if" + std::to_string(unit) : name;
}

std::string ifnetStart() {
    return "";
}

// Nothing is remembered and nothing is followed.
void ifnetPolicyForget(uint32_t) {}
void ifnetOnChange(std::function<void(const IfnetLink &)>) {}
void ifnetRefresh(uint32_t) {}

uint64_t ifnetResyncs() {
    return 0;
}

} // namespace host
