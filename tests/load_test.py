#!/usr/bin/env python3
"""Clients with requests of all kinds, and programs that write to the files meanwhile, for a long time.

Some rename new files over members, unlink and make them anew, or move their directory away and back; some hold a member
open and append, rewrite and truncate it in place. Each keeps the truth of what it wrote last, and at the end every path
must hold just that. A member that is being written must stay unlinked. No answer may be wrong, and memory and
descriptors must stay where they were.

usage: load_test.py RUX [SECONDS [SERVICES]] [--busy LOOPS]

10 seconds by default, 1200 for the long form; one service, or two. LOOPS programs keep the machine busy beside.
"""

import collections
import json
import multiprocessing
import os
import random
import re
import shutil
import statistics
import sys
import threading
import time

from support.service import EXCEPT, SLOW, STOP_COMPRESS, STOP_SCAN, Service, busy_loops, md5sums, read, taken_option, wait_for

CLIENTS, WRITERS, FILES = 8, 4, 60
CONTENTS = [bytes([97 + i]) * size for i, size in enumerate((10, 4096, 20000, 150000))]


class Writer:
    """The one who writes to a set of files; `truth` is what each of them holds."""

    def __init__(self, folder, seed):
        self.folder, self.pick, self.truth = folder, random.Random(seed), {}
        self.counts = collections.Counter()
        os.makedirs(folder)
        for number in range(FILES):
            self.replace(f"{folder}/{number}")

    def replace(self, path):
        content = self.pick.choice(CONTENTS)
        with open(self.folder + "/.new", "wb") as file:
            file.write(content)
        os.rename(self.folder + "/.new", path)
        self.truth[path] = content

    def make_anew(self, path):
        os.unlink(path)
        self.truth[path] = self.pick.choice(CONTENTS)
        with open(path, "xb") as file:
            file.write(self.truth[path])

    def move_away_and_back(self, _):
        os.rename(self.folder, self.folder + "-gone")
        time.sleep(0.001)
        os.rename(self.folder + "-gone", self.folder)

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
            self.counts["written"] += 1

    def run(self, seconds, results):
        steps = [self.replace, self.make_anew, self.write_in_place, self.write_in_place] * 20 + [self.move_away_and_back]
        end = time.monotonic() + seconds
        try:
            while time.monotonic() < end:
                step = self.pick.choice(steps)
                step(f"{self.folder}/{self.pick.randrange(FILES)}")
                self.counts[step.__name__] += 1
                time.sleep(self.pick.random() * 0.002)
            results.put((self.truth, self.counts, None))
        except Exception as error:  # pylint: disable=broad-except
            results.put((self.truth, self.counts, repr(error)))


def listing(service):
    page = json.loads(service.list())
    assert page == {} or page["isEnd"] == 1, page
    counts = page.get("s", {"gCount": 0, "fileCount": 0, "size": 0})
    assert 0 <= 2 * counts["gCount"] <= counts["fileCount"] <= 2 * WRITERS * (FILES + 1) and counts["size"] >= 0, page
    return counts


def compression(service):
    result = service.compress()
    assert re.fullmatch(r"\d+,\d+", result), result
    return int(result.split(",")[0])


def restore(service):
    assert service.restore() >= 0


def client(service, number, is_over, counts, errors):
    """Sends one request after another; every answer must be one that the interface allows. The first client goes over all
    files again and again, without what the service knows of them."""
    pick = random.Random(number)
    steps = [Service.scan, listing, compression, restore, lambda service: service.call(STOP_SCAN),
             lambda service: service.call(STOP_COMPRESS), lambda service: service.call(EXCEPT, '["never"]')]
    try:
        while not is_over.is_set():
            if number > 0:
                pick.choice(steps)(service)
                time.sleep(pick.random() * 0.05)
            else:
                shutil.rmtree(service.space, ignore_errors=True)
                service.scan()
                listing(service)
                counts["groups linked"] += compression(service)
                if counts["rounds"] % 3 == 2:
                    restore(service)
                counts["rounds"] += 1
            counts["requests"] += 1
    except Exception as error:  # pylint: disable=broad-except
        errors.append(repr(error))


def check_what_is_used(memory, descriptors, service, seconds):
    third = len(memory) // 3
    early, late = statistics.median(memory[third:2 * third]), statistics.median(memory[2 * third:])
    print(f"resident {early:.0f} KiB in the second third of the time, {late:.0f} KiB in the last; "
          f"at most {max(descriptors)} descriptors, {service.descriptors()} at the end")
    # A short run is still warming up; what it shows is no more than that nothing runs away.
    assert SLOW or late < 1.1 * early + (1024 if seconds >= 300 else 32768), (early, late)
    wait_for(lambda: service.descriptors() <= min(descriptors) + 1)  # connections that it has not seen end yet
    if seconds >= 300:
        time.sleep(15)
        print(f"{service.resident_kib()} KiB when idle")
        assert SLOW or service.resident_kib() < 24 << 10


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
        is_over, errors, counts = threading.Event(), [], collections.Counter()
        clients = [threading.Thread(target=client, args=(one, number, is_over, counts, errors))
                   for one in (service, other)[:services] for number in range(CLIENTS)]
        for one in processes + clients:
            one.start()
        memory, descriptors = [], []
        for _ in range(300):  # over the whole time
            time.sleep(seconds / 300)
            memory.append(service.resident_kib())
            descriptors.append(service.descriptors())
            os.truncate(service.base + "/log", 0)
        outcomes = [results.get() for _ in processes]
        is_over.set()
        for one in processes + clients:
            one.join()
        totals = sum((outcome[1] for outcome in outcomes), counts)
        print(dict(totals))
        errors += [error for _, _, error in outcomes if error]
        assert not errors, errors
        assert totals["rounds"] > 1 and totals["groups linked"] > 0 and totals["written"] > 0
        for truth, _, _ in outcomes:
            for path, content in truth.items():
                assert read(path).encode() == content, f"{path} does not hold what was written to it last"
        check_what_is_used(memory, descriptors, service, seconds)
        # What the service says of the tree at the end is what md5sum says.
        service.restore()
        assert services > 1 or not service.stale_names(), service.stale_names()
        shutil.rmtree(service.space, ignore_errors=True)
        service.scan()  # where one gave way to the other, it left a name for that
        groups = [copies for copies in collections.Counter(md5sums(service.tree).values()).values() if copies > 1]
        found = listing(service)
        assert (found["gCount"], found["fileCount"]) == (len(groups), sum(groups)), found
        assert not service.stale_names(), service.stale_names()
    print("ok")


if __name__ == "__main__":
    main()
