// A world for tests of the kernel device: network namespaces, a hand-driven event loop, a view that
// tests write themselves, and the device on these.
#ifndef TESTS_UNIT_HOST_KERNEL_WORLD_H
#define TESTS_UNIT_HOST_KERNEL_WORLD_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/device/kernel/kernel_device.h"

namespace kernel_test {

using host::IpAddress;

IpAddress address(const std::string &text); // IPv4 or IPv6

// A network namespace; the calling thread can step into it.
class Net {
public:
    Net();  // a new one
    ~Net();
    Net(const Net &) = delete;
    // Runs something with the calling thread inside.
    void in(const std::function<void()> &body) const;
    // A shell command inside; its output. A failing command fails the test.
    std::string run(const std::string &command) const;
    bool succeeds(const std::string &command) const;
    std::string path() const; // for `ip link ... netns PATH`
    void sysctl(const std::string &name, const std::string &value) const; // "ipv4/ip_forward"

private:
    int fd_ = -1;
    int home_ = -1;
};

// Runs posts, timers and descriptors only when told to; time is virtual.
class HandLoop : public host::EventLoop {
public:
    void fdAdd(int fd, uint32_t, std::function<void(uint32_t)> ready) override { fds_[fd] = std::move(ready); }
    void fdDel(int fd) override { fds_.erase(fd); }
    void post(std::function<void()> work) override { posts_.push_back(std::move(work)); }
    TimerId timerStart(std::chrono::milliseconds delay, std::function<void()> work) override;
    void timerStop(TimerId id) override;
    bool onThread() const override { return true; }

    void runPosts();
    void readAll();                                // what waits on descriptors, and what it posts
    void advance(std::chrono::milliseconds by);    // runs timers that are due, in order
    bool hasTimers() const { return !timers_.empty(); }

private:
    struct Timer {
        std::chrono::milliseconds at;
        std::function<void()> work;
    };
    std::map<int, std::function<void(uint32_t)>> fds_;
    std::vector<std::function<void()>> posts_;
    std::map<TimerId, Timer> timers_;
    TimerId next_ = 1;
    std::chrono::milliseconds now_{0};
};

// What tests say of lists, ACLs and routes. Links are the kernel's, in the namespace of the caller.
class World {
public:
    // Rules in text, numbered 10, 20 ...
    void acl(uint32_t number, const std::vector<std::string> &rules);
    void route(const std::string &nextHop, const std::string &ifName, const std::string &gateway = "");
    void noRoute(const std::string &nextHop);

    // Entries of the view. Each marks its list.
    host::RedirectEntry &entry(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl);
    void nextHops(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl,
                  const std::vector<std::string> &hops, uint8_t priority = 0);
    void outIf(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl,
               const std::string &out);
    void kind(const std::string &list, const std::string &ifName, uint32_t node, uint32_t acl,
              PbrRedirectKind kind, uint8_t priority = 0, uint8_t ipVer = 0);
    void unbind(const std::string &list, const std::string &ifName);
    void mark(const std::string &list) { marked.insert(list); }

    host::ProgramEnv env();
    host::KernelDeviceHooks hooks();

    host::DesiredState view;
    std::set<std::string> marked;
    std::map<uint32_t, std::shared_ptr<const host::AclRules>> acls;
    std::map<std::pair<int, IpAddress>, host::FibEgress> routes;
    std::set<std::pair<std::string, uint32_t>> drops; // nodes that drop with nothing usable
    std::set<uint32_t> defaultTables; // tables but the main one that have a default route
    std::map<uint32_t, host::IfnetLink> fakeLinks; // when not empty: these instead of the kernel's
    bool undetermined = false;
    int takes = 0; // of the view
    host::KernelOptions options;
    HandLoop loop;
};

uint32_t unitOf(const std::string &ifName); // kernel interface index here

// Every test has a namespace of its own for its router and steps back at its end.
class KernelTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The device of the test, started.
    host::KernelDevice &device();
    void restart(); // the process ends and begins again: nothing of the kernel is touched
    void store() { device().storeChanged(); }
    // Lets timers pass until the device has read back and tidied up.
    void quiet();

    std::string run(const std::string &command) { return router_->run(command); }
    nlohmann::json json(const std::string &command) { return nlohmann::json::parse(run(command)); }
    std::string nft() { return run("nft list table inet policyroute"); }
    nlohmann::json ourRules(int family = 4);
    // A pair of interfaces, `name` here and `name`-far in the other namespace, with addresses.
    void cable(const std::string &name, const Net &far, const std::vector<std::string> &here,
               const std::vector<std::string> &there);

    // cable() for each of these, which lead to a namespace of the test's, and addresses beside 192.0.2.1 and 198.51.100.1.
    void uplinks(const Net &far, const std::vector<std::string> &names);
    // Makes ACLs 1601 ... and as many nodes of list wan on lan0 with them; each is added to the device.
    void eightBound();

    World world_;
    std::unique_ptr<Net> router_;
    std::unique_ptr<host::KernelDevice> device_;
    int home_ = -1;
};

} // namespace kernel_test

#endif
