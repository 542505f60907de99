#!/usr/bin/env python3
"""Great numbers, great groups, long paths, many spaces; and what can only be seen while an operation runs over many files.

usage: sizes_test.py RUX RUXCTL
"""

import hashlib
import json
import os
import re
import sys
import threading
import time

from support.service import COMPRESS, GROUPS, LINKED, LIST, MODIFIED, RECORDS, RESTORE, SCAN, checks, read, wait_for

PROGRESS = "sys.ruxservice.compress.prog"


def counts(groups, files, size):
    return {"fileCount": files, "gCount": groups, "size": size}


def listed(service):
    page = json.loads(service.list())
    assert page["isEnd"] == 1, page
    return page["s"]


def check_members_of_large_groups(service):
    files = 16385  # one more than enter their groups at once
    paths = [service.write(f"d{i % 7}/{i}", "x") for i in range(files)]
    os.sync()
    for path in paths:  # are read from the disk, by more threads
        with open(path, "rb") as file:
            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
    service.scan()
    # Without the records all members are met anew; one that is edited into the group is there already.
    groups = service.database(GROUPS)
    (group,) = groups.values()
    assert len(group["f_list"]) == files
    added = service.write("e/added", "x")
    group["f_list"].append(added)
    service.edit(GROUPS, groups)
    service.scan()
    assert service.database(GROUPS) == groups and service.database(RECORDS)[added]["is_md5"] == 1
    os.remove(service.space + "/" + RECORDS)
    service.scan()
    assert service.database(GROUPS) == groups and len(service.database(RECORDS)) == files + 1


def check_a_file_is_read_once_whatever_its_names(service):
    size = 8 << 20
    path = service.write("a/file", "x" * size)
    for i in range(5):
        os.link(path, f"{service.tree}/a/{i}")
    os.symlink("a", service.tree + "/b")
    os.utime(path, (1, 1))
    time.sleep(0.2)  # until its times can be relied on
    before = service.bytes_read()
    service.scan()
    assert size <= service.bytes_read() - before < size * 3 // 2
    (group,) = service.database(GROUPS).values()
    assert len(group["f_list"]) == 12


def check_large_files_that_no_other_can_be_equal_to(service):
    def scan(*places, refresh=True):
        before = service.bytes_read()
        service.call(SCAN, json.dumps([{"sid": "s", "regs": [".*"], "dirs": places or [service.tree], "refresh": refresh, "lone_size": size}]))
        return service.bytes_read() - before

    size = 1 << 20
    first, second = (service.write(name, "a" * size) for name in ("a1", "a2"))
    small, lone, other = service.write("small", "s"), service.write("lone", "l" * (size + 1)), service.write("other", "o" * (size + 2))
    assert size <= scan() < 3 * size and set(service.database(RECORDS)) == {first, second, small}
    assert service.compress() and scan() < size
    # What only a linked group has the size of, and what a lone file has, which is read then.
    third, twin = service.write("a3", "a" * size), service.write("twin", "l" * (size + 1))
    assert 3 * size <= scan() < 4 * size
    groups = {tuple(group["f_list"]) for group in service.database(GROUPS).values()}
    assert groups in [{(small,), pair, tuple(linked + [third])} for pair in ((lone, twin), (twin, lone)) for linked in ([first, second], [second, first])]
    # A group that is not linked counts, for files that begin as its files do; a place may be a file.
    more, unlike = service.write("more", "l" * size + "m"), service.write("unlike", "u" + "l" * size)
    scan(more, unlike, refresh=False)
    assert more in service.database(RECORDS) and unlike not in service.database(RECORDS)
    assert scan(other) < size and other not in service.database(RECORDS)
    scan(other, service.write("another", "o" * (size + 2)))
    assert other in service.database(RECORDS)
    many = [service.write(f"many{i}", "m" * (size + 3)) for i in range(17)]  # more than threads that compare
    scan(*many)
    assert set(many) <= set(service.database(RECORDS))


def check_stop_in_a_long_file(service):
    size = 8 << 40
    paths = [service.write(name, "x") for name in "ab"]
    try:
        for path in paths:
            os.truncate(path, size)
    except OSError:
        return print("long files: skipped, none here")
    gone = service.write("gone", "x")
    service.call(SCAN, service.rule(dirs=[gone]))
    os.remove(gone)
    # Not ahead of its turn, and not when another is of its size, which a second processor reads; what is gone is not
    # known before the end.
    both = set(paths[:len(os.sched_getaffinity(0))])
    for members, read in (({"dirs": paths[:1]}, {paths[0]}), ({"dirs": [service.tree], "refresh": True, "lone_size": 1}, both)):
        client = threading.Thread(target=service.call, args=(SCAN, json.dumps([{"sid": "s", "regs": [".*"], **members}])))
        client.start()
        wait_for(lambda read=read: read <= set(service.open_files()))
        service.set_property("sys.ruxservice.stop_scan", "true")
        client.join(30)
        assert not client.is_alive() and service.logged("cal md5 error code != 0, continue") == 1
    assert service.logged("scanPostponed") == 1 and gone in service.database(RECORDS)
    service.edit(GROUPS, {"0": {"V": 1, "f_size": size, "f_list": paths}})
    assert service.compress() == f"1,{size}"  # holes are not compared
    return None


def check_trees_deeper_than_a_path(service):
    where = os.open(service.tree, os.O_PATH)
    for _ in range(2200):
        os.mkdir("d", dir_fd=where)
        below = os.open("d", os.O_PATH, dir_fd=where)
        os.close(where)
        where = below
        with os.fdopen(os.open("f", os.O_CREAT | os.O_WRONLY, dir_fd=where), "w") as file:
            file.write("x")
    os.close(where)
    service.scan()
    assert len(service.database(RECORDS)) == (4095 - len(service.tree) - 2) // 2


def check_longest_paths(service):
    deep = "deep"
    while len(service.tree) + 1 + len(deep) < 3850:
        deep += "/" + "d" * 150
    left = 4095 - len(service.tree) - 1 - len(deep) - 1
    first, second = (service.write(f"{deep}/{name * (left - 1)}" + more, "equal") for name, more in (("1", ""), ("2", "2")))
    assert len(second) == 4095
    service.scan()
    assert listed(service) == counts(1, 2, 5) and service.compress() == "1,5" and os.path.samefile(first, second)
    assert service.call(RESTORE, service.rule(regs=[".*/2+"], dirs=[])) == 5 and not os.path.samefile(first, second)
    assert read(first) == read(second) == "equal"


def check_groups_of_any_size_in_their_order(service):
    a, b, modified = (service.write(name, "same") for name in ("a", "b", "modified"))
    missing = service.tree + "/missing"
    service.scan()
    os.utime(modified, (1, 1))
    lists = ([a], [a] * 5000 + [b], [missing, modified], [b] * 5000 + [modified],  # this one counts, and is retired
             [missing] * 4999 + [a], [a, modified, b], [b, a])
    groups = {f"group{i}": {"V": 1, "f_size": 4, "f_list": paths} for i, paths in enumerate(lists)}
    service.edit(GROUPS, groups)
    assert listed(service) == counts(3, 5001 + 5000 + 2, 4 * (5001 - 1 + 5000 - 1 + 2 - 1))
    assert service.logged("file no exist.") == 1 + 4999
    assert service.logged(" readDupFiles:") == 1 + 4999 + 3, "whose lines they are"
    for digest in ("group2", "group3", "group5"):
        del groups[digest]
    assert service.database(GROUPS) == groups
    assert service.database(MODIFIED) == {path: {"V": 1, "r_flag": 0} for path in (missing, b, a)}


def check_pages(service):
    # Control characters take six bytes each in a reply, so a page needs fewer spaces.
    padding = "\x01" * 240
    entry = 2 + 240 * 6 + 5 + 1 + len('{"fileCount":0,"gCount":0,"size":0}') + 1  # with its comma
    page = 614400 // entry + 1  # the first that is too many
    spaces = [padding + str(10000 + i) for i in range(2 * page)]
    for space in spaces:
        os.mkdir(os.path.dirname(service.space) + "/" + space)
    first = service.call(LIST, json.dumps([{"sid": space, "regs": [".*"]} for space in spaces]))
    assert len(first) == page * entry + 2 + len('"isEnd":0,') > 614400
    assert len(json.loads(first)) == page + 1 and json.loads(first)["isEnd"] == 0
    service.scan()  # other operations may run between two pages, or be running when the next is asked for
    os.truncate(service.write("long", ""), 64 << 30)
    scan = threading.Thread(target=service.scan)
    scan.start()
    wait_for(lambda: service.tree + "/long" in service.open_files())
    assert service.call(LIST, "[]") == "{}"
    service.set_property("sys.ruxservice.stop_scan", "true")
    scan.join()
    second = json.loads(service.call(LIST, "garbage"))
    assert len(second) == page + 1 and second["isEnd"] == 0
    assert service.call(LIST, "{") == '{"isEnd":1}\n'
    assert service.logged("Rux_getDuplicateFilesImp is transfer") == service.logged("the size is larger") == 2
    assert service.logged("analysis fail") == 0
    assert listed(service) == counts(0, 0, 0), "the next call starts a new listing"


def check_entries_that_stand_there_already(service):
    jpg, txt = service.write("a.jpg", "same"), service.write("sub/b.txt", "same")
    unreadable = service.tree + "/unreadable"
    os.symlink("/sys/kernel/uevent_seqnum", unreadable)  # looks like a file of 4096 bytes
    service.scan()
    assert re.search(r" D .*: calculateFileMD5:\d+: \[RUX-NATIVE\] cal md5 error code != 0, continue\n", service.log())
    records, digest = service.database(RECORDS), hashlib.md5(b"same").hexdigest()
    paths = service.database(GROUPS)[digest]["f_list"]  # in the order of the directory
    assert sorted(paths) == [jpg, txt]
    assert [records[path]["is_md5"] for path in (jpg, txt, unreadable)] == [1, 1, 0]
    # A record without a digest is written anew; one with a digest is not.
    service.edit(RECORDS, {**records, unreadable: {**records[unreadable], "s_time": 1}, jpg: {**records[jpg], "x": 1}})
    service.scan()
    assert service.database(RECORDS) == {**records, jpg: {**records[jpg], "x": 1}}
    # A linked group takes the place of another with its digest.
    service.edit(LINKED, {digest: {"V": 1, "f_size": 9, "f_list": ["/elsewhere"], "x": 1}})
    assert service.compress() == "1,4" and service.database(GROUPS) == {}
    assert service.database(LINKED) == {digest: {"V": 1, "f_size": 4, "f_list": paths}}
    # One path of a group may match the pattern and another the fragment.
    assert service.call(RESTORE, service.rule(regs=[".*jpg"], dirs=["/sub/"])) == 4 and os.stat(jpg).st_nlink == 1
    for size in (-3, "4", 1e300):  # counts nothing
        service.edit(GROUPS, {digest: {"V": 1, "f_size": size, "f_list": [jpg, txt]}})
        assert service.compress() == "1,0", size
    # A note gets the values that are new, and keeps the others.
    service.edit(GROUPS, {digest: {"V": 1, "f_size": 4, "f_list": [jpg, txt]}})
    service.edit(MODIFIED, {jpg: {"V": 0, "r_flag": 1, "x": 1}})
    os.utime(txt, (1, 1))
    assert listed(service) == counts(0, 0, 0) and service.database(MODIFIED) == {jpg: {"V": 1, "r_flag": 0, "x": 1}}


def check_progress(service):
    size = 1 << 20  # so that each value stands long enough to be seen
    for i in range(251):
        os.truncate(service.write(f"f{i}", "sparse"), size)
    service.scan()
    service.set_property(PROGRESS, "something else")
    results = []
    client = threading.Thread(target=lambda: results.append(service.compress()))
    seen = ["something else"]
    client.start()
    while client.is_alive():
        value = service.property(PROGRESS)
        if value != seen[-1]:
            seen.append(value)
    # Some may stand for too short a time to be seen.
    steps = ["something else", "0", "100", "200"]
    assert results == [f"1,{250 * size}"] and seen == [step for step in steps if step in seen], (results, seen)
    assert service.property(PROGRESS) == "200"


def check_nothing_stays_open(service):
    for i in range(30):
        for name in "123":
            service.write(f"r{i}/{name}", "x" * (1 << 20))
        service.call(SCAN, service.rule(f"r{i}", dirs=[f"{service.tree}/r{i}"]))
        service.call(COMPRESS, f'["r{i}"]')
        # The blocks of what was replaced are free.
        assert not [path for path in service.open_files() if path.startswith(service.tree)]


if __name__ == "__main__":
    checks(globals())
