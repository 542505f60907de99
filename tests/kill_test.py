#!/usr/bin/env python3
"""Kills the service at random moments of scans, compressions and restores of 3,000 files.

After each kill every path must open and have its digest; the service must start again; once it has loaded the
space, each file with a record must be in a group or marked as restored. The operation, run once more, must
complete; no temporary name may be left then, and the groups must be right.

usage: kill_test.py RUX [ROUNDS] [--busy LOOPS]

20 by default; 200 for the long form. LOOPS programs keep the machine busy beside.
"""

import json
import os
import random
import shutil
import sys
import threading
import time

from support.service import GROUPS, LINKED, MODIFIED, RECORDS, RESTORE, busy_loops, taken_option, Service, groups_of, \
    md5sums

FILES = 3000


def make_tree(tree, pick):
    """Groups of one to nine files, from one byte to 300 KB."""
    count = 0
    while count < FILES:
        content = pick.randbytes(pick.choice([1, 20, 1000, 4096, 5000, 30000]) if pick.random() < 0.98 else 300000)
        for _ in range(pick.randrange(1, 10)):
            folder = f"{tree}/{count % 37}"
            os.makedirs(folder, exist_ok=True)
            with open(f"{folder}/{count}", "wb") as file:
                file.write(content)
            count += 1


class Round:
    """One kill of one operation, and everything that must hold afterwards."""

    def __init__(self, service, digests):
        self.service, self.digests = service, digests
        self.groups = groups_of(digests)
        self.duration = {}

    def database(self, name):
        path = f"{self.service.space}/{name}"
        if not os.path.exists(path):
            return {}
        with open(path, encoding="utf-8") as file:
            return json.loads(file.read() or "{}") or {}  # empty when it was just being made

    def check_known(self):
        """Nothing that has a record may be out of reach of a later compression or restore."""
        self.service.call(RESTORE, '[{"sid":"s","regs":["none"]}]')  # loads the space, and changes nothing
        groups = [self.database(GROUPS), self.database(LINKED)]
        known = {path for part in groups for group in part.values() for path in group["f_list"]}
        known |= set(self.database(MODIFIED))
        records = self.database(RECORDS)
        assert {path for path, record in records.items() if record["is_md5"] == 1} <= known

    def rebuild(self):
        shutil.rmtree(self.service.space, ignore_errors=True)
        self.service.scan()

    def separate(self):
        """Gives every file data of its own, without the service: the next round starts from there."""
        for path in self.digests:
            if os.stat(path).st_nlink > 1:
                shutil.copy2(path, self.service.base + "/copy")
                os.rename(self.service.base + "/copy", path)

    def inodes(self):
        return {path: os.stat(path).st_ino for path in self.digests}

    def check_scanned(self):
        groups = self.database(GROUPS)
        assert {digest: set(group["f_list"]) for digest, group in groups.items()} == self.groups

    def check_linked(self):
        inodes = self.inodes()
        assert all(len({inodes[path] for path in paths}) == 1 for paths in self.groups.values())

    def check_restored(self):
        assert len(set(self.inodes().values())) == len(self.digests)

    def prepare(self, operation):
        self.rebuild()
        if operation == "scan":
            shutil.rmtree(self.service.space)
        elif operation == "restore":
            self.service.compress()
            self.check_linked()

    def run(self, operation, pick):
        act = getattr(self.service, operation)
        check = {"scan": self.check_scanned, "compress": self.check_linked, "restore": self.check_restored}[operation]
        self.prepare(operation)
        if operation not in self.duration:  # once undisturbed, to know how long it takes
            start = time.monotonic()
            act()
            self.duration[operation] = time.monotonic() - start
            self.prepare(operation)

        def attempt():
            try:
                act()
            except OSError:
                pass  # the connection dies with the service
        thread = threading.Thread(target=attempt)
        thread.start()
        time.sleep(pick.uniform(0, self.duration[operation] * 1.05))
        self.service.kill()
        thread.join()
        after = md5sums(self.service.tree)
        assert all(after.get(path) == digest for path, digest in self.digests.items()), "content has changed"

        self.service.start()
        self.check_known()
        if operation != "scan" and pick.random() < 0.5:  # it tidies up as well
            self.service.scan()
            assert not self.service.leftovers(), self.service.leftovers()
        act()
        check()
        assert md5sums(self.service.tree) == self.digests
        assert not self.service.leftovers(), self.service.leftovers()
        self.separate()


def main():
    loops = taken_option("--busy", 0)
    rux, rounds = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 20
    print(f"seed {(seed := random.randrange(1 << 30))}")
    pick = random.Random(seed)
    with busy_loops(loops), Service(rux) as service:
        make_tree(service.tree, pick)
        test = Round(service, md5sums(service.tree))
        for number in range(rounds):
            operation = ("scan", "compress", "restore")[number % 3]
            test.run(operation, pick)
        print(f"{rounds} kills, {len(test.digests)} files in {len(test.groups)} groups; "
              f"undisturbed {({name: round(took, 2) for name, took in test.duration.items()})} s")
    print("ok")


if __name__ == "__main__":
    main()
