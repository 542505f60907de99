#!/usr/bin/env python3
"""Mixed requests from eight clients over a changing tree, for a long time.

No answer may be wrong, no content may be lost, and memory and descriptors must stay where they were.

usage: soak_test.py RUX [SECONDS]     10 seconds by default; 1800 for the long form
"""

import collections
import json
import os
import random
import re
import statistics
import sys
import threading
import time

from support.service import EXCEPT, LIST, STOP_COMPRESS, STOP_SCAN, Service, md5sums, wait_for

FILES = 400
CONTENTS = [bytes([65 + i]) * size for i, size in enumerate((1, 100, 4096, 5000, 70000, 300000))]


def client(service, seed, stop, errors, counts):
    """Sends one request after another; every answer must be one that the interface allows."""
    pick = random.Random(seed)

    def listing():
        page = json.loads(service.call(LIST, service.rule()))
        assert page == {} or page["isEnd"] == 1, page
        for entry in [page[name] for name in page if name != "isEnd"]:
            assert 0 <= 2 * entry["gCount"] <= entry["fileCount"] <= FILES and entry["size"] >= 0, page

    def compression():
        result = service.compress()
        assert re.fullmatch(r"\d+,\d+", result), result

    def restore():
        assert service.restore() >= 0

    steps = [service.scan, listing, compression, restore, lambda: service.call(STOP_SCAN), lambda: service.call(STOP_COMPRESS),
             lambda: service.call(EXCEPT, '["never"]')]
    while not stop.is_set():
        try:
            pick.choice(steps)()
            counts[seed] += 1
        except Exception as error:  # pylint: disable=broad-except
            errors.append(repr(error))
            return


def main():
    rux, seconds = sys.argv[1], float(sys.argv[2]) if len(sys.argv) > 2 else 10
    print(f"seed {(seed := random.randrange(1 << 30))}")
    pick = random.Random(seed)
    with Service(rux) as service:
        truth = {}

        def rewrite():
            """Renames a new file over one of the tree, as editors do."""
            path = f"{service.tree}/{pick.randrange(FILES)}"
            content = pick.choice(CONTENTS)
            with open(service.base + "/new", "wb") as file:
                file.write(content)
            os.rename(service.base + "/new", path)
            truth[path] = content

        for _ in range(3 * FILES):
            rewrite()
        stop, errors, counts = threading.Event(), [], [0] * 8
        clients = [threading.Thread(target=client, args=(service, i, stop, errors, counts)) for i in range(8)]
        for thread in clients:
            thread.start()
        memory, descriptors = [], []
        start = time.monotonic()
        while (now := time.monotonic() - start) < seconds and not errors:
            for _ in range(5):
                rewrite()
            if len(memory) < now / seconds * 300:  # 300 samples over the whole time
                memory.append(service.resident_kib())
                descriptors.append(service.descriptors())
                os.truncate(service.base + "/log", 0)
            time.sleep(0.02)
        stop.set()
        for thread in clients:
            thread.join()

        third = len(memory) // 3
        early, late = statistics.median(memory[third:2 * third]), statistics.median(memory[2 * third:])
        print(f"{sum(counts)} requests in {now:.0f} s; resident {early:.0f} KiB in the second third of the time, "
              f"{late:.0f} KiB in the last; at most {max(descriptors)} descriptors, {service.descriptors()} at the end")
        assert not errors, errors
        # A short run is still warming up; what it shows is no more than that nothing runs away.
        assert late < 1.1 * early + (1024 if seconds >= 300 else 32768), (early, late)
        wait_for(lambda: service.descriptors() <= min(descriptors) + 1)  # connections that it has not seen end yet
        if seconds >= 300:
            time.sleep(15)
            print(f"{service.resident_kib()} KiB when idle")
            assert service.resident_kib() < 24 << 10
        for path, content in truth.items():
            with open(path, "rb") as file:
                assert file.read() == content, path
        # What the service says of the tree at the end is what md5sum says.
        service.restore()
        os.system(f"rm -rf {service.space}")
        service.scan()
        groups = [copies for copies in collections.Counter(md5sums(service.tree).values()).values() if copies > 1]
        page = json.loads(service.call(LIST, service.rule()))["s"]
        assert (page["gCount"], page["fileCount"]) == (len(groups), sum(groups)), page
        assert not service.stale_names()
    print("ok")


if __name__ == "__main__":
    main()
