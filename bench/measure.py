"""Running programs, and the service, with a clock."""

import json
import os
import shutil
import statistics
import subprocess
import tempfile
import time
from dataclasses import asdict, dataclass
from pathlib import Path

TICK = os.sysconf("SC_CLK_TCK")


@dataclass
class Run:
    """What one run took: wall and processor seconds, and the largest process's peak memory in MiB."""

    wall: float
    cpu: float
    peak_mib: float


def timed(command, check=False, **options):
    """Runs `command` to its end, with its output thrown away. With `check` it has to succeed; some programs return how
    many duplicates they have found."""
    start = time.monotonic()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, **options)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode < 0 or check and process.returncode != 0:
        raise RuntimeError(f"{command} ended with {process.returncode}")
    return Run(wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024)


class Service:
    """rux on a fresh root of its own."""

    def __init__(self, build):
        self.build = Path(build)

    def __enter__(self):
        self.root = tempfile.mkdtemp(prefix="rux-bench-")
        (Path(self.root) / "data/local/zel").mkdir(parents=True)
        self.environment = {**os.environ, "RUX_ROOT": self.root}
        self.log = open(Path(self.root) / "log", "wb")
        self.process = subprocess.Popen([self.build / "rux"], env=self.environment, stderr=self.log)
        deadline = time.monotonic() + 10
        while subprocess.run([self.build / "ruxctl", "call", "7"], env=self.environment,
                             capture_output=True).returncode != 0:
            if time.monotonic() > deadline:
                raise RuntimeError("the service does not answer")
            time.sleep(0.02)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.log.close()
        shutil.rmtree(self.root)

    def processor_seconds(self):
        fields = Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICK

    def memory_mib(self, which="VmHWM"):
        for line in Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            if line.startswith(which + ":"):
                return int(line.split()[1]) / 1024
        raise RuntimeError(f"no {which}")

    def client(self, *arguments):
        """One whole run of the client, with what the service spends on it."""
        before = self.processor_seconds()
        run = timed([str(self.build / "ruxctl"), *arguments], check=True, env=self.environment)
        return Run(run.wall, run.cpu + self.processor_seconds() - before, self.memory_mib())

    def call(self, code, request):
        return self.client("call", str(code), json.dumps(request))

    def dedupe(self, directory):
        return self.client("dedupe", "--yes", str(directory))

    def scan(self, directory, space="s"):
        return self.call(1, [{"sid": space, "regs": [".*"], "dirs": [str(directory)]}])

    def list(self):
        return self.call(2, [{"sid": "s", "regs": [".*"], "dirs": []}])

    def compress(self):
        return self.call(3, ["s"])

    def restore(self):
        """What is linked in all spaces."""
        spaces = os.listdir(Path(self.root) / "data/local/zel")
        return self.call(4, [{"sid": space, "regs": [".*"]} for space in spaces])


def median_of(runs):
    """The medians of the runs' figures."""
    return Run(*(statistics.median(values) for values in zip(*(asdict(run).values() for run in runs))))
