#!/usr/bin/env python3
"""What is linked and restored, what is refused and why, and calls that are killed, that fail half-way, or that others
come between.

usage: links_test.py RUX RUXCTL [CHECK ...]
"""

import contextlib
import ctypes
import errno
import fcntl
import itertools
import json
import os
import random
import re
import shutil
import signal
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import time

from support.service import GROUPS, IS_ROOT, LINKED, Service, checks, for_root, is_awaited, is_leased, mounted, read, swap_name, \
    wait_for

CONTENT = "k" * 300000
CALLS = ("linkat", "renameat2", "syncfs", "unlinkat")  # that link and restore
ON_FILES = ("newfstatat", "openat", "fcntl", "pread64", "flistxattr", "ioctl")
SWAP = swap_name("duplicate")
EXT4_IOC_SHUTDOWN, EXT4_GOING_FLAGS_NOLOGFLUSH = 0x8004587d, 2  # nothing more of the disk's file system gets to the disk
IS_EMULATED = "/emulated/" in sys.argv[1]  # which does not know all calls of the kernel's


def record(service, image, groups):
    os.makedirs(service.space, exist_ok=True)
    service.edit(image, {str(number): {"V": 1, "f_size": 1, "f_list": paths} for number, paths in enumerate(groups)})


def outcome(service, act, image, *paths):
    """Has the service link or restore the paths: 0, or the last errno that its log gives."""
    record(service, image, [paths])
    start = os.path.getsize(service.base + "/log")
    act()
    errors = re.findall(r"fail, error code (\d+)", service.log(start))
    return int(errors[-1]) if errors else 0


def link(service, *paths):
    return outcome(service, service.compress, GROUPS, *paths)


def restore(service, *paths):
    return outcome(service, service.restore, LINKED, *paths)


def pair(service):
    return service.write("kept", CONTENT), service.write("duplicate", CONTENT)


def linked(service, *paths):
    """A file with these names below the tree."""
    paths = [service.write(path, CONTENT) for path in paths]
    for path in paths[1:]:
        os.remove(path)
        os.link(paths[0], path)
    return paths


def names(service):
    return sorted(os.listdir(service.tree))


def expect_refusal(service, kept, duplicate, error):
    before = names(service), os.lstat(duplicate).st_ino, os.lstat(kept).st_nlink
    assert (found := link(service, kept, duplicate)) == error, (kept, duplicate, found)
    assert before == (names(service), os.lstat(duplicate).st_ino, os.lstat(kept).st_nlink)


def shell(*commands):
    """Whether they succeed."""
    return subprocess.run(["sh", "-c", " && ".join(commands)], check=False, capture_output=True).returncode == 0


def check_what_is_not_the_same(service):
    kept, duplicate = pair(service)
    for content in (CONTENT[:-1] + "x", CONTENT[:-1]):
        service.write("duplicate", content)
        expect_refusal(service, kept, duplicate, errno.EILSEQ)
    pair(service)
    os.chmod(duplicate, 0o600)
    expect_refusal(service, kept, duplicate, errno.EBADE)
    os.chmod(duplicate, stat.S_IMODE(os.stat(kept).st_mode))
    with contextlib.suppress(OSError):  # not every file system has them
        os.setxattr(duplicate, "user.label", b"l")
        expect_refusal(service, kept, duplicate, errno.EBADE)
        os.removexattr(duplicate, "user.label")
    if IS_ROOT:
        for owner in ((12345, 0), (0, 12345)):
            os.chown(duplicate, *owner)
            expect_refusal(service, kept, duplicate, errno.EBADE)
        os.chown(duplicate, 0, 0)
    if shell("chattr +dA " + duplicate):
        expect_refusal(service, kept, duplicate, errno.EBADE)
        assert shell("chattr +dA " + kept)
    for path in (kept, duplicate):
        with open(path, "ab"):
            expect_refusal(service, kept, duplicate, errno.EBUSY)
    assert link(service, kept, duplicate) == 0
    with open(kept, "ab"):
        assert restore(service, duplicate) == errno.EBUSY
    assert restore(service, duplicate) == 0 and not os.path.samefile(kept, duplicate)
    flags = [subprocess.run(["lsattr", path], capture_output=True, check=False).stdout[:22] for path in (kept, duplicate)]
    assert flags[0] == flags[1], flags


def check_a_difference_wherever_it_is(service):
    content = random.Random(1).randbytes((3 << 20) + 777)  # so large that two threads compare
    kept, duplicate = service.write("kept", content), service.tree + "/duplicate"
    for at in (*range(0, len(content), len(content) // 30), len(content) - 1):
        service.write("duplicate", content[:at] + bytes([content[at] ^ 1]) + content[at + 1:])
        expect_refusal(service, kept, duplicate, errno.EILSEQ)
    for at in (0, 1 << 17, 1 << 18, 1 << 28, (1 << 30) - 1):  # the rest are holes
        for path in (kept, duplicate):
            with open(path, "wb") as file:
                os.pwrite(file.fileno(), b"\0", (1 << 30) - 1)
        with open(duplicate, "r+b") as file:
            os.pwrite(file.fileno(), b"x", at)
        expect_refusal(service, kept, duplicate, errno.EILSEQ)
        expect_refusal(service, duplicate, kept, errno.EILSEQ)
    with open(duplicate, "r+b") as file:  # zeros where the other has a hole
        os.pwrite(file.fileno(), bytes(1 << 20), (1 << 30) - (1 << 20))
    assert link(service, kept, duplicate) == 0


def check_what_is_no_file_of_its_own(service):
    kept, duplicate = pair(service)
    alias, pipe = service.tree + "/alias", service.tree + "/pipe"
    os.symlink("kept", alias)
    os.mkfifo(pipe)
    for first, second, error in ((kept, alias, errno.ELOOP), (kept, pipe, errno.EINVAL), (pipe, duplicate, errno.EINVAL),
                                 (service.tree, duplicate, errno.EINVAL), (kept, service.tree, errno.EINVAL)):
        expect_refusal(service, first, second, error)
    for path, error in ((alias, errno.ELOOP), (service.tree + "/missing", errno.ENOENT), (service.tree, errno.EINVAL),
                        ("", errno.ENOENT), (kept + "/", errno.EINVAL)):
        assert restore(service, path) == error, path
    with tempfile.NamedTemporaryFile("w", dir="/dev/shm") as other:
        other.write(CONTENT)
        other.flush()
        if os.stat(other.name).st_dev != os.stat(kept).st_dev:
            expect_refusal(service, kept, other.name, errno.EXDEV)
    elsewhere = service.tree + "/elsewhere"
    with mounted(elsewhere, "--bind", service.tree) as is_mounted:  # the same device, and still another mount
        assert not is_mounted or link(service, kept, elsewhere + "/duplicate") == errno.EXDEV
        service.edit(GROUPS, {"0": {"V": 1, "f_size": len(CONTENT), "f_list": [kept, elsewhere + "/duplicate"]}})
        told = service.client("compress", "--dry-run", "s").stdout
        assert not is_mounted or IS_EMULATED or "duplicate: on another" in told, told
    with contextlib.suppress(OSError):
        for number in range(70000):
            os.link(kept, f"{elsewhere}/{number}")
    if number < 69999:
        expect_refusal(service, kept, duplicate, errno.EMLINK)


@for_root
def check_links_of_others(service):
    home, owner, other = service.tree + "/home", 12345, 12346
    for name in "12":
        os.chown(service.write(f"home/{name}", "private"), owner, owner)

    def make_link(target, name, maker):
        path = f"{service.tree}/{name}"
        os.symlink(target, path)
        os.lchown(path, maker, maker)
        return path

    others, own = make_link("home", "others", other), make_link(home, "own", owner)
    roots, mixed = make_link("../tree/own", "roots", 0), make_link("others", "mixed", 0)
    for way in (others, mixed, others + "/../others//"):
        expect_refusal(service, home + "/1", way + "/2", errno.ELOOP)
        expect_refusal(service, way + "/1", home + "/2", errno.ELOOP)
    expect_refusal(service, make_link("home/1", "member", other), home + "/2", errno.ELOOP)
    for way in (own, roots):
        assert link(service, way + "/1", way + "/2") == 0 and os.stat(home + "/1").st_nlink == 2, way
        assert restore(service, others + "/2") == errno.ELOOP and os.stat(home + "/1").st_nlink == 2
        assert restore(service, way + "/2") == 0 and os.stat(home + "/1").st_nlink == 1, way


@for_root
def check_directories_that_others_cannot_enter(service):
    """A link would let them in."""
    def make(name, mode):
        os.chown(service.write(name, "known"), 12345, 12345)
        os.chmod(f"{service.tree}/{name}", mode)
        return f"{service.tree}/{name}"

    private, shared, open_below = (make(name, 0o664) for name in ("home/profile", "shared/file", "home/below/file"))
    os.chmod(service.tree + "/home", 0o700)
    for pair_of in ((private, shared), (shared, private), (open_below, shared), (shared, open_below)):
        expect_refusal(service, *pair_of, errno.EACCES)
    os.symlink(private, service.tree + "/alias")
    expect_refusal(service, service.tree + "/alias", shared, errno.EACCES)
    assert link(service, private, open_below) == 0 and restore(service, private) == 0
    assert link(service, make("shared/other", 0o664), shared) == 0
    assert link(service, make("home/secret", 0o600), make("shared/secret", 0o600)) == 0
    time.sleep(1.1)  # so long is remembered what was
    os.chmod(service.tree + "/home", 0o711)
    assert link(service, make("home/profile", 0o664), make("shared/file", 0o664)) == 0
    with contextlib.suppress(OSError):  # not every file system has them
        os.setxattr(service.tree + "/shared", "system.posix_acl_access", acl(12346))
        time.sleep(1.1)
        expect_refusal(service, make("home/third", 0o664), make("shared/third", 0o664), errno.EACCES)


def acl(user):
    """An access-control list that lets a user write (acl(5))."""
    return struct.pack("<i" + 5 * "HHi", 2, 1, 6, -1, 2, 6, user, 4, 4, -1, 16, 6, -1, 32, 4, -1)


def check_what_a_restore_keeps(service):
    restore_keeps(service, "")


@for_root
def check_what_a_restore_keeps_on_xfs(service):
    """There an access-control list is listed by two names."""
    with file_system(service, "mkfs.xfs -q", "300M") as disk:
        if disk:
            restore_keeps(service, "disk/")


def natively(check):
    """For root, and for a service whose calls no emulator takes."""
    return for_root(check) if not IS_EMULATED else lambda service: print("skipped, under an emulator")


@natively
def check_the_project_that_a_quota_counts_a_file_for(service):
    with file_system(service, "mkfs.xfs -q", "300M") as disk:
        if not disk:
            return
        a, b, other = (service.write("disk/" + name, CONTENT) for name in ("a", "b", "other"))
        for path, number in ((a, 7), (b, 7), (other, 8)):
            set_project(path, number)
        expect_refusal(service, a, other, errno.EBADE)
        assert link(service, a, b) == 0 and restore(service, b) == 0
        assert [project(path) for path in (a, b, other)] == [7, 7, 8]


@for_root
def check_what_copies_without_data_of_their_own_give_back(service):
    """The client's figures are what the disk says."""
    with file_system(service, "mkfs.xfs -q", "300M") as disk:
        if not disk:
            return

        def figure(command, key):
            free = os.statvfs(disk).f_bfree
            bytes_ = json.loads(service.client(command, "--yes", "--json", disk).stdout)[key]
            wait_for(lambda: (os.statvfs(disk).f_bfree - free) * os.statvfs(disk).f_bsize == bytes_)  # the disk frees them later
            return bytes_

        service.write("disk/a", ("x" * 8192 + "\0" * 8192) * 300)  # in more pieces than are asked for at once
        assert shell(f"cp --reflink=always {disk}/a {disk}/b", f"cp --reflink=never --sparse=always {disk}/a {disk}/c", "sync")
        assert figure("dedupe", "freed_bytes") in range(300 * 8192, 310 * 8192)
        use = os.statvfs(disk)
        assert shell(f"fallocate -l {use.f_bavail * use.f_bsize - (1 << 20)} {disk}/full")  # no room for copies with blocks
        assert "taking up at most" in service.client("restore", "--dry-run", disk).stderr
        assert figure("restore", "bytes") == 0


@natively
def check_files_under_other_keys(service):
    """What takes a key away must take nobody's file with it who had another, or none."""
    with file_system(service, "mkfs.ext4 -q -O encrypt", "32M") as disk:
        if not disk:
            return
        try:
            for number in (1, 2):
                encrypt(f"{disk}/{number}", bytes([number]) * 64)
        except OSError as error:
            print("skipped, the kernel does not encrypt:", error)
            return
        a, b, other, plain = (service.write(path, CONTENT) for path in ("disk/1/a", "disk/1/b", "disk/2/c", "disk/d"))
        for pair_of in ((a, plain), (plain, a), (a, other)):
            expect_refusal(service, *pair_of, errno.EBADE)
        assert link(service, a, b) == 0 and restore(service, b) == 0
        os.link(other, disk + "/moved")
        assert restore(service, disk + "/moved") == errno.EPERM, "a copy there would not be encrypted"


def check_files_with_flags_that_a_copy_cannot_be_given(service):
    """Those of FS_IOC_ENABLE_VERITY and of chattr's letters C, j, i and a: see ioctl_iflags(2)."""
    kept, duplicate = pair(service)

    def flagged(flag, *paths):
        poke = "-einject=ioctl:poke_exit=@arg3=" + flag.to_bytes(4, "little").hex()
        return service.traced("-etrace=ioctl", *("-P" + path for path in paths), poke)

    for flag in (0x100000, 0x800000, 0x4000, 0x10, 0x20):
        for paths, error in (([duplicate], errno.EBADE), ([kept, duplicate], errno.EPERM)):
            with flagged(flag, *paths):
                expect_refusal(service, kept, duplicate, error)
    assert link(service, kept, duplicate) == 0
    with flagged(0x100000, duplicate):
        assert restore(service, duplicate) == errno.EPERM
    assert restore(service, duplicate) == 0


def check_file_systems_without_leases_and_in_user_space(service):
    """A lease does not tell who writes to the files of these another way (FUSE_SUPER_MAGIC: see statfs(2))."""
    kept, duplicate = pair(service)
    with service.traced("-etrace=fcntl", "-P" + kept, "-einject=fcntl:error=EINVAL:when=2"):
        expect_refusal(service, kept, duplicate, errno.EOPNOTSUPP)
    with service.traced("-etrace=fstatfs", "-P" + service.tree, "-einject=fstatfs:poke_exit=@arg2=46557365"):
        expect_refusal(service, kept, duplicate, errno.EOPNOTSUPP)
        os.link(kept, kept + " too")
        assert restore(service, kept) == errno.EOPNOTSUPP
    assert restore(service, kept) == 0


def encrypt(directory, key):
    """Makes it, and gives it a key (FS_IOC_ADD_ENCRYPTION_KEY and FS_IOC_SET_ENCRYPTION_POLICY)."""
    os.makedirs(directory)
    file = os.open(directory, os.O_RDONLY)
    argument = bytearray(struct.pack("II32xII32x", 2, 0, len(key), 0) + key)
    fcntl.ioctl(file, 0xc0506617, argument)
    fcntl.ioctl(file, 0x800c6613, struct.pack("8B", 2, 1, 4, 3, 0, 0, 0, 0) + argument[8:24])
    os.close(file)


def project(path):
    """The file's attributes that ioctl_xfs_fsgetxattr(2) gives, of which the fourth number is its project."""
    with open(path, "rb") as file:
        return struct.unpack("4I12x", fcntl.ioctl(file, 0x801c581f, bytes(28)))[3]


def set_project(path, number):
    with open(path, "rb") as file:
        fcntl.ioctl(file, 0x401c5820, struct.pack("4I12x", 0, 0, 0, number))


def restore_keeps(service, directory):
    # One file has no rights for single users, another has others than new files get in their directory.
    paths = [service.write(directory + name, "start") for name in ("sparse", "other")]
    with contextlib.suppress(OSError):  # not every file system has them
        os.setxattr(paths[1], "system.posix_acl_access", acl(12346))
        os.setxattr(f"{service.tree}/{directory}", "system.posix_acl_default", acl(12345))
    for path in paths:
        os.truncate(path, 50 << 20)
        with open(path, "r+b") as file:
            os.pwrite(file.fileno(), b"middle", 20 << 20)
        os.link(path, path + " too")
        times = (10**18 + 123456789, 9 * 10**17 + 987654321)
        os.utime(path, ns=times)
        inodes = set()
        for _ in range(2):  # the second time nothing is left to do
            assert restore(service, path) == 0
            now = os.stat(path)
            inodes.add(now.st_ino)
            assert (now.st_nlink, now.st_atime_ns, now.st_mtime_ns) == (1, *times) and now.st_blocks < 1000, now
        assert len(inodes) == 1
        attributes = [{name: os.getxattr(one, name) for name in os.listxattr(one)} for one in (path, path + " too")]
        assert attributes[0] == attributes[1] and shell(f"cmp {path} '{path} too'"), attributes


def check_large_groups(service):
    kept = service.write("kept", "x" * 1000)
    members = [kept, *(f"{service.tree}/{number}" for number in range(2000))]
    for path in members[1:]:
        os.link(kept, path)
    assert restore(service, *members, *members) == 0
    assert {(os.stat(path).st_nlink, os.stat(path).st_size) for path in members} == {(1, 1000)}


def check_a_stop_counts_what_is_finished(service):
    """The group at hand stays where it is, and counts only where no other is finished."""
    for i in range(400):
        for name in "abc":
            service.write(f"{name}{i}", f"{i:0200}")
    service.scan()
    answers = []
    caller = threading.Thread(target=lambda: answers.append(service.compress()))
    caller.start()
    wait_for(lambda: int(service.property("sys.ruxservice.compress.prog") or 0) > 0)
    service.set_property("sys.ruxservice.stop_compress", "true")
    caller.join()
    groups, linked_bytes = map(int, answers[0].split(","))
    finished = len(service.database(LINKED))
    files = {os.stat(f"{service.tree}/{name}").st_ino for name in names(service)}
    assert (groups, linked_bytes) == (max(1, finished), 200 * (1200 - len(files))), (answers, finished, len(files))


@contextlib.contextmanager
def file_system(service, make, size):
    """A new one of `size`, below the tree. None where that cannot be had."""
    image, disk = service.base + "/image", service.tree + "/disk"
    is_made = shell(f"truncate -s {size} {image}", f"{make} {image}")
    with mounted(disk, "-o", "loop", image) as is_mounted:
        if not is_made or not is_mounted:
            print("skipped, needs loop devices and", make)
        yield disk if is_made and is_mounted else None


@natively
def check_what_is_on_disk_when_the_power_goes(service):
    """What was there before is there still: no file takes another's place before it is on disk itself."""
    with file_system(service, "mkfs.ext4 -q", "32M") as disk:
        if not disk:
            return
        groups = {number: [service.write(f"disk/{number}/{name}", CONTENT + number) for name in "abc"] for number in "12"}

        def write_kept_anew(number):
            os.remove(f"{disk}/{number}/a")
            return service.write(f"disk/{number}/a", CONTENT + number)

        def write_when_all_was_synced():
            wait_for(lambda: swap_name("b") in os.listdir(disk + "/1"))
            write_kept_anew("2")
            while not is_over.wait(0.01):
                service.process.send_signal(signal.SIGCONT)

        assert shell(f"sync -f {disk}")
        kept = write_kept_anew("1")
        with service.traced("-etrace=fsync,syncfs", "-einject=fsync,syncfs:error=EIO", "-P" + kept):
            expect_refusal(service, *groups["1"][:2], errno.EIO)
        record(service, GROUPS, groups.values())
        is_over = threading.Event()
        writer = threading.Thread(target=write_when_all_was_synced)
        writer.start()
        with service.traced("-y", "-etrace=linkat,fsync,syncfs", "-einject=linkat:signal=SIGSTOP:when=1"):
            assert service.compress() == "2,4"
            is_over.set()
            writer.join()
        assert shell(f"sync {service.write('disk/other', '')}")  # with which the links are on disk
        directory = os.open(disk, os.O_RDONLY)
        fcntl.ioctl(directory, EXT4_IOC_SHUTDOWN, struct.pack("I", EXT4_GOING_FLAGS_NOLOGFLUSH))
        os.close(directory)
        assert shell(f"umount {disk}", f"mount -o loop {service.base}/image {disk}")
        for number, (_, *others) in groups.items():
            assert all(read(path) == CONTENT + number for path in others), others
        waits = re.findall(r"(fsync|syncfs)\(\d+<([^>]*)>", read(service.base + "/calls"))
        assert [wait for wait in waits if disk in wait[1]] == [("syncfs", kept), ("fsync", groups["2"][0])], "few waits for many files"


@for_root
def check_the_reserve_of_root(service):
    with file_system(service, "mkfs.ext4 -q -m 30", "32M") as disk:
        if not disk:
            return
        a, b = (service.write(f"disk/{name}", "x" * (4 << 20)) for name in "ab")
        assert link(service, a, b) == 0
        filler = service.write("disk/filler", "y" * (10 << 20))  # the rest is less than the reserve
        assert restore(service, b) == errno.ENOSPC
        os.remove(filler)
        assert restore(service, b) == 0


@for_root
def check_overlays_and_what_they_are_made_of(service):
    first, second = (service.write("upper one/" + name, "same") for name in "ab")
    lower, work, merged = (f"{service.tree}/{name}" for name in ("lower", "work", "merged"))
    assert link(service, first, second) == 0 and shell(f"mkdir {lower} {work} {merged}")
    overlay = ("-t", "overlay", "none", "-o", f"lowerdir={lower},upperdir={service.tree}/upper one,workdir={work}")
    with mounted(merged, *overlay) as is_mounted:
        if not is_mounted:
            print("skipped, needs overlays")
            return
        assert restore(service, second) == errno.EOPNOTSUPP
        expect_refusal(service, merged + "/a", merged + "/b", errno.EOPNOTSUPP)
    assert restore(service, second) == 0
    # The kernel gives the number of a file system that has gone to the next one.
    os.remove(second)
    for _ in range(10):
        with mounted(merged, "-t", "tmpfs", "none") as is_mounted:
            paths = [service.write("merged/" + name, "same") for name in "ab"]
            number = os.stat(merged).st_dev
            assert is_mounted and link(service, *paths) == 0
        with mounted(merged, *overlay) as is_mounted:
            assert is_mounted
            if os.stat(merged).st_dev == number:
                service.write("merged/b", "same")
                expect_refusal(service, *paths, errno.EOPNOTSUPP)


def check_what_a_killed_call_leaves(service):
    kept, duplicate = pair(service)
    clean = names(service)
    swap = f"{service.tree}/{SWAP}"
    os.link(kept, swap)  # it was killed before the exchange
    assert link(service, kept, duplicate) == 0 and names(service) == clean and os.stat(kept).st_nlink == 2
    for act in (lambda: link(service, kept, duplicate), service.scan):  # or after it
        shutil.copy(kept, swap)
        act()
        assert names(service) == clean
    assert restore(service, duplicate) == 0
    os.link(kept, swap)
    assert restore(service, duplicate) == 0 and names(service) == clean
    # Somebody has had the old file open all the while, and may still write to it.
    shutil.copy(kept, swap)
    with open(swap, "ab"):
        assert link(service, kept, duplicate) == errno.EEXIST
    assert link(service, kept, duplicate) == restore(service, duplicate) == 0 and names(service) == clean
    # Somebody wrote to the old file when the call had been killed: it gets its name back.
    service.write(SWAP, "written meanwhile")
    assert link(service, kept, duplicate) == errno.ESTALE and names(service) == clean
    assert read(duplicate) == "written meanwhile" and service.logged(f"undone {duplicate}: written to") == 1
    # And to the new one later: nobody knows which of the two is to go.
    service.write(SWAP, "written meanwhile")
    for path in pair(service):
        os.utime(path)
    lost = service.write(swap_name("lost"), "its file is gone")
    assert link(service, kept, duplicate) == errno.EEXIST and restore(service, duplicate) == 0
    for _ in range(2):
        start = os.path.getsize(service.base + "/log")
        service.scan()
        assert [line.count("kept ") for line in service.log(start).splitlines() if ".rux-swap" in line] == [1, 1]
    assert read(swap) == "written meanwhile" and read(duplicate) == CONTENT and read(lost) == "its file is gone"
    os.link(lost, service.tree + "/elsewhere")
    service.scan()
    assert not os.path.exists(lost)
    # Somebody else has made a file of that name, in a directory where that cannot be denied.
    if IS_ROOT:
        os.chown(swap, 12345, 12345)
        assert restore(service, duplicate) == link(service, kept, duplicate) == restore(service, duplicate) == 0
        assert read(swap) == "written meanwhile" and len(names(service)) == 4


def check_a_writer_that_comes_while_bytes_are_compared(service):
    """It waits in open until the call has given up its leases, and then finds its file."""
    paths = pair(service)
    for path in paths:
        os.truncate(path, 2 << 30)  # long to compare, and with some data everywhere
        with open(path, "r+b", buffering=0) as file:
            for at in range(0, 2 << 30, 256 << 10):
                os.pwrite(file.fileno(), b"x", at)
    for path in paths:
        codes = []
        call = threading.Thread(target=lambda: codes.append(link(service, *paths)))
        call.start()
        wait_for(lambda: is_leased(path))
        with open(path, "ab") as file:
            call.join()
            assert codes == [errno.EBUSY], codes
            assert os.fstat(file.fileno()).st_nlink == 1 and os.path.samestat(os.fstat(file.fileno()), os.stat(path))
    for path in paths:
        os.truncate(path, 300000)
    assert link(service, *paths) == 0


def check_swapped_directories_lead_nowhere_else(service):
    kept, _ = pair(service)
    same, other = service.write("x/file", CONTENT), service.write("y/file", "something else")
    is_over = threading.Event()

    def swap():
        libc = ctypes.CDLL(None)
        places = [os.path.dirname(path).encode() for path in (same, other)]
        while not is_over.is_set():
            assert libc.renameat2(-100, places[0], -100, places[1], 2) == 0  # AT_FDCWD, RENAME_EXCHANGE

    swapping = threading.Thread(target=swap)
    swapping.start()
    for _ in range(30):
        link(service, kept, same)
        restore(service, same)
    is_over.set()
    swapping.join()
    assert sorted(map(read, (same, other))) == [CONTENT, "something else"] and not service.stale_names()


@contextlib.contextmanager
def injected(service, fault, call, count, by=signal.SIGTERM):
    """Something happens to that one of the service's system calls on its files; and some time goes by after a new name.
    Gives the file in which strace(1) says "INJECTED" when it has come to that."""
    paths = ["", *names(service), SWAP] if call in ON_FILES else []
    with service.traced(f"-etrace={call},linkat", "-einject=linkat:delay_exit=20000", f"-einject={call}:{fault}:when={count}",
                        *(f"-P{service.tree}/{path}".rstrip("/") for path in paths), by=by):
        yield service.base + "/calls"


def prepared(service, act, *files):
    """A tree of equal files and nothing else: links of the first for a restore."""
    shutil.rmtree(service.tree)
    return linked(service, *files) if act is restore else [service.write(name, CONTENT) for name in files]


def check_no_fault_takes_a_name_from_a_writer(service):
    """Each call fails in its turn, while programs wait to write to the duplicate, and to both."""
    for act, call, wanted in itertools.product((link, restore), (*CALLS, "newfstatat"), (["duplicate"], ["duplicate", "kept"])):
        for count in itertools.count(1):
            paths = kept, duplicate = prepared(service, act, "kept", "duplicate")
            start = os.path.getsize(service.base + "/log")
            is_over = threading.Event()
            found = {}

            def write(name):
                while SWAP not in names(service):
                    if is_over.wait(0.001):
                        return
                with open(f"{service.tree}/{name}", "r+b") as file:
                    found[name] = os.fstat(file.fileno()).st_ino
                    is_over.wait()

            writers = [threading.Thread(target=write, args=(name,)) for name in wanted]
            with injected(service, "error=EIO", call, count) as record:
                for writer in writers:
                    writer.start()
                code = act(service, *paths[act is restore:])
                is_over.set()
                for writer in writers:
                    writer.join()
            assert read(kept) == read(duplicate) == CONTENT
            left = names(service)[:-2]
            assert not left or "kept " in service.log(start) and (call, count) != ("renameat2", 1), "what must be kept is told"
            if call != "newfstatat":  # without a status the file is as good as deleted
                assert code != 0 or os.path.samefile(kept, duplicate) == (act is link), "what has failed is told"
            is_reached = "INJECTED" in read(record)
            for name, inode in found.items():  # a writer's file keeps its name, or in spite of a fault any
                places = names(service) if is_reached else [name]
                assert inode in [os.stat(f"{service.tree}/{place}").st_ino for place in places], (act, call, count, name)
            if not is_reached:
                break


def check_a_change_of_mode_is_not_lost(service):
    kept, duplicate = pair(service)

    def change():
        wait_for(lambda: SWAP in names(service))
        os.chmod(duplicate, 0o600)

    changing = threading.Thread(target=change)
    with injected(service, "error=EIO", "syncfs", 99):  # never, but there is time
        changing.start()
        code = link(service, kept, duplicate)
        changing.join()
    assert code in (0, errno.ESTALE) and stat.S_IMODE(os.stat(duplicate).st_mode) == 0o600 and not service.stale_names(), code


def check_a_kill_at_any_call_loses_nothing(service):
    """The service is ended as it enters each of the calls that change names. Started again, it finishes the work."""
    for act, call in itertools.product((link, restore), CALLS):
        for count in itertools.count(1):
            paths = prepared(service, act, "a", "b", "d/c", "d/d")
            is_reached = False
            with injected(service, "signal=SIGKILL", call, count, by=signal.SIGKILL):  # it may wait for a thread that died
                try:
                    act(service, *paths)
                except OSError:
                    is_reached = True
            if is_reached:
                assert service.process.wait() == -9
                assert all(read(path) == CONTENT for path in paths), (act, call, count)
                service.start()
                if count % 2:
                    service.scan()
                    assert not service.stale_names(), "a scan tidies up"
            assert act(service, *paths) == 0 and not service.stale_names(), (act, call, count)
            assert len({os.stat(path).st_ino for path in paths}) == (1 if act is link else 4) and all(read(path) == CONTENT for path in paths)
            if not is_reached:
                break


def check_a_name_counts_once_whatever_leads_to_it(service):
    kept, duplicate = service.write("kept", CONTENT), service.write("sub/duplicate", CONTENT)
    os.symlink("sub", service.tree + "/too")
    os.makedirs(service.space, exist_ok=True)
    alias = service.tree + "/too/duplicate"
    for is_written in (True, False):
        service.edit(GROUPS, {"0": {"V": 1, "f_size": len(CONTENT), "f_list": [kept, duplicate, alias]}})
        start = os.path.getsize(service.base + "/log")

        def write():
            wait_for(lambda: SWAP in os.listdir(service.tree + "/sub"))
            with open(duplicate, "r+b"):
                pass

        writer = threading.Thread(target=write if is_written else lambda: None)
        with injected(service, "error=EIO", "syncfs", 99):  # never, but there is time
            writer.start()
            found = service.compress()
            writer.join()
        failed = re.findall(r"compressFile:\d+: \[RUX-NATIVE\] createHardLink fail, error code 16", service.log(start))
        assert (found, len(failed)) == (("1,600000", 0) if os.path.samefile(kept, duplicate) else ("0,0", 2)), (found, failed)
        assert is_written or os.path.samefile(kept, duplicate)


@for_root
def check_not_to_know_who_runs_means_to_wait(service):
    service.kill()
    service.start("unshare", "-m", "sh", "-c", 'mount --bind /dev/null /proc/loadavg && exec "$0"')
    with service.traced("-ttt", "-r", "-etrace=renameat2,unlinkat"):
        kept, duplicate = pair(service)
        stale = time.time()
        os.link(kept, f"{service.tree}/{SWAP}")
        assert link(service, kept, duplicate) == 0
    # The time of each, and by a clock that nobody sets that since the one before.
    times = re.findall(r" (\d+\.\d+) \(\+ +(\d+\.\d+)\) (?:renameat2|unlinkat)", read(service.base + "/calls"))
    (removal_of_stale, _), _, (_, since_exchange), *_ = times
    assert float(removal_of_stale) - stale >= 0.05 and float(since_exchange) >= 0.05, times


def hold_a_call_for_longer_than_a_lease(service):
    """The kernel then lets a program write to the file that is to be kept, just before it gets one more name."""
    kept, duplicate = prepared(service, link, "kept", "duplicate")
    with open("/proc/sys/fs/lease-break-time", encoding="ascii") as setting:
        longest = int(setting.read())

    def write():
        wait_for(lambda: SWAP in names(service))
        with open(kept, "r+b") as file:
            file.write(b"new")

    writer = threading.Thread(target=write)
    with service.traced("-etrace=renameat2", f"-einject=renameat2:delay_enter={longest * 1000000 + 3000000}:when=1"):
        writer.start()
        assert link(service, kept, duplicate) in (errno.EBUSY, errno.ESTALE)
    writer.join()
    assert read(duplicate) == CONTENT and read(kept) == "new" + CONTENT[3:] and not service.stale_names()


def check_threads_that_meet(service):
    """A restore has several. None takes the temporary name of another one's file for a stale one."""
    def expect_restored(groups, *options):
        record(service, LINKED, groups)
        with service.traced("-etrace=linkat,getdents64", *options):
            service.restore()
        assert {os.stat(path).st_nlink for group in groups for path in group} == {1} and " E " not in service.log(), service.log()

    os.makedirs(service.space)
    shared, long = linked(service, *"abcdefgh"), linked(service, "long0", "long1", "long2")
    os.truncate(long[0], 64 << 20)  # fills a batch, so that its thread comes later to the shared ones
    expect_restored([shared, long + shared], "-einject=linkat:delay_exit=50000")
    service.kill()
    service.write("../root/run/rux/unsettled", "")  # as the first one in a directory then looks for stale names
    service.start()
    expect_restored([linked(service, "i", "j"), linked(service, "k", "l")], "-einject=getdents64:delay_enter=100000", "-einject=linkat:delay_exit=200000")


def restored(service, groups, start):
    """Looks at a restore of groups of links: which paths have data of their own, and what the log says of each."""
    lines = "\n".join(line for line in service.log(start).splitlines() if " restoreFile:" in line)
    told = re.findall(r"restoreLinkFile path: (.*)\.\n.*restoreLinkFile (success|fail)", lines)
    assert [path for path, _ in told] == [path for paths in groups for path in paths]
    for paths in groups:
        outcomes = {path: outcome for path, outcome in told if path in paths}
        shared = [path for path in paths if os.stat(path).st_nlink > 1]
        assert all(outcomes[path] == "fail" for path in shared), (outcomes, shared)
        assert len(shared) < len(paths) or set(outcomes.values()) == {"fail"}, outcomes
        assert all(read(path) == CONTENT for path in paths)


def restore_groups(service, sizes):
    shutil.rmtree(service.tree)
    groups = [linked(service, *(f"{number}{letter}" for letter in "abcdef"[:size])) for number, size in enumerate(sizes)]
    record(service, LINKED, groups)
    start = os.path.getsize(service.base + "/log")
    return groups, start


def check_each_answer_of_a_restore_is_true(service):
    """While others open the files, and with a fault at each call in its turn."""
    os.makedirs(service.space, exist_ok=True)
    for _ in range(20):
        groups, start = restore_groups(service, [2, 3])
        is_over = threading.Event()

        def open_often():
            while not is_over.wait(0.0005):
                for path in groups[0] + groups[1]:
                    with contextlib.suppress(OSError):
                        os.close(os.open(path, os.O_WRONLY | os.O_NONBLOCK))

        opener = threading.Thread(target=open_often)
        opener.start()
        service.restore()
        is_over.set()
        opener.join()
        restored(service, groups, start)
    for error, call in [("EIO", call) for call in (*CALLS, *ON_FILES)] + [("ENOSPC", "openat"), ("ENOSPC", "linkat")]:
        for count in itertools.count(1):
            groups, start = restore_groups(service, [2, 3, 2])
            with injected(service, f"error={error}", call, count) as record:
                service.restore()
            restored(service, groups, start)
            if "INJECTED" not in read(record):
                break


def check_what_a_waiting_program_writes_after_a_kill(service):
    """It has waited for the lease of the service, and comes to its file when that has ended."""
    acts = {link: lambda service, kept, duplicate: link(service, kept, duplicate),
            restore: lambda service, kept, duplicate: restore(service, duplicate, kept)}
    for act, then in itertools.product(acts, (link, restore, Service.scan)):
        def write():
            wait_for(lambda: SWAP in names(service))
            with open(service.tree + "/duplicate", "r+b") as file:
                if act is restore:  # then the file has no other name; nor is its status changed after the write
                    os.remove(service.tree + "/kept")
                file.write(b"new")

        is_left = False
        while not is_left:  # where the writer has come too early for that, another name is
            kept, duplicate = prepared(service, act, "kept", "duplicate")
            writer = threading.Thread(target=write)
            with injected(service, "signal=SIGKILL", "renameat2", 2, by=signal.SIGKILL):  # that of an undo
                writer.start()
                with contextlib.suppress(OSError):
                    acts[act](service, kept, duplicate)
            assert service.process.wait() == -9
            writer.join()
            is_left = service.stale_names() == [SWAP]
            if not is_left:
                service.start()
        if act is restore:
            service.write("kept", CONTENT)
        service.start()
        then(service) if then is Service.scan else acts[then](service, kept, duplicate)
        assert read(duplicate) == "new" + CONTENT[3:] and read(kept) == CONTENT, (act, then)
        assert not service.stale_names() and service.logged(f"undone {duplicate}: written to") > 0, (act, then)


@contextlib.contextmanager
def held_before_the_end(service, act, *paths):
    """Between an exchange and its end, with the service stopped; the list given holds the call's code afterwards."""
    codes, before = [], os.stat(paths[-1]).st_ino
    with service.traced("-etrace=openat", "-P/proc/loadavg", "-einject=openat:delay_enter=150000"):
        caller = threading.Thread(target=lambda: codes.append(act(service, *paths)))
        caller.start()
        wait_for(lambda: os.stat(paths[-1]).st_ino != before and not is_leased(paths[-1]))
        service.process.send_signal(signal.SIGSTOP)
        try:
            yield codes
        finally:
            service.process.send_signal(signal.SIGCONT)
            caller.join()


def write_and_set_the_time_back(path):
    times = os.stat(path)
    with open(path, "r+b", buffering=0) as file:
        file.write(b"kept")
        os.utime(file.fileno(), ns=(times.st_atime_ns, times.st_mtime_ns))


def check_who_has_written_decides(service):
    """What becomes of the replaced file (the old) and of the one that has its name, by what others do to the two before the
    end. Each row: what is done to the old one, to the new one, whether each has another name; then, which one the name
    leads to, and how many temporary names there are."""
    old, new, swap, both = "old", "new", f"{service.tree}/{SWAP}", "were both written to"
    change = {"mode": lambda file: os.fchmod(file, 0o600), "time": lambda file: os.utime(file, (1, 1)), "": lambda file: None}
    rows = [
        ("", "", False, True, new), ("", "write", False, True, new), ("", "write", False, False, new),
        ("mode", "", False, True, old), ("mode", "", False, False, old), ("time", "", False, True, old),
        ("mode", "touch", False, True, old), ("mode", "write", False, True, new), ("time", "write", True, True, new),
        ("mode", "write back", False, False, new), ("write", "", False, True, old), ("write", "", True, True, old),
        ("write", "touch", False, False, both), ("write", "write", True, False, new), ("write", "write", False, True, old),
        ("write", "write back", False, False, both), ("write", "write", False, False, both), ("", "replaced", False, True, None),
        ("write", "replaced", True, True, None)]
    for act, (to_old, to_new, old_other, new_other, expected) in itertools.product((link, restore), rows):
        kept, duplicate = prepared(service, act, "kept", "duplicate")
        what = (act.__name__, to_old, to_new, old_other, new_other)
        if act is restore and (old_other or to_old and to_new):
            continue  # the other name of the old one is that of the group
        paths = (kept, duplicate) if act is link else (duplicate,)
        start = os.path.getsize(service.base + "/log")
        with open(duplicate, "rb") as file, held_before_the_end(service, act, *paths) as codes:
            before, after = os.fstat(file.fileno()).st_ino, os.stat(duplicate).st_ino
            writer = threading.Thread(target=lambda: write_and_set_the_time_back(swap))  # waits for the lease
            if to_old == "write":
                writer.start()
                wait_for(lambda: is_awaited(swap))
            else:
                change[to_old](file.fileno())
            if to_new == "write":
                with open(duplicate, "ab") as to:
                    to.write(b"new")
            elif to_new == "write back":
                write_and_set_the_time_back(duplicate)
            elif to_new == "touch":
                os.utime(duplicate)
            elif to_new == "replaced":
                os.rename(service.write("other", "other"), duplicate)
            if old_other:
                os.link(swap, service.tree + "/old too")
            if act is link and not new_other:
                os.remove(kept)
        if to_old == "write":
            writer.join()
        if act is restore and expected is old:  # and it is tried again: in vain while somebody writes
            if to_old == "write" and codes == [errno.EBUSY]:
                codes[0] = restore(service, duplicate)
            before = os.stat(duplicate).st_ino
            assert read(duplicate) == read(kept) and stat.S_IMODE(os.stat(duplicate).st_mode) == stat.S_IMODE(os.stat(kept).st_mode)
        inode = os.stat(duplicate).st_ino
        assert inode == {old: before, new: after, both: after}.get(expected, inode), what
        assert len(service.stale_names()) == (expected is both), what
        assert expected is not None or read(duplicate) == "other", what
        assert (both in service.log(start)) == (to_old == "write" and bool(to_new) and to_new != "replaced"), what
        assert (codes[0] != 0) == (expected in (old, both) and act is link), (what, codes)
        if to_old == "mode" and expected is old:
            assert stat.S_IMODE(os.stat(duplicate).st_mode) == 0o600, what
        files = {os.stat(f"{service.tree}/{name}").st_ino: read(f"{service.tree}/{name}") for name in names(service)}
        if to_old == "write":
            assert act is restore or files.get(before, "").startswith("kept"), what
        if to_new.startswith("write"):
            assert files[after] != CONTENT, what


if __name__ == "__main__":
    checks(globals())
