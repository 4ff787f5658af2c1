"""The policies that are measured, in numbers: N nodes, each with one rule of one kind. Each carrier (carriers.py) writes
them in its own words.

There are 1,000 ACL numbers an IP version for nodes with next hops. Of more nodes than that 1,000, the first and the last
among them, have next hops; those in between send out of an interface.
"""
from kit.lab import UPLINKS

KINDS = {
    "exact": "source address and destination port",
    "single": "one field, source prefixes",
    "ranges": "four fields: source and destination prefixes, source and destination port ranges",
}
WITH_NEXT_HOPS = 1000
ANY = {"src": None, "dst": None, "sport": None, "dport": None}


def rule(kind, family, number):
    """The fields of node `number` (from 1): {"src", "dst", "sport", "dport"}, None where any. Prefixes are texts, ports
    (first, last)."""
    high, low = number >> 8, number & 255
    host = f"10.{64 + (number >> 14)}.{number >> 6 & 255}.{(number & 63) << 2}" if family == 4 else f"2001:db8:1:{number:x}::"
    if kind == "exact":
        one = f"10.1.{high}.{low}/32" if family == 4 else f"2001:db8:1::{number:x}/128"
        return {"src": one, "dst": None, "sport": None, "dport": (1000 + number, 1000 + number)}
    if kind == "single":
        return {"src": host + ("/30" if family == 4 else "/64"), "dst": None, "sport": None, "dport": None}
    if kind == "ranges":
        # Neighbours in the list share a source prefix and overlap in ports, so that no single field decides.
        group, within = divmod(number - 1, 10)
        source = f"10.{64 + (group >> 8)}.{group & 255}.0/24" if family == 4 else f"2001:db8:1:{group:x}::/64"
        target = f"198.18.{within}.0/24" if family == 4 else f"2001:2:0:{within:x}::/64"
        return {"src": source, "dst": target, "sport": (2000 - group % 50, 2100 + group % 50),
                "dport": (1000 + number % 7, 2000 + number % 11)}
    raise ValueError(kind)


def packet(kind, family, number):
    """A packet that node `number` and no other matches: (destination, port, source, first of 64 source ports)."""
    fields = rule(kind, family, number)
    address = fields["src"].rsplit("/", 1)[0]
    if kind != "exact":
        address = address[:-1] + str(int(address[-1]) + 1) if family == 4 else address + "1"
    target = fields["dst"] or ("198.18.0.0/24" if family == 4 else "2001:2::/64")
    return (target.rsplit("/", 1)[0], (fields["dport"] or (1500, 1500))[0], address, 2001)


def stranger(family):
    """A packet that no node matches."""
    return ("198.18.0.0", 900, "10.0.0.10", 2001) if family == 4 else ("2001:2::", 900, "2001:db8:1::ffff:10", 2001)


def has_next_hops(number, count):
    """Whether node `number` of `count` has next hops; see above."""
    return count <= WITH_NEXT_HOPS or number == count or \
        (number - 1) * (WITH_NEXT_HOPS - 1) // (count - 1) != (number - 2) * (WITH_NEXT_HOPS - 1) // (count - 1)


def words(fields):
    """The rule as policyroute writes it."""
    def ports(which):
        if fields[which] is None:
            return ""
        first, last = fields[which]
        return f" port {first}" + (f"-{last}" if last != first else "")

    return (f"permit udp from {fields['src'] or 'any'}{ports('sport')} to {fields['dst'] or 'any'}{ports('dport')}")


def text(kind, family, count, ways=("upa",), interface="lan0", hops_of=None, last=None):
    """The policy file. `ways` are the uplinks that nodes go by, or `hops_of(number)` the next hops of one, as YAML; `last` is
    the source prefix of the last node, in place of its own rule."""
    acls, nodes, hops = [], [], 0
    for number in range(1, count + 1):
        if has_next_hops(number, count):
            hops += 1
            acl = (1000 if family == 4 else 3000) + hops
            addresses = hops_of(number) if hops_of else [UPLINKS[up][1 if family == 4 else 3] for up in ways]
            target = "next-hops: [" + ", ".join(each if each[0] == "{" else f'"{each}"' for each in addresses) + "]"
        else:
            acl, target = 5000 + number, "interface: upc"
        fields = {**ANY, "src": last} if last and number == count else rule(kind, family, number)
        acls.append(f'  {acl}: {{10: "{words(fields)}"}}\n')
        nodes.append(f"    {number}: {{acl: {acl}, {target}}}\n")
    return f"acls:\n{''.join(acls)}lists:\n  wan:\n{''.join(nodes)}bindings:\n  {interface}: wan\n"
