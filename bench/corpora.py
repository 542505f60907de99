"""The trees of files that the benchmarks run on: the same bytes under the same names every time."""

import os
import random
import shutil
from pathlib import Path

MIB = 1 << 20
EPOCH = 1_700_000_000  # modification time of the first file, in seconds


def fill(directory, count, per_directory, sizes, seed, prefix, copies=None):
    """Writes `count` files, of which the last are copies of the first: a quarter, or so many.

    With a quarter, half of the files are in pairs and half are alone. `sizes` draws a file's size in bytes."""
    def path_of(index):
        suffix = "jpg" if index % 3 else "mp4"
        return directory / f"{prefix}{index // per_directory:05d}" / f"{prefix}_{index:07d}.{suffix}"

    random_bytes = random.Random(seed)
    unique = count - (count // 4 if copies is None else copies)
    for index in range(count):
        file = path_of(index)
        file.parent.mkdir(exist_ok=True)
        if index < unique:
            file.write_bytes(random_bytes.randbytes(sizes(random_bytes)))
            os.utime(file, (EPOCH + index, EPOCH + index))
        else:  # with its times, as copies of photos have them: some programs look at nothing else
            shutil.copy2(path_of(index - unique), file)


def media(directory):
    """800 files of 1 to 4 MiB, 2.1 GB."""
    fill(directory, 800, 50, lambda r: r.randrange(MIB, 4 * MIB), 1, "album")


def photos(directory):
    """420 files of 1.5 to 6 MB, 1.5 GB, of which 20 are copies: few, as in most collections."""
    fill(directory, 420, 50, lambda r: r.randrange(1_500_000, 6_000_000), 3, "photo", copies=20)


def small(directory, count=100_000, sizes=lambda r: r.randrange(1_000, 9_000)):
    """100,000 files of 1 to 9 KB, 0.5 GB."""
    fill(directory, count, 200, sizes, 2, "notes")


def real(directory):
    """A copy of /usr/share: its regular files, sockets and the like left out, links as links."""
    shutil.copytree("/usr/share", directory, symlinks=True, dirs_exist_ok=True)


CORPORA = {"media": media, "photos": photos, "small": small, "real": real}


def make(name, parent):
    """The corpus `name` below `parent`, made when it is not there yet. Its path."""
    directory = Path(parent) / name
    if not directory.exists():
        partial = Path(parent) / f"{name}.partial"
        shutil.rmtree(partial, ignore_errors=True)
        partial.mkdir(parents=True)
        CORPORA[name](partial)
        os.rename(partial, directory)
    return directory
