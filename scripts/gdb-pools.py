"""Debugger commands that print the store: gdb -x scripts/gdb-pools.py build/debug/policyrouted

    pbr-lists     every list with its nodes and next hops
    pbr-ready     the lists on the ready table, most recently queued first
    pbr-ifs       every list's bound interfaces with their links
"""
import gdb


def records(head, record, member):
    kind = gdb.lookup_type(record)
    offset = next(field.bitpos // 8 for field in kind.fields() if field.name == member)
    link = head["pNext"]
    while link != head.address:
        yield (link.cast(gdb.lookup_type("unsigned long")) - offset).cast(kind.pointer()).dereference()
        link = link["pNext"]


def name(record, field, length):
    data = bytes(int(record[field][i]) for i in range(int(record[length])))
    return data.decode("latin-1")


def info():
    return gdb.parse_and_eval("gPbrInfo")


class Lists(gdb.Command):
    def __init__(self):
        super().__init__("pbr-lists", gdb.COMMAND_DATA)

    def invoke(self, _argument, _tty):
        for each in records(info()["usedTable"], "PbrListEntry", "usedLink"):
            word = int(each["statusRefCnt"])
            print(f"list {name(each, 'name', 'nameLen')} status {word >> 6} refCnt {word & 15}")
            for node in records(each["nodeList"], "PbrNodeEntry", "listLink"):
                print(f"  node {node['nodeIndex']} acl {node['aclNum']} version {int(node['policyRouteIpVer'])} "
                      f"vrf {node['vrfid']} outIf {node['outIfUnit']} best {node['pPbrNhopBest']}")
                for hop in records(node["nextHopList"], "PbrNextHopEntry", "nodeLink"):
                    address = " ".join(f"{int(hop['nextHop'][i]):02x}" for i in range(16))
                    print(f"    next hop {int(hop['nextHopIndex'])} {address} arp {int(hop['nexthopArpState'])} "
                          f"cur {int(hop['curSelected'])} last {int(hop['lastSelected'])} at {hop.address}")


class Ready(gdb.Command):
    def __init__(self):
        super().__init__("pbr-ready", gdb.COMMAND_DATA)

    def invoke(self, _argument, _tty):
        for each in records(info()["readyTable"], "PbrListEntry", "readyLink"):
            print(name(each, "name", "nameLen"))


class Interfaces(gdb.Command):
    def __init__(self):
        super().__init__("pbr-ifs", gdb.COMMAND_DATA)

    def invoke(self, _argument, _tty):
        for each in records(info()["usedTable"], "PbrListEntry", "usedLink"):
            for entry in records(each["auxList"], "PbrIfEntry", "boundLink"):
                print(f"unit {entry['ifUnit']} list {name(entry, 'pbrName', 'pbrNameLen')}")
                for link in records(entry["ifNodeList"], "PbrIfNodeEntry", "ifLink"):
                    print(f"  node {link['pPbrNode']['nodeIndex']} hwStatus {(int(link['hwWord']) >> 29) & 3}")


Lists()
Ready()
Interfaces()
