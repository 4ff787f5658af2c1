"""Another process on the route bus: the example program, as it is documented."""
import os
import re
import subprocess
import sys

import system_case
from system_case import netlab

EXAMPLE = os.path.join(netlab.ROOT, "examples", "route-bus-publish.py")


class OtherProcess(system_case.MemoryCase):
    def test_the_example_publishes_a_probes_state(self):
        self.daemon.ctl("debug", "set", "event")
        with open(EXAMPLE) as file: # in the byte order of the daemon's machine, where it would run
            program = re.sub("(?<=[\"'])=(?=[0-9A-Z])", netlab.ORDER, file.read())
        subprocess.run([sys.executable, "-c", program, "ops", "http", "passing", self.daemon.root], check=True, timeout=20)
        text = "pbr receive QRV_RTM_NQA,adminName=ops,testName=http,status=1."
        self.assertTrue(self.daemon.until(lambda: any(text in line for line in self.daemon.errors)), self.daemon.errors[-9:])


if __name__ == "__main__":
    system_case.main()
