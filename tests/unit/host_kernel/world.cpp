// See world.h.
#include "world.h"

#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <linux/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

// After linux/if.h, with which net/if.h does not agree.
extern "C" unsigned if_nametoindex(const char *);
extern "C" char *if_indextoname(unsigned, char *);

namespace kernel_test {

using namespace host;

IpAddress address(const std::string &text) {
    IpAddress bytes{};
    const int family = text.find(':') == std::string::npos ? AF_INET : AF_INET6;
    EXPECT_EQ(inet_pton(family, text.c_str(), bytes.data()), 1) << text;
    return bytes;
}

namespace {

int hereFd() { return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC); }

int versionOf(const std::string &text) { return text.find(':') == std::string::npos ? 4 : 6; }

} // namespace

// ---- namespaces ----

Net::Net() {
    home_ = hereFd();
    EXPECT_EQ(unshare(CLONE_NEWNET), 0);
    fd_ = open("/proc/thread-self/ns/net", O_RDONLY); // inherited by ip, for its path
    EXPECT_EQ(setns(home_, CLONE_NEWNET), 0);
    run("ip link set lo up");
}

Net::~Net() {
    close(fd_);
    close(home_);
}

void Net::in(const std::function<void()> &body) const {
    const int before = hereFd();
    ASSERT_EQ(setns(fd_, CLONE_NEWNET), 0);
    body();
    ASSERT_EQ(setns(before, CLONE_NEWNET), 0);
    close(before);
}

std::string Net::run(const std::string &command) const {
    std::string output;
    in([&] {
        FILE *pPipe = popen((command + " 2>&1").c_str(), "r");
        std::array<char, 4096> part{};
        while (size_t got = fread(part.data(), 1, part.size(), pPipe)) {
            output.append(part.data(), got);
        }
        EXPECT_EQ(pclose(pPipe), 0) << command << "\n" << output;
    });
    return output;
}

bool Net::succeeds(const std::string &command) const {
    bool isDone = false;
    in([&] { isDone = system((command + " >/dev/null 2>&1").c_str()) == 0; });
    return isDone;
}

std::string Net::path() const { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_); }

void Net::sysctl(const std::string &name, const std::string &value) const {
    in([&] {
        std::ofstream file("/proc/sys/net/" + name);
        file << value;
        file.flush();
        EXPECT_TRUE(file.good()) << name;
    });
}

// ---- loop ----

EventLoop::TimerId HandLoop::timerStart(std::chrono::milliseconds delay, std::function<void()> work) {
    timers_[next_] = {now_ + delay, std::move(work)};
    return next_++;
}

void HandLoop::timerStop(TimerId id) { timers_.erase(id); }

void HandLoop::runPosts() {
    while (!posts_.empty()) {
        std::vector<std::function<void()>> now;
        now.swap(posts_);
        for (auto &work : now) {
            work();
        }
    }
}

void HandLoop::readAll() {
    runPosts();
    for (const auto &[fd, ready] : std::map(fds_)) {
        pollfd waiting = {fd, POLLIN, 0};
        if (poll(&waiting, 1, 0) == 1) {
            ready(POLLIN);
        }
    }
    runPosts();
}

void HandLoop::advance(std::chrono::milliseconds by) {
    const std::chrono::milliseconds end = now_ + by;
    for (;;) {
        readAll();
        auto next = timers_.end();
        for (auto it = timers_.begin(); it != timers_.end(); ++it) {
            if (it->second.at <= end && (next == timers_.end() || it->second.at < next->second.at)) {
                next = it;
            }
        }
        if (next == timers_.end()) {
            break;
        }
        now_ = std::max(now_, next->second.at);
        const std::function<void()> work = next->second.work;
        timers_.erase(next);
        work();
    }
    now_ = end;
}

// ---- world ----

uint32_t unitOf(const std::string &ifName) { return if_nametoindex(ifName.c_str()); }

namespace {

std::optional<IfnetLink> kernelLink(uint32_t unit) {
    ifreq request = {};
    if (if_indextoname(unit, request.ifr_name) == nullptr) {
        return std::nullopt;
    }
    const std::string name = request.ifr_name;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool isKnown = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    close(fd);
    const bool isUp = isKnown && (request.ifr_flags & (IFF_UP | IFF_RUNNING)) == (IFF_UP | IFF_RUNNING);
    return IfnetLink{unit, name, isUp};
}

} // namespace

void World::acl(uint32_t number, const std::vector<std::string> &rules) {
    auto parsed = std::make_shared<AclRules>();
    uint32_t ruleNumber = 0;
    for (const std::string &text : rules) {
        std::string error;
        const std::optional<AclRule> rule = aclRuleParse(number, text, &error);
        ASSERT_TRUE(rule) << error;
        (*parsed)[ruleNumber += 10] = *rule;
    }
    acls[number] = parsed;
}

void World::route(const std::string &nextHop, const std::string &ifName, const std::string &gateway) {
    uint32_t unit = unitOf(ifName);
    for (const auto &[number, link] : fakeLinks) {
        unit = link.name == ifName ? number : unit;
    }
    FibEgress egress;
    egress.ifIndex = unit;
    egress.hasGateway = !gateway.empty();
    if (egress.hasGateway) {
        egress.gateway = address(gateway);
    }
    routes[{versionOf(nextHop), address(nextHop)}] = egress;
}

void World::noRoute(const std::string &nextHop) { routes.erase({versionOf(nextHop), address(nextHop)}); }

RedirectEntry &World::entry(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl) {
    uint32_t unit = unitOf(ifName);
    for (const auto &[number, link] : fakeLinks) {
        unit = link.name == ifName ? number : unit;
    }
    marked.insert(list);
    RedirectEntry &made = view.lists[list][{unit, node}];
    made = {};
    made.list = list;
    made.ifUnit = unit;
    made.nodeIndex = node;
    made.aclNum = acl;
    return made;
}

void World::nextHops(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl,
                     const std::vector<std::string> &hops, uint8_t priority) {
    RedirectEntry &made = entry(list, ifName, node, acl);
    made.kind = PBR_REDIRECT_NEXT_HOPS;
    made.ecmp = hops.size() > 1;
    made.newIpPri = priority;
    made.configuredCount = static_cast<uint32_t>(hops.size());
    for (const std::string &hop : hops) {
        made.ipVer = versionOf(hop) == 6 ? 2 : 1;
        made.nextHops.push_back(address(hop));
    }
}

void World::outIf(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl,
                  const std::string &out) {
    RedirectEntry &made = entry(list, ifName, node, acl);
    made.kind = PBR_REDIRECT_OUT_IF;
    made.outIfUnit = unitOf(out);
    for (const auto &[number, link] : fakeLinks) {
        made.outIfUnit = link.name == out ? number : made.outIfUnit;
    }
}

void World::kind(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl,
                 PbrRedirectKind kind, uint8_t priority, uint8_t ipVer) {
    RedirectEntry &made = entry(list, ifName, node, acl);
    made.kind = kind;
    made.newIpPri = priority;
    made.ipVer = ipVer;
}

void World::unbind(const std::string &list, const std::string &ifName) {
    const uint32_t unit = unitOf(ifName);
    std::erase_if(view.lists[list], [&](const auto &item) { return item.first.first == unit; });
    marked.insert(list);
}

ProgramEnv World::env() {
    ProgramEnv env;
    env.rules = [this](uint32_t number) {
        auto it = acls.find(number);
        return it == acls.end() ? nullptr : it->second;
    };
    env.link = [this](uint32_t unit) -> std::optional<IfnetLink> {
        if (fakeLinks.empty()) {
            return kernelLink(unit);
        }
        auto it = fakeLinks.find(unit);
        return it == fakeLinks.end() ? std::nullopt : std::optional(it->second);
    };
    env.egress = [this](uint32_t vrfid, int version, const IpAddress &to) -> std::optional<FibEgress> {
        if (vrfid != 0 && to == IpAddress{}) {
            return defaultTables.count(vrfid) != 0 ? std::optional(FibEgress{}) : std::nullopt;
        }
        auto it = routes.find({version, to});
        return it == routes.end() ? std::nullopt : std::optional(it->second);
    };
    env.drops = [this](const std::string &list, uint32_t node) { return drops.count({list, node}) != 0; };
    return env;
}

KernelDeviceHooks World::hooks() {
    KernelDeviceHooks hooks;
    hooks.options = options;
    hooks.pLoop = &loop;
    hooks.env = env();
    hooks.take = [this](DesiredState &state, bool all) {
        ++takes;
        std::vector<std::string> changed;
        for (const auto &[list, entries] : all ? view.lists : decltype(view.lists){}) {
            marked.insert(list);
        }
        for (const std::string &list : marked) {
            auto it = view.lists.find(list);
            const bool isGone = it == view.lists.end() || it->second.empty();
            const auto before = state.lists[list];
            const auto after = isGone ? decltype(before){} : it->second;
            if (!(before == after)) {
                changed.push_back(list);
            }
            state.lists[list] = after;
            if (isGone) {
                state.lists.erase(list);
            }
        }
        marked.clear();
        return changed;
    };
    hooks.get = [this](uint32_t unit, uint32_t acl) -> std::optional<RedirectEntry> {
        for (const auto &[list, entries] : view.lists) {
            for (const auto &[key, found] : entries) {
                if (key.first == unit && found.aclNum == acl) {
                    return found;
                }
            }
        }
        return std::nullopt;
    };
    hooks.isUndetermined = [this] { return undetermined; };
    return hooks;
}

// ---- fixture ----

void KernelTest::SetUp() {
    home_ = hereFd();
    router_ = std::make_unique<Net>();
    const int fd = open(router_->path().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(setns(fd, CLONE_NEWNET), 0);
    close(fd);
    router_->sysctl("ipv4/ip_forward", "1");
    router_->sysctl("ipv6/conf/all/forwarding", "1");
    router_->sysctl("ipv6/conf/default/accept_dad", "0");
    router_->sysctl("ipv6/conf/all/accept_dad", "0");
}

void KernelTest::TearDown() {
    device_.reset();
    ASSERT_EQ(setns(home_, CLONE_NEWNET), 0);
    close(home_);
}

KernelDevice &KernelTest::device() {
    if (!device_) {
        restart();
    }
    return *device_;
}

void KernelTest::restart() {
    device_.reset();
    device_ = std::make_unique<KernelDevice>(world_.hooks());
    EXPECT_EQ(device_->start(), "");
    world_.loop.runPosts();
    for (const auto &[list, entries] : world_.view.lists) {
        world_.marked.insert(list);
    }
}

void KernelTest::quiet() { world_.loop.advance(std::chrono::milliseconds(200)); }

nlohmann::json KernelTest::ourRules(int family) {
    nlohmann::json ours = nlohmann::json::array();
    for (const auto &rule : json("ip -N -j -" + std::to_string(family) + " rule show")) {
        if (rule.contains("protocol") && rule["protocol"] == "206") {
            ours.push_back(rule);
        }
    }
    return ours;
}

void KernelTest::uplinks(const Net &far, const std::vector<std::string> &names) {
    for (const std::string &name : names) {
        cable(name, far, {}, {});
    }
    run("ip address add 192.0.2.254/24 dev up1");
    run("ip address add 198.51.100.254/24 dev up2");
}

void KernelTest::eightBound() {
    for (uint32_t node = 1; node <= 8; ++node) {
        world_.acl(1600 + node, {"permit udp from any to any port " + std::to_string(node)});
        world_.nextHops("wan", "lan0", node, 1600 + node, {"198.51.100.1"});
        EXPECT_EQ(device().add(unitOf("lan0"), 1600 + node, nullptr), 0);
    }
}

void KernelTest::cable(const std::string &name, const Net &far, const std::vector<std::string> &here,
                       const std::vector<std::string> &there) {
    run("ip link add " + name + " type veth peer name " + name + "-far netns " + far.path());
    far.sysctl("ipv6/conf/" + name + "-far/accept_dad", "0");
    for (const std::string &text : here) {
        run("ip address add " + text + " dev " + name + (versionOf(text) == 6 ? " nodad" : ""));
    }
    for (const std::string &text : there) {
        far.run("ip address add " + text + " dev " + name + "-far" + (versionOf(text) == 6 ? " nodad" : ""));
    }
    run("ip link set " + name + " up");
    far.run("ip link set " + name + "-far up");
    // The kernel says that there is carrier from a thread of its own, late on a busy machine.
    for (int i = 0; i < 5000 && !kernelLink(unitOf(name)).value_or(IfnetLink{}).up; i++) {
        (void)poll(nullptr, 0, 1);
    }
}

} // namespace kernel_test
