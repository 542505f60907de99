#!/usr/bin/env python3
"""Requests byte for byte, and clients that mean no good or have no luck: an honest one is served all the same.

usage: clients_test.py RUX RUXCTL [CHECK ...]
"""

import contextlib
import json
import os
import random
import resource
import socket
import struct
import subprocess
import time

from support.service import COMPRESS, EXCEPT, LIST, REPLY_MAGIC, REQUEST_MAGIC, RESTORE, SCAN, SLOW, STOP_COMPRESS, \
    STOP_SCAN, TOKEN, checks, string16, wait_for

WITH_TEXT, WITHOUT_TEXT = (SCAN, LIST, COMPRESS, RESTORE, EXCEPT), (STOP_SCAN, STOP_COMPRESS)
BAD_TYPE, UNKNOWN = -2147483647, -74


def int32(*values):
    return struct.pack(f"<{len(values)}i", *values)


def frame(code, parcel, flags=0):
    return struct.pack("<IIII", REQUEST_MAGIC, len(parcel), code, flags) + parcel


def request(code, text):
    return frame(code, TOKEN + string16(text))


def send(connection, data):
    """Sends what is taken without waiting; the service may have hung up."""
    connection.setblocking(False)
    with contextlib.suppress(BlockingIOError, ConnectionError):
        connection.send(data)


def expect_honest_client_is_served(service):
    start = time.monotonic()
    service.call(STOP_SCAN)
    assert time.monotonic() - start < (10 if SLOW else 1)


def start_another(service, root, **environment):
    return subprocess.run([service.binary], env={**os.environ, "RUX_ROOT": root, **environment}, capture_output=True, text=True, check=False)


def check_who_waits_for_the_start_is_told(service):
    """By a datagram to a socket with a name, or an abstract one: see sd_notify(3). From then on clients are served."""
    for name in (service.base + "/ready", "\0" + service.base):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(name)
            manager.settimeout(30)
            service.kill()
            service.environment = {"NOTIFY_SOCKET": name.replace("\0", "@")}
            service.launch()
            assert manager.recv(99) == b"READY=1"
            service.call(STOP_SCAN)


def check_start(service):
    text = service.log()
    assert text.count("\n") == 1 and " D rux     : main:" in text and text.endswith(": RUXStarting rux\n"), text
    assert not os.path.exists(service.root + "/run/rux/properties")
    assert os.stat(service.root + "/run/rux").st_mode & 0o7777 == 0o700
    second = start_another(service, service.root)
    assert second.returncode == 255 and " E rux     : main:" in second.stderr, second
    assert second.stderr.endswith(": Couldn't register rux binder service!\n"), second
    assert not os.listdir(service.root + "/data/local/zel")
    for tags, priorities in (("rux:E", "E"), ("*:E", "E"), ("rux:D *:S", "DE"), ("*:S rux:E", "E"), ("*:S", ""), ("*:V", "DE")):
        lines = start_another(service, service.root, ANDROID_LOG_TAGS=tags).stderr.splitlines()
        assert [line.split()[4] for line in lines] == list(priorities), (tags, lines)
    service.kill()
    service.start()  # takes over what the killed one left
    os.makedirs(service.base + "/other")
    with open(service.base + "/other/run", "wb"):  # a file where a directory should be
        assert start_another(service, service.base + "/other").returncode == 255


def check_bytes(service):
    def expect(code, parcel, status, reply=b""):
        found = service.transact(code, parcel)
        assert found == (status, reply), (code, parcel, found)

    token, text, good = TOKEN, string16("[]"), int32(0)
    for code in range(1, 8):  # not for this interface
        for parcel in (b"", token[:12] + string16("tavo.rux.IRuy") + text, token[:12] + string16("tavo.rux.IRux2") + text,
                       token[:12], token[:-4], token[:8] + int32(0x53595355) + token[12:]):
            expect(code, parcel, BAD_TYPE)
    for code in WITH_TEXT:
        # Absent; null; of negative length; longer than the parcel; cut short; not terminated; without its
        # padding; half a length.
        for argument in (b"", int32(-1), int32(-2), int32(0x7fffffff) + text[4:], int32(2) + text[4:8],
                         int32(2) + text[4:8] + int32(1), int32(2) + text[4:8] + b"\0\0", b"\2"):
            expect(code, token + argument, 0, int32(-4) + string16("") + int32(0))
        for more in (int32(0), b"\xff"):
            message = f"Parcel data not fully consumed, unread size: {len(more)}"
            expect(code, token + text + more, 0, int32(-2) + string16(message) + int32(0))
    assert not service.logged("[RUX-NATIVE]"), "a method was called"

    for code, result in zip(WITH_TEXT, (b"", string16('{"isEnd":1}\n'), string16("0,0"), bytes(8), b"")):
        expect(code, token + text, 0, good + result)
        # The strict-mode policy and the work source may be anything.
        expect(code, int32(7, 8) + token[8:] + text, 0, good + result)
    for code in WITHOUT_TEXT:
        for more in (b"", b"\xff" * 5, string16("x")):
            expect(code, token + more, 0, good)
    for code in (0, 8, 2**32 - 1):
        expect(code, token + text, UNKNOWN)
    # The platform's own: the ping, the dump, the shell command, and the question for the interface.
    for code in (b"GNP_", b"PMD_", b"DMC_"):
        expect(int.from_bytes(code, "little"), b"", 0)
    expect(int.from_bytes(b"FTN_", "little"), b"", 0, string16("tavo.rux.IRux"))
    expect(int.from_bytes(b"RPS_", "little"), b"", -38)
    service.call(SCAN, service.rule(regs=["(\nforged"]))
    assert service.logged("invalid pattern (\\x0aforged") == 1, "each line stays one"


def check_silent_and_unfinished_clients(service):
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    service.kill()
    service.start()
    expect_honest_client_is_served(service)
    descriptors, memory = service.descriptors(), service.resident_kib()
    allowance = (8 << 20) if SLOW else (128 << 10)  # twice what unfinished frames may take
    clients = []
    for i in range(1000):
        clients.append(service.connect())
        send(clients[-1], (b"", frame(SCAN, bytes(1000))[:7], frame(SCAN, bytes(8 << 20))[:200000],
                           request(LIST, "[]")[:60])[i % 4])
        if i % 100 == 0:
            expect_honest_client_is_served(service)
    assert service.descriptors() < 600
    assert service.resident_kib() < memory + allowance
    for connection in clients:
        connection.close()
    wait_for(lambda: service.descriptors() <= descriptors)
    # The allocator gives memory back when it has not been used for a second.
    wait_for(lambda: service.resident_kib() < memory + allowance // 8)


def check_clients_that_send_no_frames(service):
    def header(size, code):
        return struct.pack("<IIII", REQUEST_MAGIC, size, code, 0)

    for data in (header(0x80000000, 1), header((8 << 20) + 1, 1), header(0xffffffff, 5), bytes(16), b"\xff" * 16,
                 b"GET / HTTP/1.0\r\n\r\n" + b"x" * 100):
        with service.connect() as connection:
            send(connection, data)
            connection.settimeout(30)
            with contextlib.suppress(ConnectionResetError):
                assert connection.recv(1) == b"", data
    pick = random.Random(7)
    for i in range(300):
        with service.connect() as connection:
            send(connection, (header(pick.randrange(200), pick.randrange(10)) if i % 2 else b"") + pick.randbytes(pick.randrange(300)))
    expect_honest_client_is_served(service)


def check_clients_that_do_not_wait(service):
    rules = service.root + "/data/local/zel/RUXExceptRules.json"
    deaf = []
    for _ in range(100):
        deaf.append(service.connect())
        for _ in range(50):
            send(deaf[-1], request(LIST, "[]"))
        with service.connect() as hasty:
            send(hasty, request(LIST, "[" + " " * 100000 + "]"))
    expect_honest_client_is_served(service)
    # The call of a client that died is carried out all the same; this one is never refused.
    with service.connect() as connection:
        send(connection, request(EXCEPT, '["from the grave"]'))
    wait_for(lambda: os.path.exists(rules) and os.path.getsize(rules) > 0)
    for connection in deaf:
        connection.close()
    # A one-way request has no reply: what comes is that of the next, which no operation that still runs refuses.
    with service.connect() as connection:
        connection.sendall(frame(EXCEPT, TOKEN + string16('["one-way"]'), 1) + request(8, "[]"))
        assert struct.unpack("<IIi", service.receive(connection, 12)) == (REPLY_MAGIC, 0, UNKNOWN)
    with open(rules, encoding="ascii") as file:
        assert json.load(file) == ["one-way"]


def check_other_users(service):
    run = service.root + "/run/rux"
    if os.geteuid() != 0:
        return print("other users: skipped, needs root")
    # Even one who has come as far as the socket.
    os.chmod(run, 0o755)
    os.chmod(run + "/RuxNativeService.sock", 0o777)
    child = os.fork()
    if child == 0:
        os.chdir(run)
        os.setresuid(12345, 12345, 12345)
        connection = socket.socket(socket.AF_UNIX)
        connection.connect("RuxNativeService.sock")
        with contextlib.suppress(ConnectionResetError):
            os._exit(len(connection.recv(1)))
        os._exit(0)
    assert os.waitpid(child, 0)[1] == 0
    os.chmod(run, 0o700)
    return expect_honest_client_is_served(service)


def check_large_texts_and_hostile_patterns(service):
    name = service.tree + "/" + "a" * 255
    deep = service.tree + "/" + "a" * 250
    while len(deep) < 3800:
        deep += "/" + "a" * 250
    for path in (name, deep + "/" + "a" * (4095 - len(deep) - 1)):
        service.write(path, "x")
    for pattern in ("(a+)+b", "(.*)*x", "(a|aa)+$", "(.*a){50}b", "(.*)(.*)(.*)\\1b"):
        service.call(SCAN, service.rule(regs=[pattern, pattern + "|y"]))
    service.scan()
    with open(service.space + "/RUXFileInfo.json", encoding="ascii") as file:
        assert len(json.load(file)) == 2
    most = (4 << 20) - 200  # characters that a frame can hold
    for text in ("x" * most, '"' + "x" * most + '"', '["' + "(" * most + '"]', "[" * 100000, json.dumps(["x("] * 10000)):
        for code in WITH_TEXT:
            service.call(code, text)
        service.call(SCAN, service.rule(regs=[text[:most // 2]]))
    # A million elements: each that cannot be used has a log line in a scan, none in a compression.
    for count, codes in ((1000000, (COMPRESS, EXCEPT)), (100000, (SCAN, LIST, RESTORE))):
        for code in codes:
            service.call(code, json.dumps([1] * count))
    service.call(SCAN, service.rule(regs=["x"] * 200000, dirs=[name]))
    larger_than_a_frame = subprocess.run([service.ruxctl, "call", str(LIST), "-"], input=b" " * (5 << 20), capture_output=True,
                                         env={**os.environ, "RUX_ROOT": service.root}, check=False)
    assert larger_than_a_frame.returncode == 1
    expect_honest_client_is_served(service)


if __name__ == "__main__":
    checks(globals())
