#!/usr/bin/env python3
"""The whole way on a copy of a real tree of 20,000 files: scan, listing, compression, restore.

Every expectation comes from md5sum, stat and du, and from Python's own JSON reader.

usage: whole_tree_test.py RUX RUXCTL
"""

import json
import os
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from support.service import Service, groups_of, md5sums  # noqa: E402

FILES = 20000
LARGEST = 256 * 1024  # bytes; larger files of the machine are left out, to keep the copy small
SOURCES = ["/usr/share", "/usr/include", "/usr/lib", "/etc"]


def check(condition, what):
    if not condition:
        sys.exit(f"FAILED: {what}")
    print(f"ok: {what}", flush=True)


def copy_real_tree(tree):
    """Copies FILES files with their directories; where the machine has fewer, some of them twice."""
    count = 0
    for turn in range(100):
        for source in SOURCES:
            for folder, _, names in os.walk(source):
                target = f"{tree}/{turn}{folder}"
                for name in names:
                    path = os.path.join(folder, name)
                    if os.path.islink(path) or not 0 <= os.path.getsize(path) <= LARGEST:
                        continue
                    os.makedirs(target, exist_ok=True)
                    shutil.copyfile(path, os.path.join(target, name))
                    count += 1
                    if count == FILES:
                        return


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout


def statuses_below(tree, form):
    """{path: text} as stat prints it in the given form."""
    text = output_of("sh", "-c", f'find "$0" -type f -size +0 -print0 | xargs -0 stat --printf "{form} %n\\0"',
                     tree)
    entries = [line.split(" ", 1) for line in text.decode().split("\0")[:-1]]
    return {path: status for status, path in entries}


def bytes_in_use(tree):
    """What du counts for the tree's files, a file with several names once."""
    text = output_of("sh", "-c", 'find "$0" -type f -print0 | du --files0-from=- -cb | tail -n 1', tree)
    return int(text.split()[0])


def main():
    rux, ruxctl = sys.argv[1:3]
    with Service(rux) as service:
        tree = service.tree
        environment = {**os.environ, "RUX_ROOT": service.root}

        def client(*arguments):
            return subprocess.run([ruxctl, *arguments], env=environment, check=True,
                                  stdout=subprocess.PIPE).stdout.decode()

        def database(name):
            with open(f"{service.space}/{name}", "rb") as file:
                return file.read()

        def digests_computed():
            with open(service.base + "/log", "rb") as file:
                return file.read().count(b"computeFileMD5 ")

        copy_real_tree(tree)
        digests = md5sums(tree)
        sizes = {path: int(size) for path, size in statuses_below(tree, "%s").items()}
        groups = groups_of(digests)
        duplicates = {digest: paths for digest, paths in groups.items() if len(paths) > 1}
        spare = sum((len(paths) - 1) * sizes[next(iter(paths))] for paths in duplicates.values())
        copies = sum(len(paths) for paths in duplicates.values())
        print(f"{len(digests)} files, {len(duplicates)} groups of {copies} files, {spare} bytes spare")
        check(len(digests) > 0.95 * FILES and len(duplicates) > 50, "the tree is worth the test")

        client("setprop", "sys.ruxservice.enablelog.ctrl", "true")

        client("scan", "--space", "s", tree)
        listed = json.loads(database("RUXCheckNoCompress.json"))
        check({d: set(g["f_list"]) for d, g in listed.items()} == groups,
              "the groups are those of md5sum, with the same paths")
        check(all(len(g["f_list"]) == len(set(g["f_list"])) for g in listed.values()),
              "no path is in a group twice")
        records = json.loads(database("RUXFileInfo.json"))
        check(set(records) == set(digests), "there is one record for each file")
        check(digests_computed() == len(digests), "each file was read once")
        files = ["RUXFileInfo.json", "RUXCheckNoCompress.json", "RUXModifyFileInfo.json"]
        before = [database(name) for name in files]
        client("scan", "--space", "s", tree)
        check(digests_computed() == len(digests), "a second scan computes no digest")
        check([database(name) for name in files] == before, "and leaves the database byte for byte")

        page = json.loads(client("call", "2", json.dumps([{"sid": "s", "regs": [".*"], "dirs": [tree]}])))
        check(page == {"s": {"gCount": len(duplicates), "fileCount": copies, "size": spare}, "isEnd": 1},
              "the listing's figures are those of md5sum and stat")

        in_use = bytes_in_use(tree)
        result = client("call", "3", '["s"]')
        check(result == f"{len(duplicates)},{spare}", f"the compression gives back {spare} bytes")
        check(in_use - bytes_in_use(tree) == spare, "du agrees")
        check(md5sums(tree) == digests, "every path has the digest it had")
        inodes = statuses_below(tree, "%i")
        check(all(len({inodes[path] for path in paths}) == 1 for paths in groups.values()),
              "every group is one inode")
        linked = json.loads(database("RUXCheckACompress.json"))
        check(linked == {digest: listed[digest] for digest in duplicates}, "the groups have moved")
        progress = (copies - len(duplicates)) // 100 * 100
        check(client("getprop", "sys.ruxservice.compress.prog") == f"{progress}\n", f"progress is {progress}")

        kept = statuses_below(tree, "%a:%U:%G:%.9Y")
        result = client("call", "4", '[{"sid":"s","regs":[".*"]}]')
        check(result == f"{spare}\n", "the restore takes the bytes up again")
        check(md5sums(tree) == digests, "every path has the digest it had")
        inodes = statuses_below(tree, "%i")
        check(len(set(inodes.values())) == len(inodes), "and an inode of its own")
        check(statuses_below(tree, "%a:%U:%G:%.9Y") == kept, "modes, owners and times are as before")
        check(bytes_in_use(tree) == in_use, "du is where it was")
        check(not service.leftovers(), "no temporary name is left")


if __name__ == "__main__":
    main()
