#!/usr/bin/env python3
"""What an idle service lets go of, and requests that come just then.

Ten seconds after the last operation the memory of the images goes back. Services wait for that at the same time,
and each gets one more request at a random moment around it, which must be answered and logged as ever.

usage: idle_test.py RUX memory|any [ROUNDS]     one round of 20 services by default, 50 for the long form
"""

import contextlib
import json
import random
import sys
import threading
import time

from support.service import LIST, RECORDS, RESTORE, Service

SERVICES, PAIRS = 20, 50


@contextlib.contextmanager
def prepared(rux, files):
    with Service(rux) as service:
        for number in range(files):
            service.write(str(number), f"content {number // 2}")
        service.scan()
        yield service


def memory_goes_back(rux):
    with prepared(rux, 4) as service:
        small = service.resident_kib()
    with prepared(rux, 20000) as service:
        large = service.resident_kib()
        end = time.monotonic() + 30
        while (now := service.resident_kib()) > small + 8192 and time.monotonic() < end:
            time.sleep(0.1)
        print(f"{small} KiB with 4 files, {large} KiB after 20,000, {now} KiB when idle")
        assert large > small + 16384, "the test measures nothing"
        assert now <= small + 8192


def request_at(rux, moment, step, times):
    """One service whose next request comes `moment` seconds after its last operation."""
    with prepared(rux, 2 * PAIRS) as service:
        time.sleep(moment)
        start = time.monotonic()
        if step == "scan":
            service.scan()
            assert len(service.database(RECORDS)) == 2 * PAIRS
        elif step == "list":
            page = json.loads(service.call(LIST, service.rule()))
            assert page["s"]["gCount"] == PAIRS, page
        elif step == "compress":
            assert service.compress().split(",")[0] == str(PAIRS)
        else:  # an element that names no space is skipped, whatever the images hold
            service.call(RESTORE, '[{"regs": [".*"]}]')
            assert service.compress().split(",")[0] == str(PAIRS)
        times.append(time.monotonic() - start)


def main():
    rux, rounds = sys.argv[1], int(sys.argv[3]) if len(sys.argv) > 3 else 1
    print(f"seed {(seed := random.randrange(1 << 30))}")
    pick, errors, times = random.Random(seed), [], []

    def attempt(function, *arguments):
        try:
            function(rux, *arguments)
        except Exception as error:  # pylint: disable=broad-except
            errors.append(repr(error))

    for _ in range(rounds):
        clients = [threading.Thread(target=attempt, args=(
            request_at, pick.uniform(8.9, 11.1), pick.choice(["scan", "list", "compress", "none"]), times))
            for _ in range(SERVICES)]
        if sys.argv[2] == "memory":
            clients.append(threading.Thread(target=attempt, args=(memory_goes_back,)))
        for client in clients:
            client.start()
        for client in clients:
            client.join()
    assert not errors, errors
    print(f"{len(times)} requests, the slowest took {max(times):.3f} s")
    print("ok")


if __name__ == "__main__":
    main()
