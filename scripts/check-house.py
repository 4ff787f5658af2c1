#!/usr/bin/env python3
"""Checks the daemon's folders: includes against docs/layers.txt, calls that the daemon must not make,
and the walls between folders. Prints every finding; exit status 1 when there is one."""
import fnmatch
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()
DAEMON = ("core", "store", "rtmsg", "nexthop", "hw", "api")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)
# What the daemon may not call (the platform does these), and the files that may, with the reason.
FORBIDDEN = re.compile(
    r"(?<![\w.>:])(malloc|calloc|realloc|free|socket|recv|recvfrom|send|sendto|select|poll|sleep|usleep|"
    r"nanosleep|time|gettimeofday|clock_gettime|fork|system|pthread_\w+|abort|exit)\s*\(|\bnew\s+\w|"
    r"\bstd::(thread|mutex|string|vector|map)\b")
PRINTING = re.compile(r"(?<![\w.>:])(printf|puts|perror|fprintf|putchar)\s*\(")
MAY_PRINT = ("core/pbr_start.cpp", "core/pbr_show*.cpp", "rtmsg/pbr_rt_sock.cpp", "core/pbr_main.cpp")
MAY_CALL = {"core/pbr_main.cpp": {"sleep"}}
findings = []


def layers():
    rows, allowed = [], set()
    for line in (root / "docs/layers.txt").read_text().splitlines():
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        if line.startswith("allow "):
            match = re.match(r"allow (\S+) -> (\S+): \S+", line)
            if match is None:
                findings.append(f"docs/layers.txt: an exception needs 'allow FILE -> HEADER: reason': {line}")
            else:
                allowed.add(match.groups())
            continue
        number, pattern = line.split()
        rows.append((int(number), pattern))
    return rows, allowed


def layer_of(rows, name):
    for number, pattern in rows:
        if fnmatch.fnmatch(name, pattern):
            return number
    return None


def strip(text):
    text = re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)
    return re.sub(r'"(?:\\.|[^"\\\n])*"', '""', text)


rows, allowed = layers()
files = [p for folder in DAEMON + ("platform",) for p in sorted((root / folder).glob("*")) if p.suffix in (".h", ".cpp")]
for path in files:
    name = path.relative_to(root).as_posix()
    own = layer_of(rows, name)
    text = path.read_text()
    if own is None:
        findings.append(f"{name}: no layer in docs/layers.txt")
        continue
    for include in INCLUDE.findall(text):
        folder = include.split("/")[0]
        if folder not in DAEMON + ("platform",):
            findings.append(f"{name}: includes {include}, outside the daemon and the seam")
            continue
        other = layer_of(rows, include)
        if other is None or not (root / include).exists():
            findings.append(f"{name}: includes {include}, which does not exist or has no layer")
        elif other > own and (name, include) not in allowed:
            findings.append(f"{name} (layer {own}) includes {include} (layer {other}), upward")
    if name.startswith("platform/"):
        continue
    code = strip(text)
    for match in FORBIDDEN.finditer(code):
        word = match.group(1) or match.group(0)
        if word not in MAY_CALL.get(name, ()):
            findings.append(f"{name}: must not use {word}")
    if not any(fnmatch.fnmatch(name, pattern) for pattern in MAY_PRINT):
        for match in PRINTING.finditer(code):
            findings.append(f"{name}: must not print ({match.group(1)})")

# The walls of the other folders.
for folder, forbidden, exceptions in (
        # host/journal reads sets and makes them again: it knows keys, fields and codes, as a client does.
        ("host", DAEMON + ("cli", "tests"), {"hw/pbr_redirect_view.h", "api/pbr_keys.h", "core/pbr_types.h"}),
        ("aclrule", DAEMON + ("platform", "host", "client", "cli", "schedule", "tests"), set()),
        ("schedule", DAEMON + ("platform", "host", "client", "cli", "aclrule", "tests"), set()),
        ("client", ("core", "store", "rtmsg", "nexthop", "hw", "host", "cli", "tests"), {"core/pbr_types.h"}),
        ("cli", ("core", "store", "rtmsg", "nexthop", "hw", "host", "tests"), {"core/pbr_types.h"})):
    for path in sorted((root / folder).rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        for include in INCLUDE.findall(path.read_text()):
            if include.split("/")[0] in forbidden and include not in exceptions:
                findings.append(f"{path.relative_to(root).as_posix()}: must not include {include}")

# A subject is a header with its source; subjects never need each other in a circle, and none is overlong.
def subject(name):
    return re.sub(r"\.(h|cpp)$", "", name)


needs, OVERLONG = {}, 600
for folder in DAEMON + ("platform", "aclrule", "schedule", "host", "client", "cli"):
    for path in sorted((root / folder).rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        name, text = path.relative_to(root).as_posix(), path.read_text()
        if text.count("\n") > OVERLONG:
            findings.append(f"{name}: more than {OVERLONG} lines")
        needed = needs.setdefault(subject(name), set())
        needed.update(subject(include) for include in INCLUDE.findall(text))
        needed.discard(subject(name))


def circle(name, way, done):
    """The first circle that is met on from that subject, as its subjects in order."""
    if name in way:
        return way[way.index(name):] + [name]
    if name not in done:
        done.add(name)
        for needed in sorted(needs.get(name, ())):
            found = circle(needed, way + [name], done)
            if found:
                return found
    return None


for name in sorted(needs):
    found = circle(name, [], set())
    if found and found[0] == name:
        findings.append("includes in a circle: " + " -> ".join(found))

for finding in findings:
    print(finding)
sys.exit(1 if findings else 0)
