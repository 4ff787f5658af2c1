#!/usr/bin/env python3
"""What a packet pays for the number of decisions: processor time of a send, out of a namespace in which the daemon has
installed N decisions, by packets without a mark and with the marks of decisions in turn, with the gotos among their
rules and without them. Medians of several runs; the cost of a send without any decision is the first line.

    bench/decisions.py [N ...]        default: 1 4 8 16 64 256 1000
"""
import os
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import netlab  # noqa: E402

RUNS = 5
SENDER = r"""
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e9 + t.tv_nsec;
}
int main(int argc, char **argv) { /* marks in turn, 1000 sends each */
    struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(9)};
    inet_pton(AF_INET, "203.0.113.200", &to.sin_addr);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    double spent = 0;
    long sent = 0;
    for (int round = 0; round < 100 / (argc - 1) + 1; round++)
        for (int i = 1; i < argc; i++) {
            unsigned mark = strtoul(argv[i], 0, 0);
            setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark);
            double begin = now();
            for (int n = 0; n < 1000; n++)
                if (sendto(fd, "", 1, 0, (struct sockaddr *)&to, sizeof to) != 1) { perror("sendto"); return 1; }
            spent += now() - begin;
            sent += 1000;
        }
    printf("%.1f\n", spent / sent);
}
"""


def prepare():
    """One link that swallows packets, with a neighbour known for ever for each decision."""
    netlab.run("ip netns add rtr")
    words = ("link set lo up", "link add d0 type veth peer name d1", "link set d1 up", "addr add 10.9.0.1/16 dev d0",
             "link set d0 up", "link add lan0 type veth peer name lan1", "link set lan0 up", "link set lan1 up",
             "route add default via 10.9.255.1 dev d0", "neigh add 10.9.255.1 lladdr 02:00:00:00:00:01 nud permanent dev d0",
             *(f"neigh add {hop(n)} lladdr 02:00:00:00:00:02 nud permanent dev d0" for n in range(1, 4096)))
    netlab.run(["ip", "-batch", "-"], "rtr", input="\n".join(words) + "\n")


def hop(number):
    return f"10.9.{1 + number // 250}.{1 + number % 250}"


def policy(count):
    acls = "".join(f"  {1000 + n}: {{10: permit udp from any to any port {n}}}\n" for n in range(1, count + 1))
    nodes = "".join(f"    {n}: {{acl: {1000 + n}, next-hops: [{hop(n)}]}}\n" for n in range(1, count + 1))
    return f"acls:\n{acls}lists:\n  wan:\n{nodes}bindings:\n  lan0: wan\n" if count else "lists: {}\n"


def cost(program, marks):
    times = []
    for _ in range(RUNS):
        times.append(float(netlab.run([program] + [hex(mark) for mark in marks], "rtr").stdout))
    return statistics.median(times)


def gotos_remove():
    lines = [line for line in netlab.run("ip -j rule", "rtr").stdout.split("{") if '"goto"' in line]
    words = ""
    for line in lines:
        fields = dict(part.split(":")[:2] for part in line.replace('"', "").rstrip("},] \n").split(",") if ":" in part)
        words += f"rule del pref {fields['priority']} goto {fields['goto']}\n"
    netlab.run(["ip", "-batch", "-"], "rtr", input=words)
    return len(lines)


def main():
    netlab.enter_private()
    program = "/run/send"
    subprocess.run(["cc", "-O2", "-x", "c", "-", "-o", program], input=SENDER, text=True, check=True)
    prepare()
    daemon = netlab.Daemon(options=("host.neighbour-probe-ms=60000", "policyroute.maxnodenum=4096")).start()
    print(f"no decision: {cost(program, [0]):.0f} ns a send\n")
    print("| decisions | gotos | no mark | marked | no mark, in a row | marked, in a row |\n|---|---|---|---|---|---|", flush=True)
    for count in [int(word) for word in sys.argv[1:]] or [1, 4, 8, 16, 64, 256, 1000]:
        daemon.apply(policy(count))
        daemon.until(lambda n=count: sum(each["installed"] for each in daemon.json("show", "device")["decisions"]) == n, 20)
        step = max(1, count // 40)
        marks = [number << 20 for number in range(1, count + 1, step)]
        tree = cost(program, [0]), cost(program, marks)
        daemon.kill()
        gotos = gotos_remove()
        row = cost(program, [0]), cost(program, marks)
        print(f"| {count} | {gotos} | {tree[0]:.0f} | {tree[1]:.0f} | {row[0]:.0f} | {row[1]:.0f} |", flush=True)
        daemon.start()
    daemon.apply(policy(0))
    daemon.ctl("device", "flush")
    daemon.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
