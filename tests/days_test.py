#!/usr/bin/env python3
"""Fourteen days with a tree that changes, as its user lives them: a dedupe each day, a restore every third.

Files are written in place, replaced, copied, linked, renamed and removed. A dedupe is stopped or killed at any moment, or
the disk under the database is full; a restore finds a file that a program writes. Then what the client advises is done.

usage: days_test.py RUX RUXCTL [SEED ...]     1-2 by default; 1-100 for the long form
"""

import collections
import contextlib
import json
import os
import random
import re
import shlex
import shutil
import signal
import subprocess
import sys
import time

from support.service import GROUPS, LINKED, MODIFIED, RECORDS, Service, md5sums, mounted, numbers_of

DAYS = 14
CONTENTS = [letter * size for letter in "abc" for size in (1, 4096, 100000)]


class Days:
    def __init__(self, service, seed):
        self.service, self.pick, self.seconds = service, random.Random(seed), 0.05
        self.clock = 10**9
        self.restored = set()  # paths that are left alone: restored, with one name
        self.disk = os.path.dirname(service.space)

    # The tree

    def paths(self):
        return [os.path.join(directory, name) for directory, _, names in os.walk(self.service.tree) for name in sorted(names)]

    def new_path(self):
        directory = self.pick.choice(["", "d/", "d/e/", "f/"])
        os.makedirs(f"{self.service.tree}/{directory}", exist_ok=True)
        return f"{self.service.tree}/{directory}{self.pick.randrange(1000)}"

    def write(self, path):
        with open(path, "w", encoding="ascii") as file:
            file.write(self.pick.choice(CONTENTS))
        self.touch(path)

    def touch(self, path):
        """The test's days are shorter than a second, in which no time tells of a change."""
        self.clock += 1
        os.utime(path, (self.clock, self.clock))

    def change(self):
        pick = self.pick
        for _ in range(pick.randrange(12)):
            path, other = pick.sample(self.paths(), 2)
            new = self.service.base + "/new"
            what = pick.choice(["write", "append", "touch", "replace", "copy", "copy", "keep time", "remove", "rename", "link", "new", "new"])
            if what == "write":
                self.write(path)
            elif what == "append":
                with open(path, "a", encoding="ascii") as file:
                    file.write("more")
                self.touch(path)
            elif what == "touch":
                self.touch(path)
            elif what in ("replace", "keep time"):  # by something else, or by a copy of its own
                shutil.copy2(path, new)
                if what == "replace":
                    self.write(new)
                os.replace(new, path)
            elif what == "copy":
                shutil.copy(path, new)
                os.replace(new, copy := self.new_path())
                self.touch(copy)
            elif what == "remove":
                os.remove(path)
            elif what == "rename":
                os.rename(path, self.new_path())
            elif what == "link" and not os.path.samefile(path, other):
                os.link(path, new)
                os.replace(new, other)
            elif what == "new":
                self.write(self.new_path())

    # The client

    def client(self, *arguments, expected=(0,)):
        run = self.service.client(*arguments, check=False)
        assert run.returncode in expected, (arguments, run)
        return run

    def dedupe(self, *options):
        self.forget_restored()
        return self.client("dedupe", "--yes", *options, self.service.tree)

    def space(self):
        (space,) = os.listdir(self.disk)
        return space

    def database(self, name):
        with open(f"{self.disk}/{self.space()}/{name}", encoding="utf-8") as file:
            return json.load(file) or {}

    def disturbed(self):
        """A dedupe to which something happens. What is then advised is just to go on."""
        self.forget_restored()
        kind = self.pick.choice(["kill", "stop", "full"])
        delay = self.pick.uniform(0, self.seconds)
        command = [self.service.ruxctl, "dedupe", "--yes", self.service.tree]
        if kind == "full" and os.path.ismount(self.disk):
            use = os.statvfs(self.disk)
            self.resize(max(4096, (use.f_blocks - use.f_bfree) * use.f_frsize))  # 0 would be without a limit
        with subprocess.Popen(command, env={**os.environ, "RUX_ROOT": self.service.root}, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT) as process:
            time.sleep(delay)
            if kind == "kill":
                self.service.kill()
            elif kind == "stop":
                process.send_signal(signal.SIGINT)
            said = process.communicate()[0].decode()
        if kind == "kill":
            self.service.start()
        elif kind == "full":
            self.resize(8 << 20)
            # To the letter.
            if advice := re.search(r"ruxctl compress \S+$", said):
                self.client(*shlex.split(advice.group())[1:], "--yes")
                assert not self.without_undo(), (said, self.without_undo())

    def resize(self, size):
        if os.path.ismount(self.disk):
            subprocess.run(["mount", "-o", f"remount,size={size}", self.disk], check=True)

    def without_undo(self):
        known = {path for group in self.database(LINKED).values() for path in group["f_list"]}
        return [path for path in self.paths() if os.stat(path).st_nlink > 1 and path not in known]

    def restore(self):
        groups = [group["f_list"] for group in self.database(LINKED).values()]
        linked = {path for paths in groups for path in paths if os.path.exists(path)}
        writers = contextlib.ExitStack()
        if in_vain := self.pick.random() < 0.5 and [path for path in linked if os.stat(path).st_nlink > 1]:
            writers.enter_context(open(self.pick.choice(sorted(in_vain)), "ab"))
        with writers:
            run = self.client("restore", "--yes", "--space", self.space(), expected=(0, 1))
        assert (run.returncode == 1) == bool(in_vain), run
        if in_vain:  # to the letter
            advice = re.search(r"ruxctl (restore --space|compress) \S+$", run.stderr, re.M)
            if "compress" in advice.group():
                self.client(*shlex.split(advice.group())[1:], "--yes")
            self.client("restore", "--yes", "--space", self.space())
        assert all(os.stat(path).st_nlink == 1 for path in self.paths())
        self.restored |= linked

    # What has to be so

    def forget_restored(self):
        """A scan forgets a path that is gone, and one that is a link again."""
        self.restored = {path for path in self.restored if os.path.exists(path) and os.stat(path).st_nlink == 1}

    def check(self, truth, day):
        assert md5sums(self.service.tree) == truth, day
        inodes = collections.defaultdict(set)
        for path, digest in truth.items():
            if path not in self.restored:
                inodes[digest].add(os.stat(path).st_ino)
        apart = [digest for digest, files in inodes.items() if len(files) > 1]
        assert not apart, (day, [path for path in truth if truth[path] in apart and path not in self.restored])
        for name in (RECORDS, GROUPS, MODIFIED):
            entries = self.database(name)
            named = {path for group in entries.values() for path in group["f_list"]} if name == GROUPS else entries
            assert not [path for path in named if not os.path.exists(path)], (day, name)
        assert not self.without_undo() and not self.service.stale_names(), day

    def live(self):
        for _ in range(30):
            self.write(self.new_path())
        for day in range(1, DAYS + 1):
            truth = md5sums(self.service.tree)
            start = time.monotonic()
            if self.pick.random() < 0.4:
                self.disturbed()
            if self.restored and self.pick.random() < 0.5:
                self.dedupe("--fresh")
                self.restored = set()
            else:
                self.dedupe()
                self.seconds = time.monotonic() - start
            self.check(truth, day)
            if day % 3 == 0:
                self.restore()
                assert md5sums(self.service.tree) == truth, day
            self.change()


def main():
    rux, ruxctl = sys.argv[1:3]
    for seed in numbers_of(sys.argv[3:] or ["1-2"]):
        with Service(rux, ruxctl) as service, mounted(os.path.dirname(service.space), "-t", "tmpfs", "-o", "size=8m", "none",
                                                      unmount=("umount", "-l")):
            try:
                Days(service, seed).live()
            except BaseException:
                print("seed", seed)
                raise
    print("ok")


if __name__ == "__main__":
    main()
