#!/usr/bin/env python3
"""The client as people and scripts meet it: its tables and formats, questions, Ctrl-C, refusals, messages.

usage: ruxctl_test.py RUX RUXCTL
"""

import csv
import html.parser
import io
import json
import os
import pty
import re
import select
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from support.service import LIST, SCAN, TOKEN, Service, string16  # noqa: E402

COLOUR = re.compile(r"\x1b\[\d+m")


class Client:
    def __init__(self, binary, service):
        self.binary, self.service = binary, service
        self.environment = {**os.environ, "RUX_ROOT": service.root, "TERM": "xterm"}
        self.environment.pop("NO_COLOR", None)

    def __call__(self, *arguments, status=0):
        """What a run prints on standard output; what it says on standard error is in `said`."""
        run = subprocess.run([self.binary, *arguments], env=self.environment, capture_output=True, text=True, check=False)
        assert run.returncode == status, (arguments, run)
        assert "\x1b" not in run.stdout + run.stderr, "colour without a terminal"
        self.said = run.stderr
        return run.stdout

    def start(self, *arguments):
        return subprocess.Popen([self.binary, *arguments], env=self.environment, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def on_terminal(self, *arguments, answer=b"", **environment):
        """What a run on a terminal shows, the answer typed once it asks; its exit status."""
        process, terminal = pty.fork()
        if process == 0:
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


def write(service, name, content):
    path = f"{service.tree}/{name}"
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(content)
    return path


def inodes(*paths):
    return len({os.stat(path).st_ino for path in paths})


def check_tables_and_formats(client, service):
    assert "ruxctl scan --space" in client("list") and "ruxctl scan --space" in client("status")
    a = [write(service, name, "a" * 10000) for name in ("a0", "a1", "<i>&/a2")]
    odd = [write(service, name, "b" * 2000) for name in ('b,"1', "b \u00fc")]
    write(service, "alone", "c")
    printed = client("scan", "--space", "s", service.tree)
    assert re.match(r"6 files recorded, 6 of them new, in \d+\.\d s\n", printed), printed
    assert "6 files recorded, 0 of them new" in client("scan", "--space", "s", service.tree)
    client("scan", "--space", "t", a[0], a[1])

    listing = json.loads(client("list", "--json"))
    assert listing["spaces"] == [{"space": "s", "groups": 2, "files": 5, "bytes": 22000},
                                 {"space": "t", "groups": 1, "files": 2, "bytes": 10000}], listing
    assert listing["total"] == {"groups": 3, "files": 7, "bytes": 32000}
    rows = [line.split() for line in client("list").splitlines()]
    assert rows[0] == ["SPACE", "GROUPS", "FILES", "RECLAIMABLE"]
    assert rows[1] == ["s", "2", "5", "21.5", "KiB"] and rows[3] == ["total", "3", "7", "31.2", "KiB"], rows
    assert client("list", "--bytes", "--space", "s").split()[-1] == "22000"

    groups = json.loads(client("groups", "--space", "s", "--json"))
    assert [(group["reclaimable_bytes"], group["file_bytes"]) for group in groups] == [(20000, 10000), (2000, 2000)]
    assert {member["path"] for member in groups[1]["members"]} == set(odd)
    assert len(json.loads(client("groups", "--space", "s", "--json", "--top", "1"))) == 1
    table = list(csv.DictReader(io.StringIO(client("groups", "--space", "s", "--csv"), newline="")))
    assert {row["path"] for row in table} == {*a, *odd} and {row["state"] for row in table} == {"there"}
    parts = client("groups", "--space", "s", "--null").split("\0\0")
    assert [set(part.split("\0")) for part in parts if part] == [set(a), set(odd)], parts
    assert "there    " + a[0] in client("groups")
    return a, odd


def check_compression_and_restore(client, service, a, odd):
    plan = client("compress", "--dry-run", "s")
    assert plan.count("keep  ") == 2 and "3 files would be linked, giving back 21.5 KiB" in plan, plan
    other = next(path for path in a if f"link  {path}\n" in plan)
    mode = os.stat(other).st_mode
    os.chmod(other, 0o600)
    plan = client("compress", "--dry-run", "s")
    assert f"skip  {other}  (of another owner, group or mode)" in plan and "2 files would be linked, giving back 11.7 KiB" in plan, plan
    os.chmod(other, mode)
    assert inodes(*a) == 3

    shown, status = client.on_terminal("compress", "s", answer=b"n")
    assert status == 0 and "Nothing has been changed" in shown and inodes(*a) == 3, shown
    blocks = sum(os.stat(path).st_blocks * 512 for path in set(a + odd))
    shown, status = client.on_terminal("compress", "s", answer=b"y")
    freed = blocks - sum({os.stat(path).st_ino: os.stat(path).st_blocks * 512 for path in a + odd}.values())
    assert status == 0 and inodes(*a) == 1 and inodes(*odd) == 1, shown
    assert f"21.5 KiB by the service's count, {freed / 1024:.1f} KiB of disk blocks given back" in shown, (freed, shown)
    # Colour is for terminals, unless it is not wanted.
    assert COLOUR.search(client.on_terminal("list")[0])
    assert not COLOUR.search(client.on_terminal("list", NO_COLOR="1")[0])
    assert not COLOUR.search(client.on_terminal("list", TERM="dumb")[0])

    def states():
        return {member["path"]: member["state"] for group in json.loads(client("groups", "--space", "s", "--json"))
                for member in group["members"]}

    os.remove(a[2])
    write(service, "other", "b")
    os.rename(f"{service.tree}/other", odd[1])
    assert states() == {a[0]: "linked", a[1]: "linked", a[2]: "gone", odd[0]: "there", odd[1]: "changed"}, states()
    printed = client("restore", "--space", "s", "--match", ".*/a1")
    assert "3 files of 1 group will get data of their own, taking up 12.0 KiB" in client.said, client.said
    assert inodes(a[0], a[1]) == 2 and "of disk blocks" in printed, printed
    client("restore", "--space", "s", "--match", "(", status=2)
    assert "ruxctl scan --space nowhere" in (client("restore", "--space", "nowhere", status=1) or client.said)


class Page(html.parser.HTMLParser):
    """The text of a page; fails for tags that are not closed in their order, and for what is not in the page."""

    def __init__(self, text):
        super().__init__()
        self.open, self.text, self.cells = [], "", 0
        self.feed(text)
        assert not self.open, self.open

    def handle_starttag(self, tag, attributes):
        assert tag not in ("script", "img", "iframe", "link") and not {"src", "href"} & {name for name, _ in attributes}
        self.cells += "--part" in (dict(attributes).get("style") or "")
        if tag not in ("meta", "br"):
            self.open.append(tag)

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, tag

    def handle_data(self, data):
        self.text += data


def check_report(client, service):
    target = f"{service.base}/report.html"
    client("report", "--html", target, "--space", "s")
    with open(target, encoding="utf-8") as file:
        page = Page(file.read())
    # One group of three copies of 10,000 bytes, one of two of 2,000, nothing linked yet.
    for text in ("21.5 KiBcan be given back", "0 Bgiven back by links", "2groups of duplicates", "6files recorded",
                 f"{service.tree}/b,\"1 there", f"{service.tree}/<i>&"):
        assert text in page.text, (text, page.text)
    assert page.cells == 2, page.cells
    assert Page(client("report", "--html", "-", "--space", "t")).cells == 1
    client("report", "--html", "/no/such/directory/x", status=1)
    assert "cannot be written" in client.said


def check_exceptions(client, service):
    client("except", "show")
    assert "ruxctl except add" in client.said
    client("except", "add", r".*\.tmp")
    client("except", "add", r".*\.bak", r".*\.tmp")
    assert client("except", "show") == ".*\\.tmp\n.*\\.bak\n"
    client("except", "add", "(", status=2)
    assert "no regular expression" in client.said
    assert client("except", "check", r".*\.tmp", "/x.tmp", "/x").split() == ["excepted", "/x.tmp", "scanned", "/x"]
    assert client("except", "check", ".*/alone") == f"{service.tree}/alone\n"
    client("except", "set", "never")
    assert client("except", "show") == "never\n"


def check_refusals_and_interrupts(client, service):
    # A scan is held by the pipe that stands where its marks are to be read.
    def held(space):
        pipe = f"{os.path.dirname(service.space)}/{space}/RUXModifyFileInfo.json"
        os.makedirs(os.path.dirname(pipe))
        os.mkfifo(pipe)
        return pipe

    def reached(pipe, process):
        while process.poll() is None:
            try:
                return os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
            except OSError:
                time.sleep(0.01)
        raise AssertionError("the scan was not held")

    def let_go(pipe, writer):
        os.unlink(pipe)
        os.close(writer)

    def expect_busy(*arguments, what="another operation"):
        client(*arguments, status=4)
        assert f"busy with {what}" in client.said and "ruxctl stop" in client.said, client.said

    pipe = held("u")
    long_scan = client.start("scan", "--space", "u", service.tree)
    writer = reached(pipe, long_scan)
    assert re.search(r"busy with a scan \(process \d+, for ", client("status"))
    for command in (("scan", "--space", "s", service.tree), ("list",), ("compress", "s"), ("restore", "--space", "s")):
        expect_busy(*command, what=r"a scan (process ")
    assert client("getprop", "sys.ruxservice.stop_scan") == "false\n"
    long_scan.send_signal(signal.SIGINT)
    while client("getprop", "sys.ruxservice.stop_scan") != "true\n":
        assert long_scan.poll() is None
    let_go(pipe, writer)
    out, err = long_scan.communicate(timeout=30)
    assert long_scan.returncode == 130 and "stopped; what was recorded is kept" in err, (out, err)
    memory = float(re.search(r"running, idle, last change just now, holds ([\d.]+) MiB", client("status")).group(1))
    assert abs(memory * 1024 - service.resident_kib()) < 4096

    # The same against a client that does not say what it does.
    pipe = held("v")
    raw = subprocess.Popen([client.binary, "call", str(SCAN), service.rule(space="v")], env=client.environment)
    writer = reached(pipe, raw)
    assert "busy" in client("status")
    expect_busy("compress", "s")
    expect_busy("scan", "--space", "s", service.tree)
    client("stop", "scan")
    let_go(pipe, writer)
    assert raw.wait(30) == 0
    assert json.loads(service.call(LIST, service.rule())) is not None


def check_messages(client, service):
    service.kill()
    for command in (("scan", "--space", "s", service.tree), ("list",), ("compress", "s"), ("restore", "--space", "s"),
                    ("except", "set", "x"), ("stop", "scan"), ("status",), ("call", "5")):
        client(*command, status=3)
        assert "rux &" in client.said and "RUX_ROOT" in client.said, (command, client.said)
    assert "s " in client("status", status=3), "the spaces are shown all the same"
    service.start()
    assert re.fullmatch(r"ruxctl \d+\.\d+\.\d+\n", client("--version"))
    for command in ("scan", "list", "groups", "compress", "restore", "except", "stop", "call"):
        assert "Examples:\n  ruxctl " + command in client(command, "--help"), command


def check_usage(client):
    for arguments in ((), ("call",), ("call", "x"), ("call", "1", "--hex", "abc"), ("call", "1", "--hex", "zz"),
                      ("call", "1", "\udcff"), ("stop", "restore"), ("scan", "--space", "s")):
        client(*arguments, status=2)
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


def check_pages_and_completion(client):
    for program in ("rux", "ruxctl"):
        source = client("manual", program)
        page = subprocess.run(["man", "--warnings", "-l", "-"], input=source, capture_output=True, text=True, check=True,
                              env={**os.environ, "MANWIDTH": "100", "LC_ALL": "C.UTF-8"})
        assert page.stderr == "" and "EXIT STATUS" in page.stdout, page
        if program == "ruxctl":
            text = re.sub(r".\x08", "", page.stdout)
            for command in ("scan --space NAME", "list", "groups", "compress NAME...", "except add REGEX..."):
                assert f"ruxctl {command}" in text, command

    def completed(*words):
        script = ". <(\"$1\" completion bash); COMP_WORDS=(\"${@:2}\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " \
                 "_ruxctl; printf '%s\\n' \"${COMPREPLY[@]}\""
        return subprocess.run(["bash", "-c", script, "bash", client.binary, client.binary, *words], env=client.environment,
                              capture_output=True, text=True, check=True).stdout.split()

    assert completed("res") == ["restore"] and completed("g") == ["groups", "getprop"], completed("g")
    assert completed("list", "--sp") == ["--space"] and "--dry-run" in completed("compress", "--")
    assert completed("scan", "--space", "") == ["s", "t", "u", "v"], completed("scan", "--space", "")
    assert "add" in completed("except", "") and completed("stop", "c") == ["compress"]


def main():
    rux, ruxctl = sys.argv[1:3]
    with Service(rux) as service:
        client = Client(ruxctl, service)
        a, odd = check_tables_and_formats(client, service)
        check_report(client, service)
        check_compression_and_restore(client, service, a, odd)
        check_exceptions(client, service)
        check_usage(client)
        check_refusals_and_interrupts(client, service)
        check_pages_and_completion(client)
        check_messages(client, service)
    print("ok")


if __name__ == "__main__":
    main()
