#!/usr/bin/env python3
"""The client as people and scripts meet it: its tables and formats, questions, Ctrl-C, refusals, messages.

usage: ruxctl_test.py RUX RUXCTL [CHECK ...]
"""

import csv
import html.parser
import io
import json
import os
import pty
import re
import select
import shutil
import signal
import stat
import subprocess
import sys
import threading
import time

from support.service import LIST, SCAN, TOKEN, checks, for_root, string16

COLOUR = re.compile(r"\x1b\[\d+m")

PACKAGING = os.path.dirname(os.path.abspath(__file__)) + "/../packaging/"


class Client:
    def __init__(self, service):
        self.binary = os.path.abspath(service.ruxctl)
        self.environment = {**os.environ, "RUX_ROOT": service.root, "TERM": "xterm"}
        self.environment.pop("NO_COLOR", None)

    def __call__(self, *arguments, status=0):
        """What a run prints on standard output; what it says on standard error is in `said`."""
        run = subprocess.run([self.binary, *arguments], env=self.environment, capture_output=True, text=True, errors="replace", check=False,
                             stdin=subprocess.DEVNULL, start_new_session=True)
        assert run.returncode == status, (arguments, run)
        assert not COLOUR.search(run.stdout + run.stderr), "colour without a terminal"
        self.said = run.stderr
        return run.stdout

    def start(self, *arguments):
        return subprocess.Popen([self.binary, *arguments], env=self.environment, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def on_terminal(self, *arguments, answer=b"", quiet=False, **environment):
        """What a run on a terminal shows, the answer typed once it asks; its exit status."""
        process, terminal = pty.fork()
        if process == 0:
            if quiet:
                os.dup2(os.open("/dev/null", os.O_WRONLY), 2)
            os.execve(self.binary, [self.binary, *arguments], {**self.environment, **environment})
        shown = b""
        while select.select([terminal], [], [], 30)[0]:
            try:
                part = os.read(terminal, 65536)
            except OSError:  # its other end is closed
                break
            shown += part
            if answer and shown.endswith(b"[y/N] "):
                os.write(terminal, answer + b"\n")
                answer = b""
        return shown.decode(), os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])


def inodes(*paths):
    return len({os.stat(path).st_ino for path in paths})


def scanned(client, service):
    """Three files of one content, two of another with odd names, one alone: in the space "s", and two of the three in "t"."""
    a = [service.write(name, "a" * 10000) for name in ("a0", "a1", "<i>&/a2")]
    odd = [service.write(name, "b" * 2000) for name in ('b,"1', "b \u00fc\n\x1b[K")]
    service.write("alone", "c")
    printed = client("scan", "--space", "s", service.tree)
    assert re.match(r"6 files recorded in \d+\.\d s\n", printed), printed
    client("scan", "--space", "t", a[0], a[1])
    return a, odd


def check_tables_and_formats(service):
    client = Client(service)
    for command in (["list"], ["groups"], ["report", "--html", "-"], ["status"]):
        assert "ruxctl scan --space" in client(*command) + client.said
    client("stop", "scan")
    assert client.said == "Nothing is running\n" and client("getprop", "sys.ruxservice.stop_scan") != "true\n"
    a, odd = scanned(client, service)
    assert re.match("6 files recorded in .* s, 6 before", client("scan", "--space", "s", service.tree + "/../tree//"))

    blocks = os.stat(a[0]).st_blocks * 512, os.stat(odd[0]).st_blocks * 512
    listing = json.loads(client("list", "--json", "--space", "s"))
    assert listing["total"] == {"groups": 2, "links": 3, "bytes": 2 * blocks[0] + blocks[1]}, listing
    # What the first space would link is no longer to be had in the second.
    listing = json.loads(client("list", "--json"))
    assert listing["spaces"][1] == {"space": "t", "groups": 0, "links": 0, "bytes": 0}, listing
    rows = [line.split() for line in client("list").splitlines()]
    assert rows[0] == ["SPACE", "GROUPS", "LINKS", "RECLAIMABLE"] and rows[3][0] == "total", rows
    assert client("list", "--bytes", "--space", "s").split()[-1] == str(2 * blocks[0] + blocks[1])
    assert client("list", "--bytes", "--space", "s", "--match", ".*/a1").split()[-1] == str(2 * blocks[0])

    groups = json.loads(client("groups", "--space", "s", "--json"))
    assert [group["reclaimable_bytes"] for group in groups] == [2 * blocks[0], blocks[1]]
    assert {member["path"] for member in groups[1]["members"]} == set(odd)
    assert len(json.loads(client("groups", "--space", "s", "--json", "--top", "1"))) == 1
    table = list(csv.DictReader(io.StringIO(client("groups", "--space", "s", "--csv"), newline="")))
    assert {row["path"] for row in table} == {*a, *odd} and {row["state"] for row in table} == {"there"}
    assert set(client("groups", "--space", "s", "--null").split("\0")) == {*a, *odd, ""}
    assert "there    " + a[0] in client("groups")
    # A name stays on its line, and does nothing to a terminal.
    assert f"$'{service.tree}/b \u00fc\\012\\033[K'\n" in client("groups")
    assert "Files of t that are also in s are counted there" in (client("list") and client.said), client.said
    state = json.loads(client("status", "--json"))
    assert state["running"] and [(space["space"], space["files"], space["directory"]) for space in state["spaces"]] == \
        [("s", 6, service.tree), ("t", 2, service.tree)], state


def check_compression_and_restore(service):
    client = Client(service)
    a, odd = scanned(client, service)
    assert "3 files can become links, giving back" in client("compress", "--dry-run", "s")
    client("compress", "s", status=2)
    assert "--yes" in client.said and inodes(*a) == 3
    client("except", "show")
    assert "ruxctl except add" in client.said
    shown, status = client.on_terminal("compress", "s", answer=b"n")
    assert status == 0 and "Nothing has been changed" in shown and inodes(*a) == 3, shown
    # What was recorded before an exception is not kept from being linked: the question says so.
    client("except", "add", r".*\.never", ".*/a[01]")
    assert "2 files recorded in s match and would still be linked" in client.said, client.said
    assert re.search(r"/a[01] matches an exception", client.on_terminal("compress", "s", answer=b"n")[0])
    client("except", "remove", ".*/a[01]")
    # The terminal is asked, whatever standard error is.
    shown, status = client.on_terminal("compress", "s", answer=b"y", quiet=True)
    assert status == 0 and inodes(*a) == 1 and inodes(*odd) == 1 and "undo: ruxctl restore --space s" in shown, shown
    # Colour is for terminals, unless it is not wanted.
    assert COLOUR.search(client.on_terminal("list")[0])
    assert not COLOUR.search(client.on_terminal("list", NO_COLOR="1")[0])
    assert not COLOUR.search(client.on_terminal("list", TERM="dumb")[0])

    def states():
        return {member["path"]: member["state"] for group in
                json.loads(client("groups", "--all", "--space", "s", "--json")) for member in group["members"]}

    os.remove(a[2])
    service.write("other", "b")
    os.rename(f"{service.tree}/other", odd[1])
    assert states() == {a[0]: "linked", a[1]: "linked", a[2]: "gone", odd[0]: "there", odd[1]: "changed"}, states()
    client("restore", "--space", "s", status=2)
    printed = client("restore", "--space", "s", "--match", ".*/a1", "--yes")
    assert "2 files of 1 group will get data of their own, taking up 12.0 KiB" in client.said, client.said
    assert inodes(a[0], a[1]) == 2 and "12.0 KiB taken up again" in printed, printed
    assert client("compress", "s") == "Nothing can be linked\n"
    client("restore", "--space", "s", "--match", "nothing")
    assert "No linked files match" in client.said
    client("restore", "--space", "s", "--match", "(", status=2)
    # What is one file without an undo gets one by what is advised.
    os.remove(a[1])
    os.link(a[0], a[1])
    client("restore", "--space", "s", "--yes")
    assert "2 paths of s are names of one file with others and have no undo" in client.said, client.said
    (advice,) = re.findall("^  (ruxctl scan .* && ruxctl compress s)$", client.said, re.M)
    subprocess.run(advice.replace("ruxctl", client.binary), shell=True, env=client.environment, check=True)
    client("restore", "--space", "s", "--yes")
    assert inodes(a[0], a[1]) == 2 and "no undo" not in client.said, client.said
    assert "ruxctl scan --space nowhere" in (client("restore", "--space", "nowhere", status=1) or client.said)


def check_restores_of_directories(service):
    client = Client(service)
    for name in ("one/a", "one/b", "two/a", "two/b", "two/c", "two/d"):
        service.write(name, "c" * 5000 if name < "two/c" else "d" * 5000)
    client("dedupe", "--yes", service.tree)
    one, two = service.tree + "/one", service.tree + "/two"
    os.remove(two + "/b")
    service.write("two/b", "c" * 5000)  # a file of its own by now, which takes nothing
    plan = client("restore", "--dry-run", one)
    assert f"own  {two}/a\n" in plan and "/c\n" not in plan and "1 of them does not match by itself" in client.said, (plan, client.said)
    assert json.loads(client("restore", "--dry-run", "--json", one)) == {"bytes": 16384, "dry_run": True, "files": 3, "left": []}
    assert inodes(one + "/a", one + "/b", two + "/a") == 1
    # A disk that is not mounted takes nothing from what is known.
    os.rename(service.tree, service.tree + "-away")
    os.mkdir(service.tree)
    known = json.loads(client("status", "--json"))["spaces"]
    client("dedupe", "--yes", service.tree, status=1)
    client("restore", "--yes", service.tree, status=1)
    assert "is their disk mounted?" in client.said and json.loads(client("status", "--json"))["spaces"] == known, client.said
    os.rmdir(service.tree)
    os.rename(service.tree + "-away", service.tree)
    assert f"own  {one}/b\n" in client("restore", "--yes", "--verbose", one)
    assert inodes(one + "/a", one + "/b", two + "/a") == 3 and inodes(two + "/c", two + "/d") == 1
    assert json.loads(client("restore", "--yes", "--json", service.tree))["bytes"] == 8192
    assert json.loads(client("restore", "--yes", "--json", service.tree)) == {"bytes": 0, "dry_run": False, "files": 0, "left": []}
    # A path that leads to another group's file by now.
    mixed = [service.write("mixed/" + name, name[0] * 5000) for name in ("e1", "e2", "f1", "f2")]
    client("dedupe", "--yes", service.tree + "/mixed")
    os.remove(mixed[2])
    os.link(mixed[0], mixed[2])
    before = disk_use(service.tree)
    assert json.loads(client("restore", "--yes", "--json", service.tree))["bytes"] == disk_use(service.tree) - before == 16384
    client("restore", "--yes", status=2)
    client("restore", "--yes", one, "--match", "a")
    assert "Patterns match whole paths" in client.said, client.said
    # What a later request leaves out does not lose its undo to a new copy.
    linked = [service.write("more/" + name, "e" * 5000) for name in ("a1", "a2", "b")]
    client("dedupe", "--yes", service.tree + "/more")
    linked.append(service.write("more/c", "e" * 5000))
    client("dedupe", "--dry-run", service.tree + "/more")
    client("dedupe", "--yes", "--exclude", "a?", service.tree + "/more")
    assert inodes(*linked) == 1
    client("restore", "--yes", service.tree + "/more")
    assert inodes(*linked) == 4
    for name in "xy":
        service.write("more/" + name, "f" * 5000)
    client("dedupe", "--yes", service.tree + "/more")  # what is told before a question is told without one
    assert "4 restored files left alone" in client.said, client.said


def check_what_is_chosen(service):
    """The order of the directories, lists of files, globs, sizes, and what one kept file cannot serve."""
    client = Client(service)
    old, new = service.write("new/x", "same" * 2000), service.write("old/x", "same" * 2000)
    os.utime(new, (1, 1))
    others = [service.write("new/" + name, "same" * 2000) for name in ("y", "z")]
    for path in others:
        os.chmod(path, 0o600)
    client("dedupe", "--yes", service.tree + "/old", service.tree + "/new")
    assert os.stat(old).st_mtime == 1 and "8.0 KiB more could be given back" in client.said, client.said
    listed = client("scan", "--space", "s", "--files-from", "/dev/null", status=1)
    paths = "\0".join([*others, service.tree + "/gone", ""])
    listed = subprocess.run([client.binary, "scan", "--space", "s", "-0", "--files-from", "-"], input=paths, text=True,
                            env=client.environment, capture_output=True, check=True)
    assert listed.stdout.startswith("2 files recorded") and "1 listed path not there" in listed.stderr, listed
    for number, globs in enumerate((["--exclude", "new/"], ["--exclude", "./new"], ["--include", "../tree/old"])):
        run = subprocess.run([client.binary, "scan", "--space", f"g{number}", *globs, "."], cwd=service.tree,
                             env=client.environment, capture_output=True, text=True, check=True)
        assert run.stdout.startswith("1 file recorded") and "matches" not in run.stderr, run
    client("scan", "--space", "s", "--exclude", "nothing", service.tree)
    assert "Warning: no file matches nothing" in client.said, client.said
    for size in ("-3", "99999999999999999999", "x", "1.5X", ""):
        client("scan", "--space", "s", f"--min-size={size}", service.tree, status=2)
    assert client("scan", "--space", "m", "--min-size", "7.5KiB", "--max-size", "8 kB", service.tree).startswith("4 files")
    assert client("scan", "--space", "n", "--min-size", "7.9K", service.tree).startswith("0 files")
    client("scan", "--space", "s", "--match", "*.jpg", service.tree, status=2)
    assert r"as a pattern: .*\.jpg" in client.said, client.said
    client("list", "--match", "LICENSE")
    assert "Patterns match whole paths" in client.said, client.said


def disk_use(*trees):
    text = subprocess.run(["du", "-sc", "--block-size=1", *trees], check=True, stdout=subprocess.PIPE, text=True).stdout
    return int(text.splitlines()[-1].split()[0])


def check_figures(service):
    """The preview's figure, the result's and what du sees are one, whatever links there are before."""
    client = Client(service)
    tree = f"{service.base}/linked"
    large, small = "l" * 700000, "s" * 30000
    for name in ("one", "two", "three"):
        service.write(f"{tree}/{name}", large)
        service.write(f"{tree}/d/{name}", small)
    os.link(tree + "/three", tree + "/d/three-too")
    os.link(tree + "/d/two", service.base + "/outside")  # frees nothing
    os.symlink("two", tree + "/pointer")
    os.symlink("d", tree + "/e")
    os.chmod(tree + "/d/three", 0o700)
    places = ("--follow", tree + "/one", tree + "/d/one", tree)  # so these are kept
    with open(tree + "/d/busy", "w", encoding="ascii") as busy:
        busy.write(small)
        busy.flush()
        text = client("dedupe", "--dry-run", "--exclude", "d", "--exclude", "/**/e", *places)
        assert "/two" in text and "/d/" not in text and "/e/" not in text, text
        # A space of its own: nothing comes along from the scan before.
        text = client("dedupe", "--dry-run", "--min-size", str(len(large)), *places)
        assert "/two" in text and not re.search("/[de]/(one|two|busy)", text), text
        plan = json.loads(client("dedupe", "--dry-run", "--json", *places))
        (space,) = plan["spaces"]
        text = client("dedupe", "--dry-run", *places)
        assert re.search("skip  .*/three: of another owner, group, mode", text) and "/busy: open for writing" in text, text
        before = disk_use(tree, service.base + "/outside")
        shown, status = client.on_terminal("dedupe", *places, answer=b"y", quiet=True)
        assert status == 0 and "undo: ruxctl restore --space " + space in shown, shown
        freed = before - disk_use(tree, service.base + "/outside")
    assert plan["freed_bytes"] == freed > 0, (plan, freed)
    figure = re.search(r"linked in .*, ([\d.]+ [KM]iB) given back", shown).group(1)
    assert f"giving back {figure}; nothing" in text, (figure, text)
    assert {skip["path"].rsplit("/", 1)[1] for skip in plan["skipped"]} == {"three", "busy"}, plan
    assert "  linked   " + tree + "/pointer\n" in client("groups", "--all", "--space", space)
    assert "Forget" in client.on_terminal("forget", "--force", space, answer=b"n")[0] and space in client("status")
    client("forget", "--yes", space, status=1)
    assert "would lose their undo" in client.said
    # A file that has changed is linked again, and one that could not be.
    os.remove(tree + "/two")
    shutil.copy(tree + "/one", tree + "/two")
    again = json.loads(client("dedupe", "--yes", "--json", "--no-refresh", *places))
    assert again["links"] == 0, again
    again = json.loads(client("dedupe", "--yes", "--json", *places))
    assert again["links"] == 2 and inodes(tree + "/one", tree + "/two") == inodes(tree + "/d/one", tree + "/d/busy") == 1, again
    client("scan", "--fresh", "--space", space, tree + "/d", status=1)
    assert "would not be met" in client.said
    client("scan", "--fresh", "--space", space, "--exclude", "two", tree, status=1)
    with open(tree + "/one", "ab"):
        printed = client("restore", "--yes", "--space", space, status=1)
        assert f"linked  {tree}/one\n" in printed and f"ruxctl restore --space {space}\n" in client.said, (printed, client.said)
    client("restore", "--yes", "--space", space)
    assert inodes(tree + "/one", tree + "/two", tree + "/three", tree + "/d/three-too") == 4
    client("list")
    assert f"In {space}: " in client.said and f"ruxctl scan --fresh --space {space}, then compress" in client.said, client.said
    client("scan", "--fresh", "--space", space)
    assert not service.logged("scanRules Incorrect format")
    client("compress", "--yes", space)
    assert inodes(tree + "/one", tree + "/two", tree + "/three") == 1


def check_what_is_left_out(service):
    client = Client(service)
    tree = service.base + "/odd"
    os.makedirs(tree + "/closed")
    for name in (b"a\nb", b"\xff"):
        with open(os.fsencode(tree) + b"/" + name, "w", encoding="ascii") as file:
            file.write("odd")
    os.chmod(tree + "/closed", 0)
    for name in ("far", "near"):
        service.write("../outside/" + name, name)
    for name, target in (("out", "../outside/far"), ("all", "../outside"), ("in", "a\nb")):
        os.symlink(target, f"{tree}/{name}")
    assert client("scan", "--follow", "--space", "s", tree).startswith("5 files recorded in")
    assert "Warning: 3 files outside of the directories" in client.said, client.said
    client("scan", "--space", "s", tree)
    assert "3 symbolic links not followed (--verbose says which)" in client.said, client.said
    printed = client("scan", "--verbose", "--space", "s", tree)
    assert f"  {tree}/out\n" in client.said, client.said
    assert printed.startswith("1 file recorded in") and "not valid UTF-8" in client.said, (printed, client.said)
    assert ("closed: Permission denied" in client.said) == (os.geteuid() != 0)
    client("scan", "--space", "s", "--match", "(", tree, status=2)
    assert "no regular expression" in client.said
    with open(service.space + "/RUXFileInfo.json", encoding="utf-8") as file:
        assert stat.S_IMODE(os.fstat(file.fileno()).st_mode) == 0o600
    assert stat.S_IMODE(os.stat(service.space).st_mode) == 0o700
    for name, letter in (("one", "o"), ("two", "t"), ("three", "t")):
        service.write("large/" + name, letter * (70000 + ord(letter)))
    shown = client.on_terminal("dedupe", "--dry-run", service.tree + "/large")[0]
    assert "2 files recorded" in shown and "1 large file not read: no other has the size" in shown, shown
    # Of a list that takes two requests the one does not know what the other meets.
    small, lone = service.write("small", "s"), service.tree + "/large/one"
    listed = service.write("../list", lone + "\n" + (small + "\n") * ((1 << 20) // len(small) + 1))
    shown = client.on_terminal("dedupe", "--dry-run", "--files-from", listed)[0]
    assert "2 files recorded" in shown and "not read" not in shown, shown


class Page(html.parser.HTMLParser):
    """The text of a page; fails for tags that are not closed in their order, and for what is not in the page."""

    def __init__(self, text):
        super().__init__()
        self.open, self.text, self.cells = [], "", 0
        self.feed(text)
        assert not self.open, self.open

    def handle_starttag(self, tag, attributes):
        assert tag not in ("img", "iframe", "link") and not {"src", "href"} & {name for name, _ in attributes}
        self.cells += dict(attributes).get("class") == "cell"
        if tag not in ("meta", "br", "input"):
            self.open.append(tag)

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, tag

    def handle_data(self, data):
        self.text += data


def check_report(service):
    client = Client(service)
    scanned(client, service)
    target = f"{service.base}/report.html"
    client("report", "--html", target, "--space", "s")
    with open(target, encoding="utf-8") as file:
        page = Page(file.read())
    # One group of three copies of 10,000 bytes, one of two of 2,000, nothing linked yet.
    for text in ("28.0 KiBcan be given back", "0 Bgiven back by links", "2groups of duplicates", "6files recorded",
                 f"{service.tree}/b,\"1 there", f"{service.tree}/<i>&"):
        assert text in page.text, (text, page.text)
    assert page.cells == 2, page.cells
    assert Page(client("report", "--html", "-", "--space", "t")).cells == 1
    client("report", "--html", "/no/such/directory/x", status=1)
    assert "cannot be written" in client.said


def check_exceptions(service):
    client = Client(service)
    scanned(client, service)
    client("except", "add", r".*\.tmp")
    client("except", "add", r".*\.bak", r".*\.tmp")
    assert client("except", "show") == ".*\\.tmp\n.*\\.bak\n"
    client("except", "add", "(", status=2)
    assert "no regular expression" in client.said
    assert client("except", "check", r".*\.tmp", "/x.tmp", "/x").split() == ["excepted", "/x.tmp", "scanned", "/x"]
    assert client("except", "check", ".*/alone") == f"{service.tree}/alone\n"
    client("except", "set", "never")
    assert client("except", "show") == "never\n"
    client("except", "remove", "never")
    assert client("except", "show") == "" and "No exceptions are set" in client.said
    # What has been recorded before is told of, and left out by what is advised.
    client("except", "add", ".*/a[01]")
    assert "2 files recorded in s match and would still be linked" in client.said, client.said
    (advice,) = re.findall("ruxctl (scan --space s)$", client.said, re.M)
    client(*advice.split())
    assert "2 files left out by exceptions, or unreadable (--verbose says which)" in client.said, client.said
    assert "/a0" not in client("groups", "--space", "s", "--all")
    client("dedupe", "--dry-run", "--verbose", service.tree)
    assert f"  {service.tree}/a1: matches the exception .*/a[01]\n" in client.said and "/alone: " not in client.said, client.said


def check_the_exceptions_of_the_package(service):
    """What some programs write in place stays apart, what nobody does is linked."""
    client = Client(service)
    with open(PACKAGING + "exceptions.rules", encoding="ascii") as file:
        client("except", "set", *(line.rstrip("\n") for line in file if not line.startswith("#")))
    apart = [service.write(path, "same") for path in (
        ".config/chromium/Default/Session Storage/MANIFEST-000001", "leveldb/MANIFEST-000001", "main/base/5/1259", "mysql/ibdata1",
        ".Sent/dovecot.index.log", "disk.qcow2", "a.git/logs/HEAD", ".git/modules/a/logs/HEAD", "docker/volumes/a/_data/a", "a.sqlite")]
    linked = [service.write(path, "same") for path in ("a.jpg", ".git/objects/pack/a.pack", "base/a/a", "a.config/a", "changelog")]
    client("dedupe", "--yes", service.tree)
    assert inodes(*linked) == 1 and inodes(*apart, linked[0]) == len(apart) + 1


def check_refusals_and_interrupts(service):
    client = Client(service)
    scanned(client, service)
    # A scan is held by the pipe that stands where its marks are to be read.
    def held(space):
        pipe = f"{os.path.dirname(service.space)}/{space}/RUXModifyFileInfo.json"
        shutil.rmtree(os.path.dirname(pipe), ignore_errors=True)
        os.makedirs(os.path.dirname(pipe))
        os.mkfifo(pipe)
        return pipe

    def reached(pipe, process=None):
        while process is None or process.poll() is None:
            try:
                return os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
            except OSError:
                time.sleep(0.01)
        raise AssertionError("the scan was not held")

    def held_scan(space):
        pipe = held(space)
        scan = client.start("scan", "--space", space, service.tree)
        return scan, pipe, reached(pipe, scan)

    def let_go(pipe, writer):
        os.unlink(pipe)
        os.close(writer)

    def expect_busy(*arguments, what="another operation"):
        client(*arguments, status=4)
        advice = "ruxctl stop scan, list or compress" if what == "another operation" else "end it: ruxctl stop scan\n"
        assert f"busy with {what}" in client.said and advice in client.said, client.said

    long_scan, pipe, writer = held_scan("u")
    assert re.search(r"busy with a scan \(process \d+, for ", client("status"))
    for command in (("scan", "--space", "s", service.tree), ("compress", "--yes", "t"), ("forget", "--yes", "t"),
                    ("scan", "--fresh", "--space", "t", service.tree)):
        expect_busy(*command, what=r"a scan (process ")
    client("stop", "compress", status=1)
    assert "what runs is a scan (process " in client.said, client.said
    assert client("getprop", "sys.ruxservice.stop_scan") == "false\n"
    waiting = client.start("compress", "--wait", "--yes", "t")
    long_scan.send_signal(signal.SIGINT)
    while client("getprop", "sys.ruxservice.stop_scan") != "true\n":
        assert long_scan.poll() is None
    let_go(pipe, writer)
    out, err = long_scan.communicate(timeout=30)
    assert long_scan.returncode == 130 and "stopped; what was recorded is kept" in err, (out, err)
    assert "1 file linked" in waiting.communicate(timeout=30)[0] and waiting.returncode == 0
    memory = float(re.search(r"running, idle, last change just now, holds ([\d.]+) MiB", client("status")).group(1))
    assert abs(memory * 1024 - service.resident_kib()) < 4096

    # The same against a client that does not say what it does.
    pipe = held("v")
    raw = subprocess.Popen([client.binary, "call", str(SCAN), service.rule(space="v")], env=client.environment)
    writer = reached(pipe, raw)
    assert "busy" in client("status")
    client("setprop", "ruxctl.operation", f"{waiting.pid} 1 a restore")  # of a process that has ended
    expect_busy("restore", "--yes", "--space", "t")
    expect_busy("scan", "--space", "s", service.tree)
    client("stop", "scan")
    let_go(pipe, writer)
    assert raw.wait(30) == 0
    assert json.loads(service.call(LIST, service.rule())) is not None

    # Another one gets its turn between what a dedupe scans and what it links.
    (space,) = json.loads(client("dedupe", "--dry-run", "--json", service.tree))["spaces"]
    pipe, other = held(space), held("y")
    both = client.start("dedupe", "--yes", service.tree)
    writer = reached(pipe, both)
    is_in = threading.Event()

    def squeeze_in():
        while not is_in.is_set():
            service.call(SCAN, service.rule(space="y"))

    squeezing = threading.Thread(target=squeeze_in)
    squeezing.start()
    let_go(pipe, writer)
    writer = reached(other)
    is_in.set()
    let_go(other, writer)
    squeezing.join()
    assert "linked in" in both.communicate(timeout=30)[0] and both.returncode == 0

    # Another client stops it.
    stopped, pipe, writer = held_scan("w")
    time.sleep(0.5)  # a refusal would have come by then
    client("stop", "scan")
    let_go(pipe, writer)
    assert "stopped; what was recorded is kept" in stopped.communicate(timeout=30)[1] and stopped.returncode == 130

    last, _, writer = held_scan("x")
    service.kill()
    os.close(writer)
    err = last.communicate(timeout=30)[1]
    assert last.returncode == 3 and "no content is lost: start it, and run the same command again" in err, err
    service.start()


def check_messages(service):
    client = Client(service)
    scanned(client, service)
    service.kill()
    for command in (("scan", "--space", "s", service.tree), ("compress", "s"), ("restore", "--space", "s"),
                    ("except", "set", "x"), ("stop", "scan"), ("status",), ("call", "5")):
        client(*command, status=3)
        assert "rux &" in client.said and "RUX_ROOT" in client.said, (command, client.said)
    assert "s " in client("status", status=3), "the spaces are shown all the same"
    os.rename(f"{service.root}/data/local/zel", f"{service.root}/data/local/lez")
    client("status", status=3)
    assert "data/local/zel/: No such file or directory; to make it: mkdir -p /" in client.said
    os.rename(f"{service.root}/data/local/lez", f"{service.root}/data/local/zel")
    for option in ("--help", "--version"):
        run = subprocess.run([service.binary, option], env=client.environment, capture_output=True, text=True, timeout=30)
        assert run.returncode == 2 and "ruxctl is its client" in run.stderr, run
    service.start()
    def as_nobody(*arguments):
        return subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", client.binary, *arguments],
                              env=client.environment, capture_output=True, text=True, check=False)
    if os.geteuid() == 0 and as_nobody("--version").returncode == 0:
        os.chmod(service.base, 0o711)
        os.chmod(f"{service.root}/data/local/zel", 0o700)
        for command in (["status"], ["except", "show"], ["groups"], ["list"], ["scan", "--space", "s", "/"]):
            run = as_nobody(*command)
            assert run.returncode == 3 and "only root and the service's user are served; use sudo" in run.stderr, run
    del client.environment["RUX_ROOT"]
    client("status", status=3)
    assert client.said.startswith("ruxctl: RUX_ROOT is not set"), client.said
    client.environment["RUX_ROOT"] = service.root
    assert re.fullmatch(r"ruxctl \d+\.\d+\.\d+\n", client("--version"))
    for command in ("dedupe", "scan", "list", "groups", "compress", "restore", "forget", "except", "stop", "call"):
        assert "Examples:\n  ruxctl " + command in client(command, "--help"), command


@for_root
def check_what_the_unit_of_the_service_hides(service):
    client = Client(service)
    for name in ("hidden/a", "fixed/a", "fixed/b"):
        service.write(name, "same")
    hidden, fixed = service.tree + "/hidden", service.tree + "/fixed"
    service.kill()
    service.start("unshare", "-m", "sh", "-c", f"mount -t tmpfs none {hidden} && mount --bind {fixed} {fixed} &&"
                  f"mount -o remount,bind,ro {fixed} && exec $0")
    client("scan", "--space", "s", hidden, status=1)
    assert "does not see " + hidden in client.said, client.said
    assert "1 file can become a link" in client("dedupe", "--dry-run", fixed)
    client("dedupe", "--yes", fixed, status=1)
    assert "ReadWritePaths=" + fixed in client.said, client.said


def check_usage(service):
    client = Client(service)
    for arguments in ((), ("call",), ("call", "x"), ("call", "1", "--hex", "abc"), ("call", "1", "--hex", "zz"),
                      ("call", "1", "\udcff"), ("stop", "restore"), ("groups", "--top", "0"),
                      ("groups", "--json", "--csv")):
        client(*arguments, status=2)
    client("dedup", "--yes", service.tree, status=2)
    assert "no command dedup;" in client.said, client.said
    with open("/dev/full", "w", encoding="ascii") as full:
        run = subprocess.run([client.binary, "status"], env=client.environment, stdout=full, stderr=subprocess.PIPE, check=False)
        assert run.returncode == 1 and b"standard output cannot be written" in run.stderr, run
    # No other file gets what is printed where there is no standard output.
    client("setprop", "y", "before")
    run = subprocess.run(["sh", "-c", 'exec "$0" getprop y <&- >&-', client.binary], env=client.environment, check=False)
    client("setprop", "z", "after")
    assert run.returncode == 1 and client("getprop", "z") == "after\n"
    client("call", "1", status=1)
    assert "exception -4" in client.said, client.said
    client("call", "99", status=1)
    assert "status -74" in client.said, client.said
    client("scan", "--space", "s", "/no/such/dir", status=1)
    assert "No such file" in client.said, client.said
    client("list", "--space", "unknown", status=1)
    client("setprop", "x", "v" * 92, status=1)
    client("setprop", "x", "v" * 91)
    assert client("getprop", "x") == "v" * 91 + "\n"
    assert client("call", "3", "--hex", (TOKEN + string16("[]")).hex()) == f"status 0\n{(bytes(4) + string16('0,0')).hex()}\n"


def check_pages_and_completion(service):
    client = Client(service)
    scanned(client, service)
    pages = {}
    for name in ("rux.8", "ruxctl.1.in"):
        with open(PACKAGING + name, encoding="utf-8") as file:
            pages[name] = file.read().replace("@COMMANDS@\n", client("manual"))
    for name, source in pages.items():
        page = subprocess.run(["man", "--warnings", "-l", "-"], input=source, capture_output=True, text=True, check=True,
                              env={**os.environ, "MANWIDTH": "100", "LC_ALL": "C.UTF-8"})
        assert page.stderr == "" and "EXIT STATUS" in page.stdout, page
        if name == "ruxctl.1.in":
            text = re.sub(r"\s+", " ", re.sub(r".\x08", "", page.stdout))  # lines are filled
            for command in ("dedupe", "scan --space NAME", "list", "groups", "compress NAME...", "except add REGEX..."):
                assert f"ruxctl {command}" in text, command

    def completed(*words):
        script = ". \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _ruxctl; printf '%s\\n' \"${COMPREPLY[@]}\""
        return subprocess.run(["bash", "-c", script, PACKAGING + "ruxctl.bash", client.binary, *words],
                              env=client.environment, capture_output=True, text=True, check=True).stdout.split()

    assert completed("res") == ["restore"] and completed("g") == ["groups", "getprop"], completed("g")
    assert completed("list", "--sp") == ["--space"] and "--dry-run" in completed("compress", "--")
    assert completed("scan", "--space", "") == ["s", "t"], completed("scan", "--space", "")
    assert "add" in completed("except", "") and completed("stop", "c") == ["compress"]
    assert completed("groups", "--sort", "") == ["size", "count"] and "s" in completed("forget", "")


if __name__ == "__main__":
    checks(globals())
