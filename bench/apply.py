#!/usr/bin/env python3
"""A policy file of N nodes applied into the kernel, with the journal: how long `pbrctl apply` takes until the
kernel holds all of it, and what that costs.

    bench/apply.py [N ...]           default: 10 100 1000

Times are seconds as the operator waits, medians of ROUNDS fresh daemons; processor time is that of pbrctl and
of the daemon together. Kernel messages are those of the kernel device (nftables, routes, rules, next hops), as
`pbrctl show device` counts them.
"""
import os
import resource
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import netlab  # noqa: E402

ROUNDS = 3
HOPS = ["198.51.100.1", "203.0.113.1", "100.64.0.1"]


def policy(count, changed=None):
    """`count` nodes, one ACL each (UDP port 1000 + number), on two of three next hops in turn; the node
    `changed` has them the other way round."""
    acls, nodes = [], []
    for n in range(count):
        hops = [HOPS[n % 3], HOPS[(n + 1) % 3]]
        acls.append(f"  {1001 + n}: {{10: permit udp from any to any port {1000 + n}}}\n")
        nodes.append(f"    {n + 1}: {{acl: {1001 + n}, next-hops: [{', '.join(hops[::-1] if n + 1 == changed else hops)}]}}\n")
    return f"acls:\n{''.join(acls)}lists:\n  wan:\n{''.join(nodes)}bindings:\n  lan0: wan\n"


def processor_time(pid):
    with open(f"/proc/{pid}/stat") as file:
        words = file.read().rsplit(")", 1)[1].split()
    return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


def messages(daemon):
    return daemon.json("show", "device")["counters"]["kernelMessages"]


class Cost:
    """What applies of one kind took."""

    def __init__(self):
        self.seconds, self.processor, self.messages = [], [], []

    def measure(self, daemon, text, expected):
        before, child = processor_time(daemon.process.pid), resource.getrusage(resource.RUSAGE_CHILDREN)
        sent, begin = messages(daemon), time.monotonic()
        done = daemon.apply(text)
        self.seconds.append(time.monotonic() - begin)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.processor.append(processor_time(daemon.process.pid) - before + after.ru_utime - child.ru_utime +
                              after.ru_stime - child.ru_stime)
        self.messages.append(messages(daemon) - sent)
        assert expected in done.stdout, done.stdout

    def __str__(self):
        median = statistics.median
        return f"{median(self.seconds):.2f} ({median(self.processor):.2f}) | {median(self.messages):.0f}"


def rounds(lab, size):
    costs = [Cost(), Cost(), Cost()]
    for _ in range(ROUNDS):
        for up, (_, hop, _, _) in netlab.UPLINKS.items():  # a router at work knows its next hops
            netlab.run(f"ping -c 1 -W 1 {hop}", "rtr")
        daemon = netlab.Daemon(options=[f"policyroute.maxnodenum={max(128, size)}"]).start()
        try:
            costs[0].measure(daemon, policy(size), "done")
            device = daemon.json("show", "device")
            assert device["state"] == "live" and len(device["entries"]) == size, device["state"]
            assert all(entry["installed"] for entry in device["entries"]), "not all of it is in the kernel"
            for port in (1000, 1000 + size - 1):  # the first and the last entry steer
                arrivals = netlab.Arrivals(lab, 4, port)
                netlab.send(lab, 4, port, 20)
                assert arrivals.wait(20) == 20, f"port {port}: packets are lost"
                expected = next(up for up, hops in netlab.UPLINKS.items() if hops[1] == HOPS[(port - 1000) % 3])
                assert arrivals.by_uplink() == {expected: 20}, (port, arrivals.by_uplink())
                arrivals.close()
            costs[1].measure(daemon, policy(size), "nothing to do")
            costs[2].measure(daemon, policy(size, changed=size // 2), "done")
            daemon.ctl("check")  # kernel, device and policy agree, or it fails
        finally:
            daemon.ctl("device", "flush")
            daemon.close()
    return costs


def main():
    sizes = [int(word) for word in sys.argv[1:]] or [10, 100, 1000]
    if not all(1 <= size <= 1000 for size in sizes):
        sys.exit("1 to 1000 nodes: there are as many IPv4 ACLs")
    lab = netlab.Lab()
    try:
        print("| nodes | first apply: s (processor s) | kernel messages | unchanged: s | messages | one node changed: s | messages |")
        print("|---|---|---|---|---|---|---|")
        for size in sizes:
            print(f"| {size:,} | " + " | ".join(map(str, rounds(lab, size))) + " |", flush=True)
    finally:
        lab.close()


if __name__ == "__main__":
    netlab.enter_private()
    main()
