"""What the thread sanitizer reports of the programs that a test starts, wherever and however they end.

Each process writes its reports to files of a folder of ours, which no log level, no signal 9 and no test that expects
the process to fail can hide: a test during which a file appeared has failed. Other builds write none.
"""
import atexit
import glob
import os
import shutil
import subprocess
import tempfile
import unittest

OPTIONS = "atexit_sleep_ms=0 second_deadlock_stack=1"


def is_checked(build):
    """Whether the programs of a build watch their threads."""
    path = os.path.join(build, "CMakeCache.txt")
    if not os.path.exists(path):
        return False
    with open(path) as file:
        return "-fsanitize=thread" in file.read()


def launcher():
    """The words that start a watched program. Its run time knows where the kernel puts things without random
    addresses; newer kernels may choose places that it does not know. Empty where nobody may ask for that."""
    words = ["setarch", "--addr-no-randomize"]
    done = subprocess.run(words + ["true"], capture_output=True)
    return words if done.returncode == 0 else []


class Reports:
    """The folder of the reports, told to all programs that are started from now on."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="races-")
        self.seen = set()
        os.chmod(self.folder, 0o777)  # for programs of other users, too
        atexit.register(self._remove, os.getpid())
        os.environ["TSAN_OPTIONS"] = f"{os.environ.get('TSAN_OPTIONS', '')} {OPTIONS} log_path={self.folder}/report"

    def _remove(self, owner):
        if os.getpid() == owner:  # a child of ours may end the same way
            shutil.rmtree(self.folder, ignore_errors=True)

    def new(self):
        """The text of the reports since the last question, or nothing."""
        texts = []
        for path in sorted(set(glob.glob(self.folder + "/report.*")) - self.seen):
            self.seen.add(path)
            with open(path, errors="replace") as file:
                texts.append(file.read())
        return "\n".join(texts)


def result_class(reports):
    """A unittest result for which a test with a report has failed."""

    class Result(unittest.TextTestResult):
        def _look(self, test):
            text = reports.new()
            if text:
                self.addFailure(test, (AssertionError, AssertionError("the thread sanitizer reported\n" + text), None))

        def stopTest(self, test):
            self._look(test)
            super().stopTest(test)

        def stopTestRun(self):  # programs that a class shared
            self._look(unittest.FunctionTestCase(lambda: None, description="after the last test"))
            super().stopTestRun()

    return Result


def main():
    """unittest.main that looks for reports. Result: the program, ended."""

    class Runner(unittest.TextTestRunner):
        resultclass = result_class(Reports())

    return unittest.main(testRunner=Runner, verbosity=2, exit=False)
