#!/usr/bin/env python3
"""Runs the static checks and prints what each found. Called by scripts/check-static.sh.

    scripts/check-static.py BUILD [--only TOOL[,TOOL]] [--since REVISION] [FILE ...]

BUILD is a configured build folder; its compile_commands.json says how each source is compiled. Without FILE
everything in git is checked, with --since what differs from that revision. A header is checked through a
source that includes it. Findings are lines `FILE:LINE: text [check]`; the last lines are a table of what was
done. Exit status 1 when there is a finding, 2 when a tool could not do its work.

An exception stands beside its line, names its check and has a reason:
    // NOLINT(check): reason                          clang-tidy, also NOLINTNEXTLINE, NOLINTBEGIN
    // cppcheck-suppress check ; reason               cppcheck, the line above
    # shellcheck disable=SC1234 # reason              shellcheck
    # noqa: reason                                    pyflakes
"""
import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import resource
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCES, HEADERS = (".cpp", ".c"), (".h",)
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)
FINDING = re.compile(r"^(?P<file>/[^:]+):(?P<line>\d+)(?::\d+)?: (?:warning|error|fatal error): (?P<text>.*)$")
LONGEST = 140  # characters of a line of code; texts and tables of documents are as long as they are
CODE = SOURCES + HEADERS + (".py", ".sh", ".cmake")
AS_THEY_ARE = ("fuzz/corpus/",)  # inputs, byte for byte
LONG_LINES = ("tests/", "fuzz/", "packaging/")  # published texts and bytes stand on one line there, as they are
TESTS = ("tests/", "bench/")
# The static analyzer takes several times the rest where the standard library is used: it looks at the daemon, and at
# all but tests when it is asked to (--deep).
ANALYZER = "clang-analyzer-*,-clang-analyzer-optin.performance.Padding"  # fields stand in the order that is published
ANALYZED = ("core/", "store/", "rtmsg/", "nexthop/", "hw/", "api/")
JOBS = os.cpu_count() or 1


class ToolError(Exception):
    """A tool did not do its work; its words."""


def run(command, statuses=(0, 1), **options):
    done = subprocess.run(command, cwd=ROOT, text=True, capture_output=True, check=False, **options)
    if done.returncode not in statuses:
        raise ToolError(f"{' '.join(map(str, command[:3]))} ...: exit status {done.returncode}\n{done.stdout}{done.stderr}")
    return done


def git(*arguments):
    return run(["git", *arguments], statuses=(0,)).stdout.splitlines()


def text_of(name):
    return (ROOT / name).read_text(encoding="utf-8", errors="surrogateescape")


def first_line(name):
    with open(ROOT / name, "rb") as stream:
        return stream.readline(100)


def is_shell(name):
    return name.endswith((".sh", ".bash-completion")) or re.match(rb"#!.*\b(ba)?sh\b", first_line(name)) is not None


def is_python(name):
    return name.endswith(".py") or re.match(rb"#!.*\bpython3?\b", first_line(name)) is not None


class Compiled:
    """The compile database: each source of ours once, and which source stands for a header."""

    def __init__(self, build):
        self.folder = pathlib.Path(build).resolve()
        path = self.folder / "compile_commands.json"
        if not path.exists():
            raise ToolError(f"{path}: not there; configure first (cmake --preset release)")
        self.entries = {}
        for entry in json.loads(path.read_text(encoding="utf-8")):
            file = pathlib.Path(entry["file"])
            if file.is_relative_to(ROOT) and not file.is_relative_to(ROOT / "build"):
                self.entries.setdefault(file.relative_to(ROOT).as_posix(), entry)
        self.includes = {}

    def included(self, name):
        """The headers of ours that a file includes itself."""
        if name not in self.includes:
            found = []
            for include in INCLUDE.findall(text_of(name)):
                beside = (pathlib.PurePosixPath(name).parent / include).as_posix()
                found += [each for each in (include, beside) if (ROOT / each).is_file()][:1]
            self.includes[name] = found
        return self.includes[name]

    def reaches(self, name, header, seen):
        for include in self.included(name):
            if include == header:
                return True
            if include not in seen:
                seen.add(include)
                if self.reaches(include, header, seen):
                    return True
        return False

    def source_of(self, header):
        own = re.sub(r"\.h$", ".cpp", header)
        if own in self.entries:
            return own
        for source in self.entries:
            if self.reaches(source, header, set()):
                return source
        return None

    def sources_for(self, files):
        """The sources to look at so that each of these files is seen; those that are not built here are left out."""
        wanted = {name if name.endswith(SOURCES) else self.source_of(name)
                  for name in files if name.endswith(SOURCES + HEADERS)}
        return sorted(each for each in wanted if each in self.entries)


def compiler_findings(output):
    found = []
    for line in output.splitlines():
        match = FINDING.match(line)
        if match:
            file = pathlib.Path(match["file"])
            name = file.relative_to(ROOT).as_posix() if file.is_relative_to(ROOT) else str(file)
            found.append(f"{name}:{match['line']}: {match['text']}")
    return found


# ---- the checks: each takes the names of files and gives findings; None where there is nothing to look at ----

def house(files, compiled):
    """Layers, walls, circles, forbidden calls, lengths of files: of the whole tree, in a second."""
    del files, compiled
    return len(git("ls-files", "*.cpp", "*.h")), run(["scripts/check-house.py", "."]).stdout.splitlines()


EXCEPTIONS = (
    (re.compile(r"\bNOLINT(?:NEXTLINE|BEGIN)?\b(?!\([a-z][\w.,-]+\): \S)"), "NOLINT(check): reason"),
    (re.compile(r"\bcppcheck-suppress\b(?! \w+ ; \S)"), "cppcheck-suppress check ; reason"),
    (re.compile(r"# shellcheck disable\b(?!=SC[\d,SC]+ +# \S)"), "shellcheck disable=SC1234 # reason"),
    (re.compile(r"# noqa\b(?!: \S)"), "noqa: reason"),
)


def text(files, compiled):
    """What a machine can say of any text: tabs, blanks at ends, last lines, lengths, exceptions without reason."""
    del compiled
    found, looked = [], 0
    for name in files:
        whole = text_of(name)
        if name.startswith(AS_THEY_ARE) or "\0" in whole or not whole:
            continue
        looked += 1
        lines = whole.split("\n")
        if lines[-1] or whole.endswith("\n\n"):
            found.append(f"{name}:{len(lines)}: does not end with one line end [text]")
        is_code = name.endswith(CODE) or is_shell(name)
        for number, line in enumerate(lines, 1):
            if "\t" in line or line != line.rstrip():
                found.append(f"{name}:{number}: a tab, or a blank at the end [text]")
            if is_code and len(line) > LONGEST and not name.startswith(LONG_LINES):
                found.append(f"{name}:{number}: {len(line)} characters, more than {LONGEST} [text]")
            for pattern, form in EXCEPTIONS:
                if name != "scripts/check-static.py" and is_code and pattern.search(line):
                    found.append(f"{name}:{number}: an exception is written `{form}` [text]")
    return looked, found


def shellcheck(files, compiled):
    del compiled
    files = [name for name in files if is_shell(name)]
    if not files:
        return 0, []
    done = run(["shellcheck", "--format=gcc", *files])
    return len(files), done.stdout.splitlines()


def pyflakes(files, compiled):
    del compiled
    files = [name for name in files if is_python(name)]
    if not files:
        return 0, []
    found = []
    for line in run(["pyflakes3", *files]).stdout.splitlines():
        match = re.match(r"([^:]+):(\d+):", line)
        if not (match and "# noqa" in text_of(match[1]).split("\n")[int(match[2]) - 1]):
            found.append(line)
    return len(files), found


# What cppcheck is not asked, and why: of any source, and of tests, which are asked for warnings only.
CPPCHECK_LEFT_OUT = {
    "missingIncludeSystem": "it looks at our code, not at the libraries'",
    "iterators3": "it takes a reference into a table of tables for a temporary",
    "useStlAlgorithm": "a loop with an early return reads better here than an algorithm with a lambda",
    "unusedStructMember": "it does not see members that a template or an aggregate uses",
    "shadowFunction": "a local is often named after the function of another class that it was asked for",
    "variableScope": "tables and buffers stand at the head of their function on purpose",
}
CPPCHECK_LEFT_OUT_OF_TESTS = {
    "containerOutOfBounds": "it does not know that an assertion of the test library returns",
    "legacyUninitvar": "it takes the variable of a loop over functions for one without a value",
}


def cppcheck_some(sources, name, options, compiled):
    if not sources:
        return []
    database = compiled.folder / f"cppcheck-{name}.json"
    database.write_text(json.dumps([compiled.entries[each] for each in sources]), encoding="utf-8")
    done = run(["cppcheck", f"--project={database}", "--inline-suppr", "--quiet", f"-j{JOBS}", "--error-exitcode=1",
                "--template={file}:{line}: {message} [{id}]", *options,
                *(f"--suppress={each}" for each in CPPCHECK_LEFT_OUT)])
    found = [line.removeprefix(f"{ROOT}/") for line in done.stderr.splitlines() if line.endswith("]")]
    if done.returncode and not found:
        raise ToolError(f"cppcheck:\n{done.stdout}{done.stderr}")
    return found


def cppcheck(files, compiled):
    sources = compiled.sources_for(files)
    product = [name for name in sources if not name.startswith(TESTS)]
    tests = [name for name in sources if name.startswith(TESTS)]
    of_tests = ["--enable=warning", "--library=googletest",
                *(f"--suppress={each}" for each in CPPCHECK_LEFT_OUT_OF_TESTS)]
    return len(sources), (
        cppcheck_some(product, "product", ["--enable=warning,performance,portability,style"], compiled) +
        cppcheck_some(tests, "tests", of_tests, compiled))


def tidy_one(name, compiled):
    more = [f"--checks={ANALYZER}"] if name.startswith(ANALYZED) or (compiled.is_deep and not name.startswith(TESTS)) else []
    if not name.startswith(TESTS): # who holds the daemon's mutex, by the words of platform/thread_safety.h
        more.append("--extra-arg=-Wthread-safety")
    done = run(["clang-tidy", "-p", compiled.folder, "--quiet", *more, name])
    found = compiler_findings(done.stdout)
    if done.returncode and not found:
        raise ToolError(f"clang-tidy {name}:\n{done.stdout}{done.stderr}")
    return found


def clang_tidy(files, compiled):
    sources = compiled.sources_for(files)
    if compiled.is_whole: # tests would double the time; those that change are looked at (--since)
        sources = [name for name in sources if not name.startswith(TESTS)]
    found = {}
    # The long ones first, so that no processor stands idle at the end.
    by_length = sorted(sources, key=lambda name: -(ROOT / name).stat().st_size)
    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        for one in pool.map(lambda name: tidy_one(name, compiled), by_length):
            found.update(dict.fromkeys(one))  # a header's findings come with each source that includes it
    return len(sources), sorted(found)


TOOLS = {"house": house, "text": text, "shellcheck": shellcheck, "pyflakes": pyflakes, "cppcheck": cppcheck,
         "clang-tidy": clang_tidy}


def arguments():
    parser = argparse.ArgumentParser(prog="check-static.sh", description="The static checks; see the head of the file.")
    parser.add_argument("build", help=argparse.SUPPRESS)
    parser.add_argument("files", nargs="*", metavar="FILE")
    parser.add_argument("--only", default=",".join(TOOLS), metavar="TOOL[,TOOL]", help="of " + ", ".join(TOOLS))
    parser.add_argument("--deep", action="store_true", help="the static analyzer for all but tests; it takes long")
    parser.add_argument("--since", metavar="REVISION", help="check what differs from it")
    chosen = parser.parse_intermixed_args()  # options before and after the files
    chosen.only = chosen.only.split(",")
    if not set(chosen.only) <= set(TOOLS):
        parser.error("--only: one of " + ", ".join(TOOLS))
    return chosen


def files_of(chosen):
    if chosen.since:
        changed = git("diff", "--name-only", "--diff-filter=d", chosen.since)
        chosen.files += changed + git("ls-files", "--others", "--exclude-standard")
        if not chosen.files:
            return []
    if not chosen.files:
        return [name for name in git("ls-files") if (ROOT / name).is_file()]
    names = []
    for name in chosen.files:
        path = (ROOT / name).resolve()
        if not path.is_relative_to(ROOT) or not path.is_file():
            raise ToolError(f"{name}: no file of this tree")
        names.append(path.relative_to(ROOT).as_posix())
    return sorted(set(names))


def processor_seconds():
    return sum(sum(resource.getrusage(who)[:2]) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN))


def main():
    chosen = arguments()
    rows, total = [], 0
    try:
        files, compiled = files_of(chosen), Compiled(chosen.build)
        compiled.is_deep, compiled.is_whole = chosen.deep, not (chosen.files or chosen.since)
        for tool in chosen.only:
            began, used = time.monotonic(), processor_seconds()
            looked, found = TOOLS[tool](files, compiled)
            rows.append((tool, looked, len(found), processor_seconds() - used, time.monotonic() - began))
            total += len(found)
            for line in found:
                print(line, flush=True)
    except ToolError as error:
        print(f"check-static: {error}", file=sys.stderr)
        return 2
    print("| check | files | findings | processor s | s |\n|---|---|---|---|---|")
    for tool, looked, found, used, took in rows:
        print(f"| {tool} | {looked} | {found} | {used:.1f} | {took:.1f} |")
    return 1 if total else 0


sys.exit(main())
