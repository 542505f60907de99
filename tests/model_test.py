#!/usr/bin/env python3
"""Random trees, requests, damage and stops: the service must do what the model says, in everything that can be seen.

After each call the answer, the log, all database files, the properties and the tree are compared.

usage: model_test.py RUX RUXCTL HOLD_LIBRARY [SEED ...]     1-5 by default; 1-200 for the long form
"""

import contextlib
import copy
import hashlib
import json
import os
import random
import re
import shutil
import stat
import sys
import tempfile
import threading
import time

from support.model import PROGRESS, STOP, TOOL_LOG, UNREADABLE, Model, owners_of, text_on_disk
from support.service import COMPRESS, EXCEPT, IMAGES, LIST, RESTORE, SCAN, STOP_COMPRESS, STOP_SCAN, Service, numbers_of

CALLS = 25  # of one seed
CODES = {"scan": SCAN, "list": LIST, "compress": COMPRESS, "restore": RESTORE, "rules": EXCEPT}
WRONG = ["", "[", "]", "{", "x", "[]", "null", "{}", "7", "-1.5e308", '"x"', '{"sid":"s"}', "[[]]", "[null]", '[1,true,"s",{}]',
         '[["s"]]', "/* comment */ []", '[{"sid":null}]', '[{"sid":["s"]}]', '[{"sid":1.5}]', "[" * 100000,
         "[" * 999 + "]" * 999, "[" * 1000 + "1" + "]" * 1000, "[" + " " * 100000 + "]", '["[[[\\"[[[", /* [[[ */ "s"]',
         '[{"sid":"' + "x" * 5000 + '","regs":[".*"],"dirs":[]}]',
         '[{"sid":"s","regs":[".*"],"dirs":["","\\u0000","x\\u0000y","missing"]}]']
REFUSALS = {"scan": (None, "Rux_scanDuplicateFilesImp", "the scan has been started"),
            "list": ("{}", "Rux_getDuplicateFilesImp", "the Rux_getDuplicateFilesImp has been start, return"),
            "compress": ("0,0", "Rux_compressDuplicateFilesImp", "the Compress has been started,return"),
            "restore": (0, "Rux_restoreDuplicateFilesImp", "the Compress has been started,return")}
NAMES = ["a.jpg", "b.jpg", "c.JPG", "archive.tar.gz", ".profile", "README", "file.", "x.abcdefghij", "x.abcdefghijk",
         "é 😀.txt", "quote\"\\.t", "tab\t.t", b"bad\xff.t", ".rux-swap-0123456789abcdef0123456789abcdef",
         ".rux-swap-not-of-the-library-but-a-users-x", "d.d", "e", "f", "g"]
PATTERNS = [".*"] * 9 + [r".*\.jpg", r".*\.(jpg|t)", ".*/[a-m][^/]*", "jpg", "(", "[", r".*é.*", ".*/d[12]?/.*"]
MEMBERS = {"refresh": [True, True, True, True, False, 1, "true"], "follow_links": [False, False, True, 0, "false", None], "one_file_system": [True, True, False, 1],
           "min_size": [1, 1, 1, 2, 5000, 5000, 5001, 0, -1, 2**64, 1.5, "1", True],
           "max_size": [1, 1, 1, 4999, 5000, 5000, 0, 2**64 - 1, 2**64, -1, 1.0],
           "lone_size": [0, 1, 1, 1, 2, 2, 5000, 2**64 - 1, 2**64, -1, 1.0]}
SPACES = ["s"] * 20 + ["t"] * 6 + ["é u", "", "plain", "..", "a/b", "n\0l", "x" * 300]


def as_logged(text):
    """A text as a line of the log holds it: up to a NUL, other control characters as their numbers."""
    return re.sub("[\x01-\x1f]", lambda found: f"\\x{ord(found.group()):02x}", text.split("\0")[0])


class Session:
    def __init__(self, service, seed, other):
        self.service, self.pick, self.other = service, random.Random(seed), other
        self.model = Model(service.root)
        self.hold_directory = service.base + "/hold"
        os.mkdir(self.hold_directory)
        self.offset = os.path.getsize(service.base + "/log")
        self.arms = 0
        self.logs = self.pick.random() < 0.25  # the library's, from the first restore on
        with open(self.model.zel + "plain", "w", encoding="ascii"):
            pass

    # Trees

    def populate(self, directory, depth):
        pick = self.pick
        os.makedirs(directory, exist_ok=True)
        for name in pick.sample(NAMES, pick.randrange(1, 9)):
            path = os.path.join(os.fsencode(directory), os.fsencode(name))
            if not os.path.lexists(path):
                self.make(os.fsdecode(path), depth)

    def make(self, path, depth):
        pick = self.pick
        kind = pick.choice(["file"] * 8 + ["empty", "pipe", "link", "link", "hard", "directory", "directory"])
        files = self.nameable()
        if kind == "directory" and depth < 3:
            return self.populate(path, depth + 1)
        if kind == "pipe":
            return os.mkfifo(path)
        if kind == "link":
            return os.symlink(pick.choice(files + [".", ".." if depth > 0 else ".", os.path.basename(path), "nothing", self.service.tree,
                                                   UNREADABLE, self.other, self.other, os.path.dirname(path)]), path)
        if kind == "hard" and files and ".rux-swap" not in path:
            return os.link(pick.choice(files), path, follow_symlinks=False)
        with open(path, "w", encoding="ascii") as file:
            file.write("" if kind == "empty" else "abcd"[pick.randrange(4)] * pick.choice([1, 1, 5000, pick.randrange(2, 6)]))
        os.chmod(path, pick.choice([0o644, 0o644, 0o644, 0o600]))
        if os.geteuid() == 0:
            os.chown(path, pick.choice([0] * 9 + [1234]), pick.choice([0] * 9 + [4321]))
        with contextlib.suppress(OSError):  # not every file system has them
            os.setxattr(path, "user.note", pick.choice([b"1"] * 9 + [b"2"]))
        return self.set_time(path)

    def set_time(self, path):
        moment = self.pick.choice([-1, 0, 1, 10**9, 17 * 10**8]) * 10**9 + self.pick.choice([0, 1, 999999999])
        os.utime(path, ns=(moment, moment))

    def files(self):
        return [os.path.join(directory, name) for directory, _, names in os.walk(self.service.tree)
                for name in sorted(names) if stat.S_ISREG(os.lstat(os.path.join(directory, name)).st_mode)]

    def nameable(self):
        """Those that a JSON text can name, without names like the library's own: with a second name they are removed."""
        return [path for path in self.files() if "\udcff" not in path and ".rux-swap" not in path]

    def change(self):
        pick, files = self.pick, self.files()
        for path in pick.sample(files, min(len(files), 4)):
            what = pick.randrange(9)
            if what == 0:
                os.remove(path)
            elif what < 4:
                self.set_time(path)
            elif what == 4:
                with open(path, "a", encoding="ascii") as file:
                    file.write("a")
            elif what < 7 and path in self.nameable():  # replaced, by a copy of its own or by a link made by hand
                new = self.service.base + "/new"
                with contextlib.suppress(OSError):
                    shutil.copy2(path, new) if what == 5 else os.link(pick.choice(self.nameable()), new)
                    os.replace(new, path)
                with contextlib.suppress(OSError):
                    os.remove(new)  # a link of the file itself
        if (files := self.files()) and pick.random() < 0.3:  # a group forms again of files that are all new
            source = pick.choice(files)
            for number in pick.sample(range(1000), 2):
                with contextlib.suppress(shutil.SameFileError):
                    shutil.copy2(source, f"{self.service.tree}/{number}.copy")
        if pick.random() < 0.6:
            self.populate(self.service.tree + "/new" + str(pick.randrange(20)), 3)

    def damage(self):
        """One database file becomes something else."""
        pick = self.pick
        files = [os.path.join(self.model.zel, space, file) for space in ("s", "t", "é u") for file in IMAGES]
        path = pick.choice(files + [self.model.zel + "RUXExceptRules.json"])
        if os.path.isdir(path):
            return os.rmdir(path)
        if os.path.exists(path) and not os.path.isfile(path):
            return os.remove(path)
        if not os.path.isdir(os.path.dirname(path)):
            return None
        text = text_on_disk(path) or ""
        what = pick.randrange(7)
        if what < 2 and os.path.exists(path):
            os.remove(path)
        if what < 2:
            return (lambda: None, lambda: os.mkdir(path), lambda: os.mknod(path, stat.S_IFSOCK))[what * pick.choice([1, 2])]()
        if what == 2:
            text = ""
        elif what == 3:
            text = text[:pick.randrange(len(text) + 1)]
        elif what == 4:
            try:
                text = "/* laid out */ " + json.dumps(json.loads(text), indent=3)
            except ValueError:
                text = "null"
        elif what == 5:
            text = pick.choice(["null", "[]", "5", '"x"', '{"a":5,"":{"f_list":["x","y"]},"b":{"f_list":{}}}'])
        else:
            text = self.edit(text)
        with open(path, "w", encoding="utf-8", newline="") as file:
            file.write(text)
        return None

    def edit(self, text):
        """Some values of the wrong type, and odd members."""
        pick = self.pick
        try:
            image = json.loads(text)
        except ValueError:
            return text
        for record in image.values() if isinstance(image, dict) else []:
            if isinstance(record, dict) and record and pick.random() < 0.3:
                name = pick.choice(sorted(record))
                record[name] = pick.choice([None, True, "x", 5, 1.5, [], {}, -3, 2.0**1000, 2**63 - 1, 2**64 - 1])
            if isinstance(record, dict) and isinstance(record.get("f_list"), list) and pick.random() < 0.5:
                record["f_list"].insert(pick.randrange(len(record["f_list"]) + 1),
                                        pick.choice([self.service.tree + "/no/such", 7, None, "", "nul\0", self.service.tree]))
        if isinstance(image, dict) and pick.random() < 0.3 and image:
            image[sorted(image)[0] + "\0x"] = {"V": 1, "f_size": 1, "f_list": self.nameable()[:2]}
        return json.dumps(image)

    # Requests

    def request(self, operation):
        pick = self.pick
        if pick.random() < 0.1:
            return pick.choice(WRONG[:5] if pick.random() < 0.3 else WRONG)
        if operation == "rules":
            return json.dumps(pick.choice([[pick.choice(PATTERNS[9:])]] * 4 + [[".*/tree/[^/]+"], [r".*/e/.*", "("], [], {}, None, ["x", 5], "x"]))
        if operation == "compress":
            return json.dumps([pick.choice(SPACES + [5]) for _ in range(pick.choice([1, 1, 2, 3]))])
        if operation == "scan" and pick.random() < 0.2:  # whose are the files of the last one?
            return json.dumps([{"sid": "s", "regs": [".*"], "dirs": []}, {"sid": pick.choice([5, None, "a/b", "x" * 300])},
                               {"regs": [".*"], "dirs": [self.service.tree]}])
        return json.dumps([self.rule(operation) for _ in range(pick.choice([1, 1, 2, 3]))])

    def rule(self, operation):
        pick = self.pick
        tree = self.service.tree
        places = [tree, tree, tree + "/", tree + "/d.d", tree + "/nothing", pick.choice(self.nameable() or [tree]), ""]
        if operation == "restore":
            places = ["/e", "/", "a.jpg", "nowhere", ""]
        rule = {"sid": pick.choice(SPACES), "regs": [pick.choice(PATTERNS) for _ in range(pick.choice([1, 1, 2]))],
                "dirs": [pick.choice(places) for _ in range(pick.choice([0, 1, 1, 2, 2]))]}
        if operation != "restore" and not rule["dirs"] and pick.random() < 0.7:
            rule["dirs"] = [tree]
        if operation == "scan":
            for name, values in MEMBERS.items():
                if pick.random() < (0.7 if name in ("refresh", "lone_size") else 0.3):
                    rule[name] = pick.choice(values)
        if pick.random() < 0.3:
            name = pick.choice(["sid", "regs", "dirs"])
            wrong = pick.choice([None, None, 5, [], {}, ["x", 5], [5], "x"])
            if wrong is None:
                del rule[name]
            else:
                rule[name] = wrong
        return rule if pick.random() < 0.97 else 5

    # Calls

    def set(self, name, value):
        self.service.set_property(name, value)
        self.model.properties[name] = value

    def databases(self):
        found = {}
        for directory, _, names in os.walk(self.model.zel):
            for name in names:
                path = os.path.join(directory, name)
                found[os.path.normpath(path)] = "a socket" if stat.S_ISSOCK(os.stat(path).st_mode) else text_on_disk(path)
        return found

    def tree(self):
        found = {}
        for directory, _, names in os.walk(self.service.tree):
            for name in names:
                path = os.path.join(directory, name)
                st = os.lstat(path)
                content = None
                if stat.S_ISREG(st.st_mode):
                    with open(path, "rb") as file:
                        content = hashlib.md5(file.read()).digest()
                found[path] = (st.st_ino, (st.st_mode, *owners_of(path)), st.st_mtime_ns, content)
        return found

    def log(self):
        with open(self.service.base + "/log", "rb") as file:
            file.seek(self.offset)
            text = os.fsdecode(file.read())
        self.offset += len(os.fsencode(text))
        lines = []
        for line in re.split(r"\n(?=\d\d-\d\d \d\d:|$)", text)[:-1]:
            priority, tag, rest = re.match(r"\S+ \S+ +\d+ +\d+ ([A-Z]) (\S+) *: (.*)", line, re.S).groups()
            if tag == "tavo_f2fs_io":
                lines.append((priority, tag, re.sub(r": \d+ \(.*\)$", "", rest)))
            elif found := re.match(r"(\w+):\d+: \[RUX-NATIVE(:\w+)?\] (.*)", rest, re.S):
                function, place, message = found.groups()
                message = re.sub(r"(error code) \d+", r"\1 N", re.sub(r"^(invalid pattern .*?): .*", r"\1", message))
                lines.append((priority, function + (place or ""), message))
            else:
                lines.append((priority, tag, rest))
        return lines

    def call(self, operation):
        pick, model = self.pick, self.model
        request = self.request(operation)
        hold, inside, stop = None, [], False
        if operation == "restore" and self.logs:
            self.set(TOOL_LOG, "true")
        if operation in STOP and pick.random() < (0.9 if len(request) < 3 else 0.3):  # of no effect, from before
            self.set(STOP[operation], "true")
            self.set(PROGRESS, "x")
        busy = None
        if operation in ("compress", "restore") and (files := self.files()) and pick.random() < 0.2:
            busy = open(pick.choice(files), "ab")  # pylint: disable=consider-using-with
        model.busy = busy and os.fstat(busy.fileno()).st_ino
        # How many moments there will be, one of which may be held. The lines of a scan's readers come in any order,
        # and so does what a listing does with more files than one thread looks at.
        forecast = copy.deepcopy(model)
        forecast.begin()
        getattr(forecast, operation)(request)
        if operation == "restore" and any("analysis fail" in line[2] for line in forecast.lines):
            forecast.begin()  # no flag was held
        kind = "stat" if operation == "list" and pick.random() < 0.7 else "log"
        if forecast.moments[kind] and operation != "rules" and pick.random() < 0.7 and \
                not (operation == "scan" and forecast.tool_log) and not (kind == "stat" and forecast.moments[kind] > 63):
            hold = (kind, pick.randrange(forecast.moments[kind]) + 1)
            stop = operation in STOP and pick.random() < 0.85 and (kind == "stat" or operation != "list")
            if kind == "log":
                inside = [pick.choice(sorted(REFUSALS) + ["stop scan", "stop compress"])
                          for _ in range(pick.randrange(3))]
        value = pick.choice(["true"] * 8 + ["TRUE", "1", "true "])
        other = pick.choice(sorted(STOP))  # whose stop is set to be left alone by those that are refused

        def held():
            """What happens in the middle, as the model has it."""
            if hold[0] == "log":
                model.properties[STOP[other]] = "true"
            for call in inside:
                if call in REFUSALS:
                    model.lines.append(("D", *REFUSALS[call][1:]))
                elif call.split()[1] == operation:
                    name = {"scan": "Rux_forceStopScanDuplicateFilesImp",
                            "compress": "Rux_stopCompressDuplicateFilesImp"}[operation]
                    model.lines.append(("D", name, "RUX native service is active, stop"))
            if stop:
                model.properties[STOP[operation]] = value
            elif other == operation:
                model.properties[STOP[operation]] = "false"

        before, tree = self.databases(), self.tree()
        model.begin(hold, held)
        expected = getattr(model, operation)(request)
        was_held = hold is not None and model.hold is None
        answer = self.perform(operation, request, hold, was_held, inside, stop and value, other)
        if busy:
            busy.close()

        what = f"{operation} {request[:1000]} {hold} {inside} {stop and value}"
        lines = self.log()
        if operation == "scan":  # without the lines of the threads that read
            lines = [line for line in lines if line[:2] != ("D", "tavo_f2fs_io")]
        self.compare("log of " + what, [(*line[:2], as_logged(line[2])) for line in model.lines], lines)
        self.compare("answer of " + what, expected, answer)
        self.compare_databases(what, before)
        properties = (*STOP.values(), PROGRESS)
        self.compare("properties after " + what, [model.properties.get(name, "") for name in properties],
                     [self.service.property(name) for name in properties])
        self.compare_trees(what, tree)

    def perform(self, operation, request, hold, was_held, inside, stop, other):
        if not was_held:
            return self.service.call(CODES[operation], request)
        self.arms += 1
        arm = self.hold_directory + "/arm"
        with open(arm + ".new", "w", encoding="ascii") as file:
            prefix = self.service.tree if hold[0] == "stat" else "-"
            file.write(f"{hold[0]} {hold[1]} {prefix}\n{self.arms}")
        os.rename(arm + ".new", arm)
        answers = []
        caller = threading.Thread(target=lambda: answers.append(self.service.call(CODES[operation], request)))
        caller.start()
        while not os.path.exists(self.hold_directory + "/held") and caller.is_alive():
            time.sleep(0.0005)
        if os.path.exists(self.hold_directory + "/held"):
            os.remove(self.hold_directory + "/held")
            if hold[0] == "log":
                self.service.set_property(STOP[other], "true")
            for call in inside:
                if call in REFUSALS:
                    self.compare("refusal", REFUSALS[call][0], self.service.call(CODES[call], "[]"))
                else:
                    self.service.call(STOP_SCAN if call == "stop scan" else STOP_COMPRESS)
            if stop:
                self.service.set_property(STOP[operation], stop)
            elif other == operation:
                self.service.set_property(STOP[operation], "false")
        os.remove(arm)
        caller.join()
        return answers[0]

    @staticmethod
    def compare(what, expected, found):
        if expected == found:
            return
        if isinstance(expected, list) and isinstance(found, list):
            at = next((i for i, pair in enumerate(zip(expected, found)) if pair[0] != pair[1]),
                      min(len(expected), len(found)))
            expected, found = (f"[{at}] {expected[at:at + 4]}", f"[{at}] {found[at:at + 4]}")
        raise AssertionError(f"{what}\n  expected {expected}\n  found    {found}")

    def compare_databases(self, what, before):
        expected = dict(before)
        rules = os.path.normpath(self.model.zel + "RUXExceptRules.json")
        for path, text in self.model.texts.items():
            expected[os.path.normpath(path)] = text
        found = self.databases()
        if not isinstance(expected.get(rules, ""), str):  # set in this call
            assert found[rules].endswith("\n"), found[rules]
            expected[rules], found[rules] = expected[rules], json.loads(found[rules])
        for path in sorted(set(expected) | set(found)):
            self.compare(f"{path} after {what}", expected.get(path), found.get(path))

    def compare_trees(self, what, before):
        found = self.tree()
        self.compare("names after " + what, sorted(before), sorted(found))
        for path, (inode, mode, mtime, content) in before.items():
            if path in self.model.restored:
                self.compare(f"links of {path} after {what}", 1, os.stat(path).st_nlink)
                inode = found[path][0]
            if kept := self.model.links.get(path):
                inode, _, mtime, _ = before[kept]
            self.compare(f"{path} after {what}", (inode, mode, mtime, content), found[path])

    def run(self):
        pick = self.pick
        self.populate(self.service.tree, 0)
        if pick.random() < 0.1:  # enough for several values of the progress
            for i in range(230):
                self.service.write(f"many/{i}", "many")
        if pick.random() < 0.3:  # more ways to a directory than are walked
            os.makedirs(self.service.tree + "/few/few")
            self.make(self.service.tree + "/few/few/file", 3)
            for i in range(18):
                os.symlink("few", f"{self.service.tree}/few{i}")
        operation = "scan"
        for _ in range(CALLS):
            self.call(operation)
            # As a rule what a client would do next.
            operation = pick.choice({"scan": ["list", "list", "compress"], "list": ["compress"], "compress": ["restore"]}
                                    .get(operation, ["scan"]) * 3 + ["scan"] * 4 + ["list", "rules", "restore"])
            for chance, step in ((0.4, self.change), (0.2, self.damage), (0.05, self.restart)):
                if pick.random() < chance:
                    step()
            if pick.random() < 0.1:
                self.set(pick.choice([*STOP.values(), PROGRESS]), pick.choice(["true", "x"]))
            if pick.random() < 0.05:
                self.set(TOOL_LOG, pick.choice(["true", "True", "false"]))

    def restart(self):
        self.service.kill()
        self.service.start()
        self.log()
        properties = self.model.properties
        self.model = Model(self.service.root)
        self.model.properties = properties


@contextlib.contextmanager
def other_file_system():
    """A directory with one file on another file system than the trees, where there is one."""
    with tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as directory:
        with open(directory + "/far", "w", encoding="ascii") as file:
            file.write("unlike all others")
        yield directory


def main():
    rux, ruxctl, library = sys.argv[1:4]
    seeds = [str(number) for number in numbers_of(sys.argv[4:] or ["1-5"])]
    for seed in seeds:
        service = Service(rux, ruxctl)
        service.environment = {"LD_PRELOAD": library, "RUX_HOLD": service.base + "/hold",
                               "ASAN_OPTIONS": "verify_asan_link_order=0"}
        with service, other_file_system() as other:
            try:
                Session(service, seed, other).run()
            except BaseException:
                print("seed", seed)
                raise
    print(f"{len(seeds)} seeds", "ok")


if __name__ == "__main__":
    main()
