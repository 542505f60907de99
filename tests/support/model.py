"""What the service has to do, said a second time: plain, slow, and from its description alone.

A model is asked before the service is: it reads the same files, and says the answer, the log lines, the database
texts, the properties, and which paths are one file afterwards.
"""

import collections
import copy
import ctypes
import hashlib
import json
import os
import re
import stat
import sys

from support.service import IMAGES

STOP = {"scan": "sys.ruxservice.stop_scan", "list": "sys.ruxservice.stop_get_duplicate_files",
        "compress": "sys.ruxservice.stop_compress"}
PROGRESS, TOOL_LOG = "sys.ruxservice.compress.prog", "sys.ruxservice.enablelog.ctrl"
UNREADABLE = "/sys/kernel/uevent_seqnum"  # by its status a file with content
MOST = 2**63 - 1
STALE_NAME = re.compile(r"\.rux-swap-[0-9a-f]{32}")

sys.setrecursionlimit(10000)  # texts nest up to 999 levels
_libc = ctypes.CDLL(None, use_errno=True)
_libc.opendir.restype = _libc.readdir.restype = ctypes.c_void_p
_libc.readdir.argtypes = _libc.closedir.argtypes = [ctypes.c_void_p]


def entries(path):
    """The names in a directory in the order of its stream, "." and ".." among them; None when it cannot be opened."""
    stream = _libc.opendir(os.fsencode(path)) if "\0" not in path else None
    if not stream:
        return None
    names = []
    while entry := _libc.readdir(stream):
        names.append(os.fsdecode(ctypes.string_at(entry + 19)))
    _libc.closedir(stream)
    return names


def status(path, follow=True):
    try:
        return os.stat(path, follow_symlinks=follow)
    except (OSError, ValueError):
        return None


def owners_of(path):
    """User, group and extended attributes."""
    st = os.lstat(path)
    return st.st_uid, st.st_gid, {name: os.getxattr(path, name, follow_symlinks=False)
                                  for name in os.listxattr(path, follow_symlinks=False)}


def md5_of(path):
    with open(path, "rb") as file:
        return hashlib.md5(file.read()).hexdigest()


def seconds(st):
    return st.st_mtime_ns // 10**9


def likeness(path, size):
    """What files that may be equal have in common."""
    if not isinstance(path, str) or "\0" in path or not os.path.isfile(path) or os.path.realpath(path) == UNREADABLE:
        return size, b""
    with open(path, "rb") as file:
        return size, file.read(4096)


def reach_of(rule):
    """What the optional members of a scan's rule say; one of another type says nothing."""
    reach = {"refresh": False, "follow_links": True, "one_file_system": False, "min_size": 0, "max_size": 2**64 - 1,
             "lone_size": 2**64 - 1}
    for name, default in reach.items():
        value = rule.get(name)
        if type(value) is type(default) and (isinstance(value, bool) or 0 <= value < 2**64):
            reach[name] = value
    return reach


class Partial(Exception):
    pass


def parse(text):
    """(value, whether it is JSON): of what is not, the value as far as it goes."""
    at, depth, deepest = 0, 0, 0
    for bracket in re.sub(r'"(\\.|[^"\\])*"|/\*.*?\*/', "", text, flags=re.S):
        depth += (bracket in "[{") - (bracket in "]}" and depth > 0)
        deepest = max(deepest, depth)
    if deepest > 999:
        return None, False
    root = [None]

    def space():
        nonlocal at
        while at < len(text) and text[at] in " \t\r\n":
            at += 1
        if text.startswith("/*", at) and "*/" in text[at + 2:]:
            at = text.index("*/", at + 2) + 2
            space()

    def token(pattern):
        nonlocal at
        space()
        found = re.compile(pattern).match(text, at)
        if not found:
            raise Partial
        at = found.end()
        return found.group()

    def value(put):
        space()
        if text.startswith("{", at):
            token("{")
            members = {}
            put(members)
            space()
            if text.startswith("}", at):
                return token("}")
            while True:
                name = json.loads(token(r'"(\\.|[^"\\])*"'))
                token(":")
                members[name] = None
                value(lambda inner, name=name: members.__setitem__(name, inner))
                if token("[,}]") == "}":
                    return None
        if text.startswith("[", at):
            token(r"\[")
            items = []
            put(items)
            space()
            if text.startswith("]", at):
                return token("]")
            while True:
                items.append(None)
                value(lambda inner: items.__setitem__(-1, inner))
                if token(r"[,\]]") == "]":
                    return None
        scalar = token(r'"(\\.|[^"\\])*"|-?[0-9.eE+]*[0-9]|-|true|false|null')
        return put(0 if scalar == "-" else json.loads(scalar))

    try:
        value(lambda inner: root.__setitem__(0, inner))
        return root[0], True
    except (Partial, ValueError):
        return root[0], False


def text_of(value):
    """A value as the database holds it."""
    def sort(inner):
        if isinstance(inner, dict):
            return {name: sort(inner[name]) for name in sorted(inner, key=lambda name: name.encode("utf-8"))}
        return [sort(item) for item in inner] if isinstance(inner, list) else inner
    return json.dumps(sort(value), separators=(",", ":")) + "\n"


def text_on_disk(path):
    try:
        with open(path, encoding="utf-8", newline="") as file:
            return file.read()
    except OSError:
        return None


def strings(value):
    return [item for item in value if isinstance(item, str)] if isinstance(value, list) else []


def member(value, name, kind):
    """A member of an object if it is of that kind, else None."""
    found = value.get(name) if isinstance(value, dict) else None
    return found if isinstance(found, kind) and not isinstance(found, bool) else None


def number(value, name):
    if isinstance(value, dict) and value.get(name) is True:
        return 1
    found = member(value, name, (int, float)) or 0
    return int(found) if abs(found) < 9.2e18 or found == MOST else 0


def added(first, second):
    return min(MOST, first + second)


def path_of(entry):
    return entry if isinstance(entry, str) and "\0" not in entry else ""


def is_modified(image, path, flag):
    if path:
        if not isinstance(image.get(path), dict):
            image[path] = {}
        image[path].update({"V": 1, "r_flag": flag})


class Stopped(Exception):
    pass


class Model:
    def __init__(self, root):
        self.zel = root + "/data/local/zel/"
        self.images = [None] * 4
        self.tool_log = False
        self.properties = {}
        self.busy = None  # the inode of a file that somebody writes
        self.begin()

    def begin(self, hold=None, held=None):
        """Before each call. `hold` is ("log" or "stat", number); `held` is called at just that moment."""
        self.lines, self.texts, self.links, self.restored = [], {}, {}, []
        self.looked_after = set()
        self.hold, self.held = hold, held
        self.moments = {"log": 0, "stat": 0}

    def reached(self, kind):
        self.moments[kind] += 1
        if self.hold and self.hold[0] == kind:
            self.hold = (kind, self.hold[1] - 1)
            if self.hold[1] == 0:
                self.hold = None
                self.held()

    def log(self, priority, function, text):
        self.lines.append((priority, function, text))
        self.reached("log")

    def stops(self, operation):
        return self.properties.get(STOP[operation]) == "true"

    def switch_log(self):
        self.tool_log = self.tool_log or self.properties.get(TOOL_LOG) == "true"

    def tool(self, function, path):
        if self.tool_log:
            self.log("D", "tavo_f2fs_io", f"{function} {path}")

    # The database

    def directory(self, sid):
        return self.zel + sid if sid not in (".", "..") and not re.search("[/\0]", sid) else None

    def read(self, path):
        """The text of a file, as this call has left it or as it is on disk; None when it cannot be opened."""
        return self.texts[path] if path in self.texts else text_on_disk(path)

    def load(self, directory, *selected):
        self.damaged = None
        for index in selected:
            path = directory + "/" + IMAGES[index]
            if status(path) is None and path not in self.texts:
                if os.path.isdir(directory) or directory in self.made:
                    self.texts[path] = "{}\n"
                else:
                    self.log("E", "readFileDBJson", f"the file {path} creat fail.")
            text = "" if os.path.isdir(path) else self.read(path)
            value = None
            if text is None:
                self.log("E", "readFileDBJson", f"the file {path} open fail.")
            else:
                value, whole = parse(text)
                if not whole:
                    self.log("E", "readFileDBJson", f"the file {path} read fail")
                    if index == 2 and text:  # kept by the next save
                        self.damaged = text
            self.images[index] = value

    def save(self, directory, *selected):
        for index in selected:
            path = directory + "/" + IMAGES[index]
            st = status(path)
            closed = st and (stat.S_ISDIR(st.st_mode) or stat.S_ISSOCK(st.st_mode))
            if closed or not (os.path.isdir(directory) or directory in self.made):
                self.log("E", "DBWriteUpdate", f"The DB{index + 1} open fail.")
            else:
                self.texts[path] = text_of(self.images[index])
                if index == 2 and self.damaged:
                    self.texts[path + ".damaged"] = self.damaged

    def object(self, index):
        if not isinstance(self.images[index], dict):
            self.images[index] = {}
        return self.images[index]

    # Patterns

    def compile(self, patterns):
        compiled = []
        for pattern in patterns:
            try:
                compiled.append(re.compile(pattern.encode("utf-8").replace(b"[[", b"[\\[")))
            except re.error:
                self.log("E", "compile", f"invalid pattern {pattern}")
        return compiled

    @staticmethod
    def matches(patterns, path):
        return any(pattern.fullmatch(os.fsencode(path)) for pattern in patterns)

    # Scan

    def scan(self, request):
        function, self.made = "Rux_scanDuplicateFilesImp", set()
        self.properties[STOP["scan"]] = "false"
        rules, whole = parse(request)
        if not whole:
            return self.log("E", function, "scan rules analysis fail")
        self.switch_log()
        exceptions = self.compile(self.exception_rules())
        space = None
        for rule in rules if isinstance(rules, list) else []:
            if isinstance(rule, dict) and "sid" in rule and isinstance(rule["sid"], str):
                space = self.directory(rule["sid"])
                if space is None or not self.make(space):
                    space = None
                    self.log("E", function, "scan rules mkdir SpaceID_DBPath fail")
                    continue
                self.load(space, 0, 1, 3)
            else:
                self.log("D", function, "scanRules Incorrect format")
                if not isinstance(rule, dict) or "sid" in rule:
                    space = None
                if space is None:
                    continue
            regs, dirs = strings(member(rule, "regs", list)), strings(member(rule, "dirs", list))
            if not regs:
                continue
            if not dirs:
                self.log("E", function, "scanRules Incorrect format")
                self.save(space, 0, 1, 3)
                continue
            self.reach = reach_of(rule)
            if self.reach["refresh"]:
                self.load(space, 2)
            self.before = [{} if not isinstance(image, dict) else image for image in copy.deepcopy(self.images)]
            self.met, self.taken, self.postponed, self.is_stopped = set(), {}, [], False
            patterns = self.compile(regs)
            for path in dirs:
                if self.stops("scan"):
                    self.log("D", function, "stop.")
                    self.remove_stale([])
                    self.save(space, 0, 1, 3)
                    return None
                self.entered = {}
                if self.walk(path, patterns, exceptions, []) != 0:
                    self.log("E", function, "scanSpaceID fail")
            if not self.is_stopped:
                self.scan_postponed()
            self.remove_stale([] if self.is_stopped else dirs)
            self.save(space, 0, 1, 3)
        return None

    def scan_postponed(self):
        if not self.postponed:
            return
        self.is_stopped = self.stops("scan")
        images = [image for image in self.images[1:3 if self.reach["refresh"] else 2] if isinstance(image, dict)]
        alike = collections.Counter(likeness(path, st.st_size) for path, _, st in self.postponed)
        for group in [group for image in images for group in image.values() if isinstance(member(group, "f_list", list), list)]:
            alike.update(likeness(path, max(0, number(group, "f_size"))) for path in group["f_list"])
        for path, name, st in self.postponed:
            if alike[likeness(path, st.st_size)] > 1 and not self.is_stopped:
                self.is_stopped = self.stops("scan")
                if not self.is_stopped:
                    self.take(path, name, st, False)
        if self.is_stopped:
            self.log("D", "scanPostponed", "stop.")

    def make(self, space):
        if status(space) is None and len(os.path.basename(space)) <= 255:
            self.made.add(space)
        return status(space) is not None or space in self.made

    def exception_rules(self):
        path = self.zel + "RUXExceptRules.json"
        if status(path) is None:
            return []
        text = self.read(path)
        if text is None and not os.path.isdir(path):
            self.log("E", "getExceptRiles", "the except file open fail")
            return []
        value, whole = parse(text or "")
        if not whole:
            self.log("E", "getExceptRiles", "the except rules analysis fail")
            return []
        return strings(value)

    def walk(self, path, patterns, exceptions, above, behind_link=False):
        st = status(path)
        names = entries(path)
        if names is not None and (st.st_dev, st.st_ino) in above:
            names = None
        if names is not None and behind_link:
            self.entered[st.st_ino] = self.entered.get(st.st_ino, 0) + 1
            if self.entered[st.st_ino] > 16:
                names = None
        if names is None:
            if st is None:
                self.log("E", "scanSpaceID:stat", "The directory cannot be opened.")
                return -1
            if stat.S_ISDIR(st.st_mode) or st.st_size == 0:
                self.log("E", "scanSpaceID:opendir", "The directory cannot be opened.")
                return -1
            if self.is_of_size(st):
                self.fingerprint(path, "", st, patterns, exceptions)
            return 0
        for name in names:
            if self.stops("scan"):
                self.log("D", "scanSpaceID", "stop.")
                self.is_stopped = True
                return 0
            if name in (".", ".."):
                continue
            child = path + "/" + name
            child_st = status(child)
            if not self.reach["follow_links"] and os.path.islink(child):
                continue
            if child_st is None:
                self.log("E", "scanSpaceID:stat", "The directory cannot be opened.")
            elif self.reach["one_file_system"] and stat.S_ISDIR(child_st.st_mode) and child_st.st_dev != (above or [(st.st_dev, 0)])[0][0] and \
                    entries(child) is not None:
                continue
            elif stat.S_ISDIR(child_st.st_mode) or child_st.st_size == 0:
                self.walk(child, patterns, exceptions, above + [(st.st_dev, st.st_ino)],
                          behind_link or os.path.islink(child))
            elif self.is_of_size(child_st):
                self.fingerprint(child, name, child_st, patterns, exceptions)
        return 0

    def is_of_size(self, st):
        return self.reach["min_size"] <= st.st_size <= self.reach["max_size"]

    def look_after(self, directory, name):
        """What the library says, once in a scan, of a name like its own beside which it finds no file of that name."""
        if directory not in self.looked_after:
            self.looked_after.add(directory)
            self.log("E", "tavo_f2fs_io", f"kept {directory}/{name} beside a missing file")

    def fingerprint(self, path, name, st, patterns, exceptions):
        refresh = self.reach["refresh"]
        is_done = path in self.met if refresh else number(member(self.images[0], path, dict), "is_md5") == 1
        if is_done or not self.matches(patterns, path):
            return
        if STALE_NAME.fullmatch(path.rsplit("/", 1)[-1]):
            if name:
                self.look_after(path[:-len(name) - 1], name)
            return
        try:
            path.encode("utf-8")
        except UnicodeEncodeError:
            self.log("D", "calculateFileMD5", f"the path {path} is not valid UTF-8, skip")
            return
        is_exception = self.matches(exceptions, path) or is_behind_link(path) and self.matches(exceptions, os.path.realpath(path))
        if not is_exception and st.st_size >= self.reach["lone_size"] and not (refresh and self.is_known(path) and self.holds(path, st)):
            return self.postponed.append((path, name, st))
        self.take(path, name, st, is_exception)

    def take(self, path, name, st, is_exception):
        refresh = self.reach["refresh"]
        if refresh and path in self.met:
            return
        if refresh and self.is_known(path):
            self.met.add(path)
            if not is_exception and self.holds(path, st):
                if digest := self.apart_from(path, st):
                    self.enter(digest, path, st)
                return
            self.taken[path] = None
        elif number(member(self.images[0], path, dict), "is_md5") == 1:
            return
        self.record(path, name, st)
        if is_exception:
            self.log("D", "calculateFileMD5", "the file is in black list")
            return
        if os.path.realpath(path) == UNREADABLE:
            self.log("D", "calculateFileMD5", "cal md5 error code != 0, continue")
            return
        digest = md5_of(path)
        self.images[0][path]["is_md5"] = 1
        if path in self.taken:
            self.taken[path] = digest
        self.enter(digest, path, st)

    def enter(self, digest, path, st):
        groups = self.object(1)
        linked = self.take_linked(digest) if self.reach["refresh"] else []
        if not isinstance(groups.get(digest), dict):
            groups[digest] = {"V": 1, "f_size": st.st_size, "f_list": []}
        if not isinstance(groups[digest].get("f_list"), list):
            groups[digest]["f_list"] = []
        paths = groups[digest]["f_list"]
        paths[:0] = [other for other in linked if other not in paths]
        if path not in paths:
            paths.append(path)

    def record(self, path, name, st):
        suffix = (name or path).rpartition(".")[2] if "." in (name or path) else ""
        if not 1 <= len(os.fsencode(suffix)) <= 10 or "/" in suffix:
            suffix = "nosuffix"
        self.object(0)[path] = {"V": 1, "s_time": seconds(st), "c_flag": 0, "w_flag": 0, "reg": suffix, "is_md5": 0}

    # Refresh: what the space knew is in `before`

    def apart_from(self, path, st):
        """The digest of DB3's group that the path should be a link of, and is not."""
        if st.st_nlink > 1 or self.groups_with(path, 1) or number(self.before[3].get(path), "r_flag") == 1:
            return None
        digest = min((digest for digest, group in self.before[2].items() if path in strings(member(group, "f_list", list))),
                     key=lambda name: name.encode("utf-8"), default="")
        return digest if len(digest.encode("utf-8")) < 36 and "\0" not in digest else None

    def groups_with(self, path, index):
        return [group for digest, group in sorted(self.before[index].items(), key=lambda item: item[0].encode("utf-8"))
                if path in strings(member(group, "f_list", list))]

    def is_known(self, path):
        return path in self.before[0] or path in self.before[3] or bool(self.groups_with(path, 1) or self.groups_with(path, 2))

    def holds(self, path, st):
        record, mark = self.before[0].get(path), self.before[3].get(path)
        if number(record, "is_md5") != 1:
            return False
        if isinstance(mark, dict) and "r_flag" in mark:
            return number(mark, "r_flag") == 1 and st.st_nlink == 1
        if groups := self.groups_with(path, 1):
            return (st.st_size, seconds(st)) == (max(0, number(groups[-1], "f_size")), number(record, "s_time"))
        groups = self.groups_with(path, 2)
        return not (len(groups) > 1 and st.st_nlink == 1) and any(self.is_in(group, path, st) for group in groups)

    def groups_of(self, path):
        return self.groups_with(path, 1)[:1] + self.groups_with(path, 2)

    def is_in(self, group, path, st):
        paths = [other for other in strings(group["f_list"]) if other == path or len(self.groups_of(other)) == 1]
        times = [number(self.before[0][other], "s_time") for other in paths if other in self.before[0]]
        return st.st_size == max(0, number(group, "f_size")) and seconds(st) in times

    def is_linked(self, path, digest):
        """Whether DB3 has it in the group of that digest, and it is as it was."""
        group, st = member(self.before[2], digest, dict), status(path)
        return path in strings(member(group, "f_list", list)) and st is not None and self.is_in(group, path, st)

    def take_linked(self, digest):
        taken = []
        for path in strings(member(member(self.before[2], digest, dict), "f_list", list)):
            if self.groups_with(path, 1) or not self.is_linked(path, digest):
                continue
            if len(self.groups_of(path)) > 1 and md5_of(path) != digest:
                continue
            if path not in self.taken:
                self.record(path, "", status(path))
                self.images[0][path]["is_md5"] = 1
            taken.append(path)
        return list(dict.fromkeys(taken))

    def remove_stale(self, places):
        if not self.reach["refresh"]:
            return

        def is_below(path):
            return any(path == place or path.startswith(place + "/") for place in places if place)

        def stays(path, digest):
            if not isinstance(path, str) or not self.is_known(path):
                return True
            if self.taken[path] == digest if path in self.taken else path in self.met or not is_below(path):
                return True
            if self.is_linked(path, digest) and status(path).st_nlink > 1:
                self.met.add(path)
                return True
            return False

        known = set(self.before[0]) | set(self.before[3])
        for digest in self.sorted_names(1):
            group = self.images[1][digest]
            paths = member(group, "f_list", list) or []
            group_stays = [path for path in paths if stays(path, digest)]
            if len(group_stays) < len(paths):
                group["f_list"] = group_stays
                if not group_stays:
                    del self.images[1][digest]
        for path in known:
            is_gone = path not in self.met and is_below(path)
            if is_gone and isinstance(self.images[0], dict):
                self.images[0].pop(path, None)
            if (is_gone or path in self.taken) and isinstance(self.images[3], dict):
                self.images[3].pop(path, None)

    def spaces_of(self, rules, function, complaint):
        """The rules of a listing or a restore that name a space, with its directory."""
        for rule in rules if isinstance(rules, list) else []:
            if member(rule, "sid", str) is None:
                self.log("E", function, complaint)
            elif (space := self.directory(rule["sid"])) is None or status(space) is None:
                self.log("E", function, "the space id DB path is not access")
            else:
                yield rule, space

    # Listing

    def list(self, request):
        function, self.made = "Rux_getDuplicateFilesImp", set()
        self.properties[STOP["list"]] = "false"
        rules, whole = parse(request)
        if not whole:
            self.log("E", function, "getDuplicateFilesRules analysis fail")
            return ""
        page = {}
        for rule, space in self.spaces_of(rules, function, "getDupFileRules Incorrect format"):
            self.load(space, 0, 1, 3)
            regs, dirs = strings(member(rule, "regs", list)), member(rule, "dirs", list)
            if not regs:
                self.log("D", function, "the getDupFileRules reg is empty")
                continue
            patterns = self.compile(regs)
            counts, counted = [0, 0, 0], set()
            if dirs is None:
                self.log("E", function, "getDupFileRules Incorrect format")
            elif not strings(dirs):
                self.group(patterns, counts, counted)
            else:
                for _ in strings(dirs):
                    self.group(patterns, counts, counted)
                    if self.stops("list"):
                        self.log("D", function, "get dup stop.")
                        break
            self.save(space, 0, 1, 3)
            self.log("D", function, "getDupFileRules sameMD5GroupCount %d, canCompressSize %d, dupFileCount %d."
                     % tuple(counts))
            page[rule["sid"]] = {"fileCount": counts[2], "gCount": counts[0], "size": counts[1]}
            if self.stops("list"):
                self.log("D", function, "get dup stop.")
                break
        return text_of({**page, "isEnd": 1})

    def group(self, patterns, counts, counted):
        try:
            retired = [digest for digest in self.sorted_names(1) if self.examine(digest, patterns, counts, counted)]
        except Stopped:
            return
        for digest in retired:
            del self.images[1][digest]

    def sorted_names(self, index):
        image = self.images[index]
        return sorted(image, key=lambda name: name.encode("utf-8")) if isinstance(image, dict) else []

    def examine(self, digest, patterns, counts, counted):
        """Whether the group is to be retired."""
        paths = member(self.images[1][digest], "f_list", list)
        if digest == "" or paths is None or len(paths) < 2:
            return False
        matched, last, is_retired = 0, None, False
        for path in map(path_of, paths):
            if path:
                self.reached("stat")
            if is_retired:
                continue  # looked at, but no more
            st = status(path)
            if st is None:
                self.log("D", "readDupFiles", "file no exist.")
                continue
            last = st
            if seconds(st) != number(member(self.images[0], path, dict), "s_time"):
                self.log("D", "readDupFiles", f"file {path} is modified.")
                is_modified(self.object(3), path_of(paths[0]), 0)
                is_retired = True
                continue
            matched += self.matches(patterns, path)
            if self.stops("list"):
                self.log("D", "readDupFiles", "stop.")
                raise Stopped
        if matched >= 2 and digest not in counted:
            counted.add(digest)
            first = status(path_of(paths[0])) or last
            counts[0] += 1
            counts[1] += first.st_size * max(0, matched - first.st_nlink)
            counts[2] += matched
        return is_retired

    # Exception rules

    def rules(self, request):
        function = "Rux_setRUXExceptRulesImp"
        value, whole = parse(request)
        if not whole:
            self.log("E", function, "Rux_setRUXExceptRulesImp analysis fail")
        elif not isinstance(value, list) or not value or len(strings(value)) < len(value):
            self.log("D", function, "Rux_setRUXExceptRulesImp is empty")
        elif os.path.isdir(self.zel + "RUXExceptRules.json"):
            self.log("E", function, "the exceptPath open fail")
        else:
            self.texts[self.zel + "RUXExceptRules.json"] = value

    # Compression

    def compress(self, request):
        function, self.made = "Rux_compressDuplicateFilesImp", set()
        self.properties[PROGRESS] = "0"
        self.properties[STOP["compress"]] = "false"
        spaces, whole = parse(request)
        if not whole:
            self.log("E", function, "getDuplicateFilesRules analysis fail")
            return "0,0"
        self.switch_log()
        self.linked, self.groups, self.bytes = 0, 0, 0
        for sid in strings(spaces):
            space = self.directory(sid)
            if space is None or status(space) is None:
                self.log("D", function, "the space id DB path is not access")
                continue
            self.load(space, 1, 2)
            self.compress_loaded()
            if self.stops("compress"):
                self.log("D", function, "compress stop.")
                self.save(space, 1, 2)
                break
            self.save(space, 1, 2)
        result = f"{self.groups},{self.bytes}"
        self.log("D", function, f"compress result {result}.")
        return result

    def compress_loaded(self):
        for digest in self.sorted_names(1):
            group = self.images[1][digest]
            paths = member(group, "f_list", list)
            if digest == "" or paths is None or len(paths) < 2:
                continue
            paths = list(map(path_of, paths))
            there = [index for index, path in enumerate(paths) if status(path)]
            if not there or there[0] == len(paths) - 1:
                self.log("D", "compressFile", "the group is deleted")
                continue
            any_linked = False
            for path in paths[there[0] + 1:]:
                if status(path) is None:
                    self.log("D", "compressFile", f"file {path} is deleted")
                    continue
                linked = self.link(paths[there[0]], path)
                self.tool("createHardLink", path)
                if linked:
                    self.linked += 1
                    if self.linked % 100 == 0:
                        self.properties[PROGRESS] = str(self.linked)
                    self.bytes = added(self.bytes, max(0, number(group, "f_size")))
                    any_linked = True
                else:
                    self.log("E", "compressFile", "createHardLink fail, error code N")
                if self.stops("compress"):
                    if self.groups == 0:
                        self.log("D", "compressFile", "the compressedGroupCount is 0, selfadd.")
                        self.groups = 1
                    self.log("D", "compressFile", "compress stop.")
                    return
            self.object(2)[digest] = self.images[1].pop(digest)
            self.groups += any_linked

    def file_at(self, path):
        """The name that a path stands for, and the one that it is linked to since this call began."""
        return self.links.get(name_of(path), name_of(path))

    def link(self, kept, path):
        before, after = status(kept), status(path, follow=False)
        if not stat.S_ISREG(after.st_mode) or not stat.S_ISREG(before.st_mode):
            return False
        kept, name = self.file_at(os.path.realpath(kept)), name_of(path)
        before, now = status(kept), status(self.file_at(path))
        if (before.st_dev, before.st_ino) == (now.st_dev, now.st_ino):
            return True
        if self.busy in (before.st_ino, now.st_ino):
            return False
        same = (before.st_dev, before.st_mode, *owners_of(kept)) == \
            (now.st_dev, now.st_mode, *owners_of(self.file_at(path)))
        with open(kept, "rb") as first, open(self.file_at(path), "rb") as second:
            same = same and first.read() == second.read()
        if same:
            self.links[name] = kept
        return same

    # Restore

    def restore(self, request):
        function, self.made = "Rux_restoreDuplicateFilesImp", set()
        rules, whole = parse(request)
        if not whole:
            self.log("E", function, "getDuplicateFilesRules analysis fail")
            return 0
        self.switch_log()
        restored = 0
        for rule, space in self.spaces_of(rules, function, "comDupFileRules Incorrect format"):
            self.load(space, 2, 3)
            patterns = self.compile(strings(member(rule, "regs", list)))
            dirs = rule.get("dirs")
            if dirs in (None, [], {}):
                fragments = [""]
            else:
                fragments = strings(dirs)
                if not fragments:
                    self.log("E", function, "the dirs of the rule hold no text, no group is selected")
            for fragment in fragments:
                restored = self.restore_loaded(fragment, patterns, restored)
            self.save(space, 2, 3)
        return restored

    def restore_loaded(self, fragment, patterns, restored):
        for digest in self.sorted_names(2):
            if digest == "":
                self.log("D", "restoreFile", "md5 is empty")
                continue
            paths = member(self.images[2][digest], "f_list", list)
            paths = list(map(path_of, paths or []))
            if not any(self.matches(patterns, path) for path in paths) or not any(fragment in path for path in paths):
                continue
            restored = added(restored, max(0, number(self.images[2][digest], "f_size")) * (len(paths) - 1))
            self.log("D", "restoreFile", f"restore file md5 group {digest}")
            for path in paths:
                self.log("D", "restoreFile", f"restoreLinkFile path: {path}.")
                st = status(path, follow=False)
                self.tool("restoreLinkFile", path)
                is_busy = st and st.st_ino == self.busy and st.st_nlink > 1
                if st and stat.S_ISREG(st.st_mode) and not is_busy:
                    self.restored.append(name_of(path))
                    self.log("D", "restoreFile", "restoreLinkFile success")
                else:
                    self.log("E", "restoreFile", "restoreLinkFile fail, error code N")
                is_modified(self.object(3), path, 1)
            del self.images[2][digest]
        return restored


def is_behind_link(path):
    return any(os.path.islink(path[:found.start()]) for found in re.finditer("(?!^)(?=/)|$", path))


def name_of(path):
    """A path with the links in its directories resolved, but not its last name."""
    directory, name = os.path.split(path)
    return os.path.join(os.path.realpath(directory), name)
