#!/usr/bin/env python3
"""Bad luck: full disks, limits, rights that are missing. Every fault has its outcome in the log, the service lives, and no
content is lost.

usage: faults_test.py RUX RUXCTL
"""

import contextlib
import ctypes
import hashlib
import json
import os
import resource
import shutil
import stat
import struct
import subprocess
import threading
import time

from support.service import COMPRESS, EXCEPT, GROUPS, LINKED, MODIFIED, RECORDS, RESTORE, SCAN, SLOW, checks, for_root, md5sums, mounted, \
    read, swap_name, wait_for


@contextlib.contextmanager
def small_disk(path, options):
    """A small file system in memory; gives a function that changes its options."""
    with mounted(path, "-t", "tmpfs", "-o", options, "none", unmount=("umount", "-l")) as is_mounted:
        assert is_mounted
        yield lambda more: subprocess.run(["mount", "-t", "tmpfs", "-o", "remount," + more, "none", path], check=True)


def limit(service, kind, value):
    resource.prlimit(service.process.pid, kind, (value, resource.prlimit(service.process.pid, kind)[1]))


def names(path):
    return sorted(os.listdir(path))


@for_root
def check_full_disk_during_a_save(service):
    with small_disk(os.path.dirname(service.space), "size=64k") as remount:
        for name in "ab":
            service.write(name, "same")
        service.scan()
        before = service.database(RECORDS), service.database(GROUPS)
        for i in range(1000):
            service.write(f"many/{i}", str(i))
        service.scan()
        assert service.logged("DBWriteUpdate") == service.logged(" write fail.") > 0
        assert (service.database(RECORDS), service.database(GROUPS)) == before
        # What the disk did not take is found again once there is room.
        remount("size=8m")
        service.scan()
        assert len(service.database(RECORDS)) == 1002 and len(service.database(GROUPS)) == 1001
        # Without room for the old texts beside the new ones no journal protects the save.
        disk = os.statvfs(service.space)
        remount(f"size={(disk.f_blocks - disk.f_bfree) * disk.f_frsize + (64 << 10)}")
        service.write("one more", "same")
        service.scan()
        assert len(service.database(RECORDS)) == 1003 and service.logged("no journal protects the save of") == 1


@for_root
def check_full_disk_under_the_properties(service):
    service.kill()
    with small_disk(service.root + "/run/rux", "mode=0700,size=4k"):
        with open(service.root + "/run/rux/full", "wb") as file:
            file.write(b"x" * 4096)
        for name in "ab":
            service.write(name, "same")
        service.start()
        service.scan()  # sets one
        assert service.compress() == "1,4"
        refused = service.client("setprop", "x", "y", check=False)
        assert refused.returncode == 1 and "its disk is full" in refused.stderr, refused


@for_root
def check_full_and_read_only_disk_under_the_files(service):
    disk = service.tree + "/disk"
    content = "x" * (1 << 20)
    with small_disk(disk, "size=3m,nr_inodes=20") as remount:
        a, b = (service.write("disk/" + name, content) for name in "ab")
        service.scan()
        # Every name takes an inode there: with none left there is no link.
        with contextlib.suppress(OSError):
            for i in range(20):
                service.write(f"disk/{i}", "")
        assert service.compress() == "0,0" and service.logged("createHardLink fail, error code 28") == 1
        for name in set(names(disk)) - {"a", "b"}:
            os.remove(disk + "/" + name)
        shutil.rmtree(service.space)
        service.scan()
        remount("ro")
        assert service.compress() == "0,0" and service.logged("createHardLink fail, error code 30") == 1
        remount("rw")
        shutil.rmtree(service.space)
        service.scan()
        assert service.compress() == "1,1048576"

        service.write("disk/filler", "f" * (3 << 19))
        refused = service.client("restore", "--yes", "--space", "s", check=False)
        assert refused.returncode == 1 and "1.0 MiB are needed" in refused.stderr, refused
        tried = service.client("restore", "--yes", "--force", "--space", "s", check=False)
        assert tried.returncode == 1 and "0 B taken up again" in tried.stdout and f"linked  {a}\n" in tried.stdout, tried
        assert service.logged("restoreLinkFile fail, error code 28") == 2
        assert os.path.samefile(a, b) and md5sums(disk)[a] == hashlib.md5(content.encode()).hexdigest()
        assert names(disk) == ["a", "b", "filler"]


def check_limits_on_file_size_and_descriptors(service):
    deep = "/".join("d" * 61) + "/c"
    for name in "ab":
        service.write(name, "x" * 5000)
    service.write(deep, "deep")
    service.scan()
    assert service.compress() == "1,5000"
    limit(service, resource.RLIMIT_FSIZE, 4000)
    assert service.restore() == 5000 and service.logged("restoreLinkFile fail, error code 27") == 2
    assert os.stat(service.tree + "/a").st_nlink == 2
    for i in range(100):
        service.write(f"many/{i}", str(i))
    service.scan()
    assert service.logged(" write fail.") > 0

    service.kill()
    service.start()
    service.scan()  # a sanitizer that meets a class for the first time needs a descriptor to look at its object
    shutil.rmtree(service.space)
    limit(service, resource.RLIMIT_NOFILE, 30)
    service.scan()
    assert service.logged("[RUX-NATIVE:opendir] The directory cannot be opened.") > 0
    assert f"{service.tree}/{deep}" not in service.database(RECORDS)
    limit(service, resource.RLIMIT_NOFILE, 1024)
    for i in range(100):
        for copy in "xy":
            service.write(f"{copy}{i}", f"{i} of a pair")
    service.scan()
    assert f"{service.tree}/{deep}" in service.database(RECORDS)
    limit(service, resource.RLIMIT_NOFILE, 64)
    assert service.compress().startswith("101,")
    service.restore()
    assert service.logged("restoreLinkFile fail") == 2 and os.stat(service.tree + "/x99").st_nlink == 1


class OpenGuard:
    """Lets the processes `allowed` open the file, and holds the next one that wants to until the end: after it has looked
    the name up, and before it meets a lease (fanotify(7)). Until there is such a one all reads of the file wait for it."""

    def __init__(self, path, *allowed):
        self.allowed, self.held, self.reads, self.is_over = allowed, None, [], False
        libc = ctypes.CDLL(None, use_errno=True)
        self.group = libc.fanotify_init(0x4 | 0x1 | 0x2, os.O_RDONLY)  # CLASS_CONTENT, CLOEXEC, NONBLOCK
        assert libc.fanotify_mark(self.group, 1, ctypes.c_uint64(0x30000), -100, os.fsencode(path)) == 0  # OPEN_, ACCESS_PERM
        self.thread = threading.Thread(target=self.run)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.is_over = True
        self.thread.join()
        os.close(self.group)

    def run(self):
        while not self.is_over:
            try:
                mask, fd, process = struct.unpack_from("8xQii", os.read(self.group, 24))
            except BlockingIOError:
                time.sleep(0.001)
                continue
            if mask & 0x20000:
                self.reads.append(fd)
            elif process in self.allowed:
                self.allow(fd)
            else:
                self.held = fd
            while self.reads and self.held is not None:
                self.allow(self.reads.pop())
        for fd in [*self.reads, self.held]:
            if fd is not None:
                self.allow(fd)

    def allow(self, fd):
        os.write(self.group, struct.pack("iI", fd, 1))
        os.close(fd)


@for_root
def check_a_link_that_is_undone_does_not_count(service):
    content = "x" * 100000
    for name, text in (("a", content), ("b", content), ("c", "other"), ("d", "other")):
        service.write(name, text)
    service.scan()
    kept, replaced = next(group["f_list"] for group in service.database(GROUPS).values() if group["f_size"] == len(content))

    def write_late():
        wait_for(lambda: guard.reads)  # the two are compared
        subprocess.run(["sh", "-c", "echo late >>" + replaced], check=True)

    writer = threading.Thread(target=write_late)
    with OpenGuard(replaced, service.process.pid) as guard:
        writer.start()
        result = service.compress()
    writer.join()
    assert result == "1,5" and service.logged(f"undone {replaced}: 16 ") == service.logged("createHardLink fail, error code 16") == 1, result
    assert len(service.database(LINKED)) == 2
    for path, expected in ((kept, content), (replaced, content + "late\n")):
        assert read(path) == expected


@for_root
def check_a_scan_prepares_no_more_than_it_may(service):
    if os.cpu_count() == 1:
        return print("skipped: the one reader waits")
    paths = [service.write(str(i), "x" * 1000) for i in range(20000)]
    first = next(os.scandir(service.tree)).path  # whose turn comes first
    scan = threading.Thread(target=service.scan)
    before = service.bytes_read()
    with OpenGuard(first):
        scan.start()
        read = []
        while len(read) < 20 or read[-1] != read[-20] or read[-1] < 1000 * 1000:
            time.sleep(0.05)
            read.append(service.bytes_read() - before)
        assert read[-1] < 17000 * 1000, read[-1]
    scan.join()
    assert len(service.database(RECORDS)) == len(paths)
    return None


def check_what_a_kill_left_is_tidied_up_wherever_it_works_next(service):
    left, alone = (f"{service.tree}/{swap_name(name)}" for name in ("d", "gone"))
    a, b, _, d = (service.write(name, "same") for name in "abcd")
    service.scan()
    service.kill()
    os.link(d, left)
    service.write(alone, "the only name")
    mark = service.root + "/run/rux/unsettled"
    with open(mark, "wb"):
        service.start()
    service.edit(GROUPS, {"0": {"V": 1, "f_size": 4, "f_list": [a, b]}})
    assert service.compress() == "1,4" and os.stat(d).st_nlink == 1 and not os.path.exists(mark)
    assert read(alone) == "the only name"


def check_a_log_that_nobody_reads(service):
    pipe = service.base + "/pipe"
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    service.kill()
    service.start("sh", "-c", 'exec "$1" 2>"$0"', pipe)
    os.close(reader)
    service.write("empty", "")  # has a line
    path = service.write("a", "alone")
    service.scan()
    assert list(service.database(RECORDS)) == [path]


def check_the_database_is_no_part_of_a_tree(service):
    """Its files are written in place: of two with the same content none may become a name of the other."""
    spaces, path = service.root + "/data", service.write("a", "alone")
    service.call(EXCEPT, '["never"]')
    service.scan()
    os.symlink(spaces, service.tree + "/spaces")
    rules = [json.loads(service.rule(space, dirs=[service.tree, spaces, f"{service.space}/{MODIFIED}"]))[0] for space in "tu"]
    for _ in range(2):
        service.call(SCAN, json.dumps(rules))
        service.call(COMPRESS, '["t", "u"]')
    for space in "tu":
        assert list(json.loads(read(f"{service.space}/../{space}/{RECORDS}"))) == [path]
    assert service.database(MODIFIED) == {} and os.stat(f"{service.space}/{MODIFIED}").st_nlink == 1


def check_what_an_operation_throws_ends_in_the_log(service):
    if SLOW:
        return print("skipped: a sanitizer ends the process instead")
    service.scan()
    limit(service, resource.RLIMIT_AS, 1 << 40)
    os.truncate(f"{service.space}/{RECORDS}", 1 << 42)  # no memory holds this file
    assert service.list() == "{}" and service.logged("listing failed: ") == 1
    os.remove(f"{service.space}/{RECORDS}")
    assert service.list() != "{}", "the flag is clear again"
    return None


@for_root
def check_the_user_of_a_device(service):
    """The service as the user of a device's init entry: with a few capabilities, in a group that may reach shared storage."""
    user = ("setpriv", "--reuid=1000", "--regid=1000", "--groups=1023")
    if subprocess.run([*user, "test", "-r", service.binary, "-a", "-x", service.binary], check=False).returncode != 0:
        return print("skipped: the program is not for every user")

    def start_with(*capabilities):
        sets = ["-all", *("+" + capability for capability in capabilities)]
        subprocess.run(["chown", "-R", "1000:1000", service.root], check=True)
        os.chmod(service.base, 0o755)
        service.start(*user, *(f"--{kind}=" + ",".join(sets) for kind in ("inh-caps", "ambient-caps", "bounding-set")))

    def write_pair(directory, owner, mode):
        for name in "12":
            os.chmod(service.write(f"{directory}/{name}", directory), mode & 0o666)
        subprocess.run(["chown", "-R", owner, f"{service.tree}/{directory}"], check=True)
        os.chmod(f"{service.tree}/{directory}", mode)

    def links(name):
        return os.stat(f"{service.tree}/{name}").st_nlink

    service.kill()
    shutil.rmtree(service.root + "/run")
    write_pair("shared", "10023:1023", 0o770)
    write_pair("private", "10042:10042", 0o700)
    write_pair("capable", "10023:1023", 0o770)
    write_pair("signed", "10023:1023", 0o770)
    for name in "12":
        subprocess.run(["setcap", "cap_net_raw+ep", f"{service.tree}/capable/{name}"], check=True)
        os.setxattr(f"{service.tree}/signed/{name}", "security.ima", b"signature")
    hidden = service.write("shared/hidden", "shared")
    os.chmod(hidden, 0)
    start_with("chown", "fowner", "fsetid", "lease")
    service.set_property("made by", "root")
    service.scan()
    assert service.property("sys.ruxservice.stop_scan") == "false"
    assert service.logged("[RUX-NATIVE:opendir] The directory cannot be opened.") == 1, "private"
    assert service.logged("cal md5 error code != 0, continue") == 1, "hidden"
    assert service.compress() == "1,6"
    assert service.logged("createHardLink fail, error code 1\n") == 2, "no copy would be the same"
    assert links("shared/1") == 2 and links("private/1") == 1
    assert service.call(RESTORE, service.rule(regs=[".*shared.*"], dirs=[])) == 6 and links("shared/1") == 1
    assert stat.S_ISREG(os.stat(f"{service.tree}/shared/2").st_mode) and os.stat(f"{service.tree}/shared/2").st_uid == 10023
    service.kill()
    without_threads = subprocess.run([*user, "prlimit", "--nproc=1", service.binary], env={**os.environ, "RUX_ROOT": service.root},
                                     capture_output=True, text=True, check=False)
    assert SLOW or without_threads.returncode == 255 and "Couldn't register" in without_threads.stderr, without_threads

    os.remove(hidden)
    start_with("chown", "dac_override", "dac_read_search", "fowner", "fsetid", "lease")
    shutil.rmtree(service.space)
    service.scan()
    assert service.compress() == "2,13" and links("private/1") == 2 and service.logged("is deleted") == 0
    return None


if __name__ == "__main__":
    checks(globals())
