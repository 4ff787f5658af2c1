#!/usr/bin/env python3
"""The demo behind scripts/demo.sh: two uplinks, a LAN host and a server, and examples/two-uplinks.yaml."""
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import netlab  # noqa: E402

rows = []
POLICY = os.path.join(netlab.ROOT, "examples", "two-uplinks.yaml")
NAMES = {"upa": "uplink A", "upb": "uplink B", None: "nothing arrived"}


def step(what, seen, ok):
    rows.append((what, seen, ok))
    print(f"  {'ok  ' if ok else 'FAIL'} {what}: {seen}", flush=True)


def say(text):
    print(f"\n== {text}", flush=True)


def spread(counts):
    return ", ".join(f"{count} by {NAMES.get(up, up)}" for up, count in sorted(counts.items())) or "nothing arrived"


def count(lab, family, port, expected):
    arrivals = netlab.Arrivals(lab, family, port)
    netlab.send(lab, family, port, 50, ports=5)
    arrivals.wait(50)
    counts = arrivals.by_uplink()
    arrivals.close()
    return spread(counts), counts == {expected: 50}


def web(lab):
    """One real TCP connection to port 80; result: the uplink that its packets took, by the ISP's counters."""
    import socket
    listener = lab.socket("srv", socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind((netlab.SERVER[4], 80))
    listener.listen()
    before = {up: rx_bytes(isp) for up, isp in netlab.ISP.items()}
    with lab.socket("lan", socket.AF_INET, socket.SOCK_STREAM) as client:
        client.settimeout(5)
        client.connect((netlab.SERVER[4], 80))
        server, _ = listener.accept()
        client.sendall(b"x" * 200000)
        received = 0
        while received < 200000:
            received += len(server.recv(65536))
        server.close()
    listener.close()
    carried = {up: rx_bytes(isp) - before[up] for up, isp in netlab.ISP.items()}
    return max(carried, key=carried.get), received


def rx_bytes(isp):
    return int(netlab.run(["ip", "netns", "exec", isp, "cat", "/sys/class/net/eth0/statistics/rx_bytes"]).stdout)


def main():
    say("building the network: lan0 [router] with uplink A (198.51.100.1) and uplink B (203.0.113.1)")
    lab = netlab.Lab()
    daemon = netlab.Daemon(options=["host.neighbour-probe-ms=400"])
    try:
        for up in ("upa", "upb"):
            netlab.sysctl("rtr", f"ipv4/neigh/{up}/retrans_time_ms", 100)
            netlab.sysctl("rtr", f"ipv6/neigh/{up}/retrans_time_ms", 100)
        daemon.start()
        ok = show(lab, daemon)
        if "--keep" in sys.argv:
            keep(daemon)
        return ok
    finally:
        daemon.close()
        lab.close()


def show(lab, daemon):
    say("before the policy: the routing table sends everything by uplink B")
    for family in (4, 6):
        step(f"IPv{family} port 443 without policy", *count(lab, family, 443, "upb"))

    say(f"pbrctl apply {os.path.relpath(POLICY, netlab.ROOT)}")
    print(daemon.ctl("apply", POLICY).stdout, end="")
    daemon.until(lambda: count(lab, 4, 443, "upa")[1] and count(lab, 6, 443, "upa")[1])
    print(daemon.ctl("show", "next-hops").stdout, end="")

    say("with the policy: web traffic takes uplink A, the rest the routing table's uplink B")
    for family in (4, 6):
        step(f"IPv{family} port 443 by policy", *count(lab, family, 443, "upa"))
        step(f"IPv{family} port 53 by routing table", *count(lab, family, 53, "upb"))
    uplink, received = web(lab)
    step("TCP connection to port 80", f"{received} bytes by {NAMES.get(uplink, uplink)}", uplink == "upa")

    say("pbrctl shell pbrInfoShow: the daemon's own report")
    report = daemon.ctl("shell", "pbrInfoShow").stdout
    lines = [line for line in report.replace("\r", "\n").split("\n") if line.strip()]
    print("\n".join(lines))
    hops = sum("--lan0 " in line and " wan--" in line for line in lines)
    step("the report has each next hop", f"{hops} of list wan on lan0", hops == 4)

    say("uplink A's next hop falls silent (a packet each millisecond meanwhile)")
    moved, took, result = watch(lab, lab.silence, "upb")
    step("failover to uplink B", f"after {took * 1000:.0f} ms, {result['lost']} of {result['sent']} packets lost",
         moved and took < 4)
    step("IPv6 fails over too", *settle(lab, 6, "upb"))
    print(daemon.ctl("show", "next-hops").stdout, end="")

    say("the next hop comes back")
    moved, took, result = watch(lab, lab.unsilence, "upa")
    step("back on uplink A", f"after {took * 1000:.0f} ms, {result['lost']} of {result['sent']} packets lost",
         moved and result["lost"] == 0)
    step("IPv6 comes back too", *settle(lab, 6, "upa"))

    say("the daemon is killed: packets keep flowing by the policy")
    daemon.kill()
    step("IPv4 port 443 without daemon", *count(lab, 4, 443, "upa"))
    daemon.start()
    stream = netlab.Stream(lab, 4)
    time.sleep(0.2)
    daemon.ctl("apply", POLICY)
    time.sleep(0.3)
    result = stream.stop()
    step("restarted and applied again", f"{result['lost']} of {result['sent']} packets lost, {spread(result['uplinks'])}",
         result["lost"] == 0 and set(result["uplinks"]) == {"upa"})

    width = max(len(row[0]) for row in rows)
    say("summary")
    for what, seen, ok in rows:
        print(f"  {what:<{width}}  {'seen' if ok else 'NOT SEEN':<8}  {seen}")
    return all(row[2] for row in rows)


def watch(lab, change, uplink):
    """A packet each millisecond across a change of uplink A; result: whether packets then come by `uplink`, after how
    many seconds, and what the stream counted."""
    stream = netlab.Stream(lab, 4)
    time.sleep(0.5)
    begin = time.monotonic()
    change("upa")
    moved, _ = stream.wait_uplink(uplink, 10)
    took = time.monotonic() - begin
    time.sleep(0.5)
    return moved, took, stream.stop()


def settle(lab, family, uplink):
    result = ("nothing arrived", False)
    for _ in range(40):
        result = count(lab, family, 443, uplink)
        if result[1]:
            break
        time.sleep(0.1)
    return result


def keep(daemon):
    build = os.path.relpath(daemon.build)
    print(f"""
The network keeps running. In another terminal:
  sudo nsenter -t {os.getpid()} -m -- bash                # the demo's own mount namespace, then:
  ip netns exec rtr {build}/pbrctl --root {daemon.root} show next-hops
  ip netns exec rtr nft list table inet policyroute      # what is installed
  ip netns exec rtr ip rule ; ip netns exec rtr ip nexthop
  ip netns exec ispa ip link set eth0 down                # cut uplink A's link
Press Enter to end it.""", flush=True)
    sys.stdin.readline()


if __name__ == "__main__":
    netlab.enter_private()
    sys.exit(0 if main() else 1)
