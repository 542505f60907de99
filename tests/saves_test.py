#!/usr/bin/env python3
"""Ends the service, or the power, at every instant of a save.

strace(1) records what a scan, a listing, a compression and a restore do to the directory of their space. From
that the directory is rebuilt as a kill leaves it (all calls so far) and as a power cut may (of what was not made
durable any part), thousands of times, as a space each. One request then loads them all. Each must hold the four
texts from before the operation or the four from after it, and the client must see the same before the load.
The service itself is ended too, at the entry of each of the calls.

usage: saves_test.py RUX RUXCTL [STATES]

STATES power cuts an operation, 300 by default.
"""

import contextlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys

from support.service import GROUPS, IMAGES, LINKED, RECORDS, RESTORE, Service

RUX, RUXCTL = sys.argv[1:3]
STATES = int(sys.argv[3]) if len(sys.argv) > 3 else 300
JOURNAL = "RUXSave.journal"
CALLS = "openat,lseek,write,ftruncate,fdatasync,fsync,unlink"
UNIT = 7  # bytes that reach the disk together: fewer than are summed up together
OPERATIONS = ["scan", "list", "compress", "restore"]


class Recorder:
    """strace at a running service; only calls on the space's directory and its files are seen."""

    def __init__(self, service, *options):
        self.file = service.base + "/calls"
        paths = [option for name in ["", *IMAGES, JOURNAL]
                 for option in ("-P", os.path.join(service.space, name).rstrip("/"))]
        self.process = service.strace("-y", "-xx", "-s", "10000000", "-e", "trace=" + CALLS, *options, *paths)

    def end(self, by=signal.SIGTERM):
        self.process.send_signal(by)
        self.process.communicate()

    def calls(self):
        """(thread, call, name of the file, argument) in the order in which they began; syncs, as they ended."""
        found, begun = [], {}
        with open(self.file, encoding="ascii") as lines:
            for line in lines:
                match = re.match(r"(\d+) +(?:<\.\.\. )?(\w+)[( ](.*)", line)
                if not match:
                    continue
                thread, call, rest = match.groups()
                if call in ("fdatasync", "fsync") and "unfinished" in rest:
                    begun[thread] = rest
                    continue
                if rest.startswith("resumed"):
                    if call not in ("fdatasync", "fsync"):
                        continue
                    rest = begun.pop(thread)
                texts = [bytes.fromhex(text.replace("\\x", "")) for text in re.findall(r'["<]((?:\\x..)+)[">]', rest)]
                number = re.search(r">, (\d+)", rest)
                argument = {"openat": "O_CREAT" in rest, "write": texts[-1]}.get(call, number and int(number.group(1)))
                path = texts[1] if call == "openat" else texts[0]
                found.append((thread, call, os.path.basename(path.decode()), argument))
        return found


class Disk:
    """The directory of a space, with what a power cut may take from it."""

    def __init__(self, files):
        self.inodes = [bytearray(data) for data in files.values()]  # as they are on disk
        self.names = {name: number for number, name in enumerate(files)}  # likewise
        self.seen = dict(self.names)  # as the service sees them
        self.ends = {}  # where each file is written next
        self.pending = []  # (inode or None for the directory, change)

    def call(self, _, call, name, argument):
        if call == "openat" and argument and name not in self.seen:
            self.seen[name] = len(self.inodes)
            self.inodes.append(bytearray())
            self.pending.append((None, (name, self.seen[name])))
        if call in ("openat", "lseek"):
            self.ends[name] = 0
        elif call == "write":
            for start in range(0, len(argument), UNIT):
                change = (self.ends[name] + start, argument[start:start + UNIT])
                self.pending.append((self.seen[name], change))
            self.ends[name] += len(argument)
        elif call == "ftruncate":
            self.pending.append((self.seen[name], (argument, None)))
        elif call == "unlink":
            self.pending.append((None, (name, None)))
            del self.seen[name]
        elif call in ("fdatasync", "fsync"):
            inode = self.seen.get(name)  # none: it is the directory
            done = [change for change in self.pending if change[0] == inode]
            self.pending = [change for change in self.pending if change[0] != inode]
            self.inodes, self.names = self.after(done)

    def after(self, changes):
        inodes, names = [bytearray(data) for data in self.inodes], dict(self.names)
        for inode, (where, what) in changes:
            if inode is None:
                names.pop(where, None)
                if what is not None:
                    names[where] = what
            elif what is None:
                inodes[inode] = inodes[inode][:where].ljust(where, b"\0")
            else:
                inodes[inode] = inodes[inode].ljust(where, b"\0")
                inodes[inode][where:where + len(what)] = what
        return inodes, names

    def state(self, chosen):
        inodes, names = self.after([change for change, kept in zip(self.pending, chosen) if kept])
        return {name: bytes(inodes[inode]) for name, inode in names.items()}

    def power_cut(self, pick):
        likelihood = pick.choice([0, 0.1, 0.5, 0.9])
        return self.state([pick.random() < likelihood for _ in self.pending])


def read(directory):
    """The content of the regular files there."""
    files = {}
    for entry in os.scandir(directory) if os.path.isdir(directory) else ():
        if entry.is_file(follow_symlinks=False):
            with open(entry.path, "rb") as file:
                files[entry.name] = file.read()
    return files


def write(directory, files):
    os.makedirs(directory)
    for name, data in files.items():
        with open(f"{directory}/{name}", "wb") as file:
            file.write(data)


def images(files):
    """What the four files hold. One that a load has made, or was just making when the power went, holds nothing."""
    return [json.loads(files.get(name) or b"{}") or {} for name in IMAGES]


def states_of(calls, before, after, pick):
    """States that a kill or a power cut leaves, with the images that each may hold."""
    disk, old, new, found = Disk(before), images(before), images(after), []
    possible = [old]
    for call in calls:
        found.append((disk.state([True] * len(disk.pending)), possible))
        found += [(disk.power_cut(pick), possible) for _ in range(STATES // len(calls))]
        if call[1] == "fdatasync":
            count = len(disk.pending)
            found += [(disk.state([i != lost for i in range(count)]), possible) for lost in range(count)]
        disk.call(*call)
        whole = disk.state([True] * len(disk.pending))
        if call[1] == "unlink":
            possible = [old, new]
        elif call[1] == "fsync" and JOURNAL not in whole:  # its name is gone for good
            possible = [new]
        elif call[1] == "fsync":
            found += [(whole | {JOURNAL: whole[JOURNAL][:size]}, possible) for size in range(len(whole[JOURNAL]))]
            found += [(whole | {name: after[name][:size]}, possible) for name in IMAGES
                      if after.get(name) != before.get(name) for size in range(len(after[name]))]
    assert whole == after, "the record is not the whole truth"
    return found + [(disk.power_cut(pick), [new]) for _ in range(STATES // len(calls))]


def groups_seen(service):
    """{space: digests} as the client shows them."""
    run = subprocess.run([RUXCTL, "groups", "--all", "--json"], env={**os.environ, "RUX_ROOT": service.root},
                         stdout=subprocess.PIPE, text=True, check=True)
    seen = {}
    for group in json.loads(run.stdout):
        seen.setdefault(group["space"], set()).add((group["digest"], group["compressed"]))
    return seen


def shown(files):
    """What the client must show of such images."""
    return {(digest, compressed) for compressed in (False, True)
            for digest, group in files[2 if compressed else 1].items() if len(group["f_list"]) > 1}


def check_states(states):
    """Loads each state, as a space of its own, and looks at what is there then."""
    with Service(RUX) as service:
        spaces = os.path.dirname(service.space)
        for number, (files, _) in enumerate(states):
            write(f"{spaces}/{number}", files)
        seen = groups_seen(service)
        for number, (_, possible) in enumerate(states):
            assert seen.get(str(number), set()) in [shown(one) for one in possible], (number, seen.get(str(number)))
        service.call(RESTORE, json.dumps([{"sid": str(number), "regs": ["none"]} for number in range(len(states))]))
        for number, (files, possible) in enumerate(states):
            loaded = read(f"{spaces}/{number}")
            assert JOURNAL not in loaded, number
            assert images(loaded) in possible, (number, files, loaded)


def copy(source, target):
    shutil.rmtree(target, ignore_errors=True)
    subprocess.run(["cp", "-a", source, target], check=True)


def record(service, operation):
    """Carries out the operation; returns what it did to the space's directory, and the directory around it."""
    copy(service.tree, f"{service.base}/before {operation}")
    before = read(service.space)
    recorder = Recorder(service)
    getattr(service, operation)()
    recorder.end()
    return recorder.calls(), before, read(service.space)


def end_everywhere(service, operation, calls, before, after):
    """Ends the service as it enters each of the calls. The operation must then find its way."""
    counts = {}
    for thread, call, _, _ in calls:
        count = counts[thread, call] = counts.get((thread, call), 0) + 1
        copy(f"{service.base}/before {operation}", service.tree)
        shutil.rmtree(service.space, ignore_errors=True)
        if before:
            write(service.space, before)
        service.start()
        recorder = Recorder(service, "-e", f"inject={call}:signal=SIGKILL:when={count}")
        try:
            getattr(service, operation)()
            raise AssertionError(f"{operation} was not ended at {call} {count}")
        except OSError:
            recorder.end(signal.SIGKILL)  # it may wait for a thread that died as it began
        assert service.process.wait() == -9
        service.start()
        getattr(service, operation)()
        assert images(read(service.space)) == images(after), (operation, call, count)
        service.kill()


def change_tree(service, operation):
    """What the operation will find."""
    if operation == "scan":
        for name, content in {"a1": "a", "a2": "a", "a3": "a", "b1": "bb", "b2": "bb", "c": "c"}.items():
            service.write(name, content)
    elif operation == "list":
        os.utime(f"{service.tree}/b1", (1, 1))


def check_strangers():
    """What somebody else has put in the journal's place is neither followed nor removed; the save does without."""
    with Service(RUX) as service:
        change_tree(service, "scan")
        service.scan()
        outside, place = service.write("../outside", b"RUXSave1" + b"\xff" * 100), f"{service.space}/{JOURNAL}"
        strangers = [lambda: os.symlink(outside, place), lambda: os.mkdir(place), lambda: os.mkfifo(place)]
        if os.geteuid() == 0:
            strangers.append(lambda: (shutil.copy(outside, place), os.chown(place, 12345, -1)))
        for number, make in enumerate(strangers):
            make()
            service.write(f"d{number}", "d")
            service.scan()
            assert f"{service.tree}/d{number}" in service.database(RECORDS) and os.path.lexists(place)
            os.rmdir(place) if os.path.isdir(place) and not os.path.islink(place) else os.unlink(place)
        for text in ("what is in the place of the journal", "no journal protects the save of"):
            assert service.logged(text) == len(strangers), service.log()
        shutil.copy(outside, place)  # the service's own, but garbage
        service.scan()
        assert not os.path.exists(place) and service.logged("no journal protects") == len(strangers)
        assert open(outside, "rb").read() == b"RUXSave1" + b"\xff" * 100


def injected(service, operation, name, fault):
    """Carries out the operation in a new service, with a fault in the calls on that file of the space."""
    service.kill()
    service.start()
    with service.traced("-P", f"{service.space}/{name}", "-e", "inject=" + fault, by=signal.SIGKILL):
        return getattr(service, operation)()


def check_faults():
    with Service(RUX) as service:
        for name in "ab":
            service.write(name, "pair")
        service.scan()
        assert service.compress() == "1,4"
        undo = service.database(LINKED)
        # What could not be read is not written over.
        for number, fault in enumerate(["openat:error=EMFILE:when=1", "openat:error=EIO:when=1", "read:error=EIO:when=1"], 1):
            for name in "cd":
                service.write(f"{name}{number}", f"pair {number}")
            service.scan()
            assert injected(service, "compress", IMAGES[2], fault) == "1,6"
            assert service.database(LINKED) == undo and service.database(GROUPS) == {}
            assert service.logged("The DB3 open fail.") == number
        # A journal that cannot be made, or not of these files, does not forbid the save.
        for number, (name, fault) in enumerate([(JOURNAL, "openat:error=EACCES"), (IMAGES[0], "pread64:error=EIO")], 1):
            service.write(f"e{number}", f"{number}")
            injected(service, "scan", name, fault)
            assert f"{service.tree}/e{number}" in service.database(RECORDS)
            assert service.logged("no journal protects the save of") == number and not os.path.exists(f"{service.space}/{JOURNAL}")
        # Where there is neither a journal nor room set aside, nothing is written.
        os.mkdir(f"{service.space}/{JOURNAL}")
        service.write("g", "g")
        before = [service.database(name) for name in IMAGES]
        injected(service, "scan", IMAGES[0], "fallocate:error=EOPNOTSUPP:when=1")
        assert [service.database(name) for name in IMAGES] == before and service.logged("The DB1 write fail.")
        os.rmdir(f"{service.space}/{JOURNAL}")
        # A journal that cannot be read, as yet, may be whole: nothing is written, until it is taken back.
        service.write("f", "f")
        with contextlib.suppress(OSError):
            injected(service, "scan", JOURNAL, "unlink:signal=SIGKILL")
        before = read(service.space)
        assert JOURNAL in before
        service.process.wait()
        service.start()
        for name, fault in ((JOURNAL, "openat:error=EMFILE"), (JOURNAL, "pread64:error=EIO"), (IMAGES[0], "openat:error=EROFS:when=1")):
            injected(service, "scan", name, fault)
            assert read(service.space) == before, fault
        os.remove(f"{service.space}/{IMAGES[0]}")
        service.restore()
        assert sorted(read(service.space)) == sorted(IMAGES[1:]), "what is missing stays missing"


def main():
    print(f"seed {(seed := random.randrange(1 << 30))}")
    pick = random.Random(seed)
    check_strangers()
    check_faults()
    with Service(RUX) as service:
        records = {}
        for operation in OPERATIONS:
            change_tree(service, operation)
            records[operation] = record(service, operation)
        service.kill()
        for operation, (calls, before, after) in records.items():
            states = states_of(calls, before, after, pick)
            check_states(states)
            end_everywhere(service, operation, calls, before, after)
            print(f"{operation}: {len(calls)} calls, {len(states)} states")
        service.start()
    print("ok")


if __name__ == "__main__":
    main()
