#!/usr/bin/env python3
"""Who may include what.

The service knows the platform by its public headers alone, operations know nothing of each other, the client knows
of the service how patterns match and how its database files lie on disk, and of the platform what linking asks
beforehand and where its sockets are, and the platform knows nothing of it but where.

usage: layering_test.py SOURCE_DIR
"""

import re
import sys
from pathlib import Path

EXTENSIONS = "platform/include/tavo_f2fs_io_extensions.h"  # by its path, as a device's own headers have none
SHARED = ("request/", "db/", "control/", EXTENSIONS)
PLATFORM = ("binder/", "f2fs_io/", "log/", "properties/", "root/", "utils/")
MAY_INCLUDE = {  # what the quoted includes of a folder's sources start with, beside the folder itself
    "control": (EXTENSIONS,), "db": ("control/", EXTENSIONS), "request": ("db/", "control/"),
    "scan": SHARED, "dup": SHARED, "compress": SHARED,
    "service": ("scan/", "dup/", "compress/", *SHARED), "platform": PLATFORM,
    "ruxctl": ("request/patterns.h", "db/database_root.h", "db/files.h", "db/journal.h", "f2fs_io/hard_link.h", "root/run_dir.h")}


def main():
    source, checked, faults = Path(sys.argv[1]), 0, []
    public = {str(path.relative_to(source / "platform/include")) for path in (source / "platform/include").rglob("*.h")}
    for folder, prefixes in MAY_INCLUDE.items():
        for path in (source / folder).rglob("*.*"):
            if path.suffix not in (".h", ".cpp") or path.name.endswith("_test.cpp"):
                continue
            text = path.read_text()
            for quote, include in re.findall(r'^ *# *include *(["<])([^">]*)', text, re.M):
                checked += 1
                if quote == "<":  # for the system and for libraries
                    is_allowed = not any((source / place / include).exists() for place in ("", "platform", "platform/include"))
                else:
                    is_allowed = include in public or include.startswith((folder + "/", *prefixes))
                if not is_allowed:
                    faults.append(f"{path}: {quote}{include}")
            if folder not in ("platform", "ruxctl") and re.search("__ANDROID__|__linux__|RUX_HOST", text):
                faults.append(f"{path}: the service's sources must be the same for a host and a device")
    assert checked > 100 and not faults, faults


if __name__ == "__main__":
    main()
