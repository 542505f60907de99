"""A service process in a root of its own, and a client for it that shares no code with the project."""

import contextlib
import hashlib
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

SCAN, LIST, COMPRESS, RESTORE, STOP_SCAN, EXCEPT, STOP_COMPRESS = range(1, 8)
IMAGES = RECORDS, GROUPS, LINKED, MODIFIED = (
    "RUXFileInfo.json", "RUXCheckNoCompress.json", "RUXCheckACompress.json", "RUXModifyFileInfo.json")
REQUEST_MAGIC, REPLY_MAGIC = 0x51585552, 0x41585552
SLOW = os.environ.get("RUX_SLOW_AND_LARGE") == "1"  # under a sanitizer or an emulator, which also keep more memory
IS_ROOT = subprocess.run(["unshare", "-m", "true"], check=False, capture_output=True).returncode == 0  # not so in a container


def string16(text):
    """A string as parcels hold it."""
    units = text.encode("utf-16-le")
    data = struct.pack("<i", len(units) // 2) + units + b"\0\0"
    return data + b"\0" * (-len(data) % 4)


TOKEN = struct.pack("<iii", 0, -1, 0x53595354) + string16("tavo.rux.IRux")


@contextlib.contextmanager
def busy_loops(count):
    """So many programs beside that use all they get of the processors."""
    loops = [subprocess.Popen(["sh", "-c", "while :; do :; done"]) for _ in range(count)]
    try:
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


@contextlib.contextmanager
def mounted(where, *options, unmount=("umount",)):
    """Something that mount(8) mounts there, in a directory that is made: whether it could. It goes at the end whatever
    happens, and then nobody may use it."""
    os.makedirs(where, exist_ok=True)
    is_mounted = subprocess.run(["mount", *options, where], check=False, capture_output=True).returncode == 0
    try:
        yield is_mounted
    finally:
        if is_mounted and subprocess.run([*unmount, where], check=False).returncode != 0:
            subprocess.run(["umount", "-l", where], check=True)
            raise AssertionError(f"{where} is in use")


def taken_option(name, default):
    """The number behind the option `name` on the command line, which loses the two."""
    if name not in sys.argv:
        return default
    at = sys.argv.index(name)
    value = int(sys.argv[at + 1])
    del sys.argv[at:at + 2]
    return value


def numbers_of(arguments):
    """What arguments like "1-5" and "7" name."""
    bounds = [argument.partition("-") for argument in arguments]
    return [number for first, _, last in bounds for number in range(int(first), int(last or first) + 1)]


class Service:
    """Use as a context: the process is killed and everything removed at its end."""

    def __init__(self, binary, ruxctl=None):
        self.binary, self.ruxctl = binary, ruxctl
        self.base = tempfile.mkdtemp(prefix="rux-")
        self.root, self.tree = self.base + "/root", self.base + "/tree"
        self.space = self.root + "/data/local/zel/s"
        os.makedirs(self.root + "/data/local/zel")
        os.makedirs(self.tree)
        self.process = None
        self.environment = {}  # what the service has beyond the test's own

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.kill()
        subprocess.run(["rm", "-rf", self.base], check=False)  # trees may be deeper than Python goes

    def launch(self, *prefix):
        """Starts the service, with `prefix` before its command."""
        environment = {**os.environ, **self.environment, "RUX_ROOT": self.root}
        environment.pop("ANDROID_LOG_TAGS", None)
        with open(self.base + "/log", "ab") as log:
            self.process = subprocess.Popen([*prefix, self.binary], env=environment, stderr=log)

    def start(self, *prefix):
        """Launches it, and waits until it answers."""
        self.launch(*prefix)
        deadline = time.monotonic() + 30
        while True:
            try:
                return self.call(STOP_SCAN)
            except OSError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise
                time.sleep(0.005)

    def kill(self):
        """Ends the service with SIGKILL; it must not have ended by itself."""
        ended = self.process.poll()
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        assert ended is None, f"the service has ended by itself: {ended}"

    def connect(self):
        connection = socket.socket(socket.AF_UNIX)
        # Through a descriptor: the path may be longer than an address.
        directory = os.open(self.root + "/run/rux", os.O_PATH)
        try:
            connection.connect(f"/proc/self/fd/{directory}/RuxNativeService.sock")
        except OSError:
            connection.close()
            raise
        finally:
            os.close(directory)
        return connection

    def transact(self, code, parcel):
        """Sends a parcel; returns the status and the reply's parcel."""
        with self.connect() as connection:
            connection.sendall(struct.pack("<IIII", REQUEST_MAGIC, len(parcel), code, 0) + parcel)
            magic, size, status = struct.unpack("<IIi", self.receive(connection, 12))
            assert magic == REPLY_MAGIC
            return status, self.receive(connection, size)

    @staticmethod
    def receive(connection, size):
        data = b""
        while len(data) < size:
            piece = connection.recv(size - len(data))
            if not piece:
                raise ConnectionError("the service has closed the connection")
            data += piece
        return data

    def call(self, code, request=None):
        """Calls a method; returns its result."""
        status, reply = self.transact(code, TOKEN + (b"" if request is None else string16(request)))
        assert status == 0 and reply[:4] == b"\0\0\0\0", (code, status, reply)
        if code in (LIST, COMPRESS):
            count = struct.unpack_from("<i", reply, 4)[0]
            return reply[8:8 + 2 * count].decode("utf-16-le")
        return struct.unpack_from("<q", reply, 4)[0] if code == RESTORE else None

    def rule(self, space="s", regs=(".*",), dirs=None):
        return json.dumps([{"sid": space, "regs": list(regs), "dirs": dirs or [self.tree]}])

    def scan(self):
        self.call(SCAN, self.rule())

    def list(self):
        return self.call(LIST, self.rule())

    def compress(self):
        return self.call(COMPRESS, '["s"]')

    def restore(self):
        return self.call(RESTORE, '[{"sid":"s","regs":[".*"]}]')

    def resident_kib(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def bytes_read(self):
        with open(f"/proc/{self.process.pid}/io", encoding="ascii") as counters:
            return int(counters.readline().split()[1])

    def open_files(self):
        found = []
        for name in os.listdir(f"/proc/{self.process.pid}/fd"):
            with contextlib.suppress(OSError):
                found.append(os.readlink(f"/proc/{self.process.pid}/fd/{name}"))
        return found

    def write(self, name, content):
        """Writes a file of the tree, or with that whole path, and its directories; returns its path."""
        path = os.path.join(self.tree, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        return path

    def database(self, name):
        """What a file of the space "s" holds."""
        with open(f"{self.space}/{name}", encoding="utf-8") as file:
            return json.load(file)

    def edit(self, name, value):
        with open(f"{self.space}/{name}", "w", encoding="utf-8") as file:
            json.dump(value, file)

    def log(self, start=0):
        with open(self.base + "/log", encoding="utf-8", errors="replace") as file:
            file.seek(start)
            return file.read()

    def logged(self, text):
        """How often the text stands in the log."""
        return self.log().count(text)

    def client(self, *arguments, check=True):
        return subprocess.run([self.ruxctl, *arguments], env={**os.environ, "RUX_ROOT": self.root}, check=check,
                              capture_output=True, text=True)

    def property(self, name):
        return self.client("getprop", name).stdout.rstrip("\n")

    def set_property(self, name, value):
        self.client("setprop", name, value)

    def strace(self, *options):
        """Starts strace(1) at the service, which writes to the file "calls", and waits until it has attached. Ends the
        test as skipped where it may not."""
        process = subprocess.Popen(["strace", "-f", "-o", self.base + "/calls", "-p", str(self.process.pid), *options],
                                   stderr=subprocess.PIPE, text=True)
        if "attached" not in (line := process.stderr.readline()):
            print("skipped:", line)
            sys.exit(77)
        return process

    @contextlib.contextmanager
    def traced(self, *options, by=signal.SIGTERM):
        """The same for a while, which ends `by` a signal to strace(1)."""
        process = self.strace(*options)
        try:
            yield
        finally:
            process.send_signal(by)
            process.communicate()

    def stale_names(self):
        """Temporary names below the tree."""
        return [name for _, _, names in os.walk(self.tree) for name in names if name.startswith(".rux-")]


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def wait_for(condition):
    deadline = time.monotonic() + 30
    while not condition():
        assert time.monotonic() < deadline, "it does not come true"
        time.sleep(0.002)


def swap_name(name):
    """The library's temporary name beside a file of that name."""
    return ".rux-swap-" + hashlib.md5(name.encode()).hexdigest()


def is_leased(path):
    with open("/proc/locks", encoding="ascii") as locks:
        return f":{os.stat(path).st_ino} " in locks.read()


def is_awaited(path):
    """Whether somebody waits for a lease on the file to be given up."""
    with open("/proc/locks", encoding="ascii") as locks:
        return re.search(rf"BREAKING .*:{os.stat(path).st_ino} ", locks.read())


def for_root(check):
    return check if IS_ROOT else lambda service: print("skipped, needs root's rights")


def checks(functions):
    """Runs the functions whose names begin with "check_", or those that the command line names behind the two programs,
    each with a service of its own."""
    wanted = sys.argv[3:]
    for name, function in list(functions.items()):
        if name in wanted or name.startswith("check_") and not wanted:
            print(name, flush=True)
            with Service(*sys.argv[1:3]) as service:
                function(service)
    print("ok")


def md5sums(tree):
    """{path: digest} of the files with content, as md5sum gives them."""
    text = subprocess.run(
        ["sh", "-c", 'find "$0" -type f -size +0 -print0 | xargs -0 -r md5sum -z', tree],
        check=True, stdout=subprocess.PIPE).stdout.decode()
    return {line[34:]: line[:32] for line in text.split("\0")[:-1]}
