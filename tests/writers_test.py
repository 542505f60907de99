#!/usr/bin/env python3
"""Programs that write to the files while scan, listing, compression and restore run in a loop.

Some rename new files over members, unlink and make them anew; some hold a member open and append,
rewrite and truncate it in place. Each keeps the truth of what it wrote last, and at the end every path
must hold just that. A member that is being written must stay unlinked.

usage: writers_test.py RUX [SECONDS [SERVICES]] [--busy LOOPS]

10 seconds by default, 600 for the long form; one service, or two. LOOPS programs keep the machine busy beside.
"""

import multiprocessing
import os
import random
import shutil
import sys
import threading
import time

from support.service import busy_loops, taken_option, LIST, Service

WRITERS, FILES = 4, 60
CONTENTS = [bytes([97 + i]) * size for i, size in enumerate((10, 4096, 20000, 150000))]


class Writer:
    """The one who writes to a set of files; `truth` is what each of them holds."""

    def __init__(self, folder, seed):
        self.folder, self.pick, self.truth = folder, random.Random(seed), {}
        self.counts = {"replaced": 0, "made anew": 0, "written in place": 0, "found linked": 0}
        os.makedirs(folder)
        for number in range(FILES):
            self.replace(f"{folder}/{number}")

    def replace(self, path):
        content = self.pick.choice(CONTENTS)
        with open(self.folder + "/.new", "wb") as file:
            file.write(content)
        os.rename(self.folder + "/.new", path)
        self.truth[path] = content
        self.counts["replaced"] += 1

    def make_anew(self, path):
        os.unlink(path)
        self.truth[path] = self.pick.choice(CONTENTS)
        with open(path, "xb") as file:
            file.write(self.truth[path])
        self.counts["made anew"] += 1

    def write_in_place(self, path):
        """Writes through a descriptor for a while, unless that would reach other names as well."""
        with open(path, "r+b", buffering=0) as file:
            links = os.fstat(file.fileno()).st_nlink
            assert links > 0, f"{path} was opened for writing, and is gone"
            if links != 1:
                self.counts["found linked"] += 1
                return
            for _ in range(self.pick.randrange(1, 5)):
                content = bytearray(self.truth[path])
                step = self.pick.randrange(3)
                if step == 0:  # append
                    file.seek(0, os.SEEK_END)
                    file.write(b"appended")
                    content += b"appended"
                elif step == 1:  # rewrite as one of the common contents, so that it may be linked later
                    content = bytearray(self.pick.choice(CONTENTS))
                    file.truncate(0)
                    file.seek(0)
                    file.write(content)
                else:
                    del content[len(content) // 2:]
                    file.truncate(len(content))
                self.truth[path] = bytes(content)
                time.sleep(self.pick.random() * 0.003)
                now = os.fstat(file.fileno())
                assert now.st_nlink == 1, f"{path} was linked or lost while it was open: {now.st_nlink}"
            self.counts["written in place"] += 1

    def run(self, seconds, results):
        end = time.monotonic() + seconds
        try:
            while time.monotonic() < end:
                path = f"{self.folder}/{self.pick.randrange(FILES)}"
                self.pick.choice([self.replace, self.make_anew, self.write_in_place, self.write_in_place])(path)
                time.sleep(self.pick.random() * 0.002)
            results.put((self.truth, self.counts, None))
        except Exception as error:  # pylint: disable=broad-except
            results.put((self.truth, self.counts, repr(error)))


def main():
    loops = taken_option("--busy", 0)
    rux, seconds = sys.argv[1], float(sys.argv[2]) if len(sys.argv) > 2 else 10
    services = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    print(f"seed {(seed := random.randrange(1 << 30))}")
    with busy_loops(loops), Service(rux) as service, Service(rux) as other:
        other.tree = service.tree  # nobody keeps a second one from the same files
        results = multiprocessing.Queue()
        writers = [Writer(f"{service.tree}/{i}", seed + i) for i in range(WRITERS)]
        processes = [multiprocessing.Process(target=writer.run, args=(seconds, results)) for writer in writers]
        for process in processes:
            process.start()
        done, rounds, linked = threading.Event(), 0, 0

        def operate(service):
            nonlocal rounds, linked
            while not done.is_set():
                shutil.rmtree(service.space, ignore_errors=True)  # so that every file is read anew
                service.scan()
                service.call(LIST, service.rule())
                linked += int(service.compress().split(",")[0])
                if rounds % 3 == 2:
                    service.restore()
                rounds += 1

        operators = [threading.Thread(target=operate, args=(one,)) for one in (service, other)[:services]]
        for operator in operators:
            operator.start()
        outcomes = [results.get() for _ in processes]
        done.set()
        for operator in operators:
            operator.join()
        for process in processes:
            process.join()
        totals = {name: sum(counts[name] for _, counts, _ in outcomes) for name in outcomes[0][1]}
        print(f"{rounds} rounds, {linked} groups linked; {totals}")
        errors = [error for _, _, error in outcomes if error]
        assert not errors, errors
        for truth, _, _ in outcomes:
            for path, content in truth.items():
                with open(path, "rb") as file:
                    assert file.read() == content, f"{path} does not hold what was written to it last"
        assert rounds > 1 and linked > 0 and totals["written in place"] > 0
        service.restore()
        if services > 1:
            service.scan()  # where one gave way to the other, it left a name for that
        assert not service.stale_names(), service.stale_names()
    print("ok")


if __name__ == "__main__":
    main()
