#!/usr/bin/env python3
"""Lists the streams of a storage with their sizes, and exports a folder.

    inventory.py STORAGE                 a table of every data stream
    inventory.py STORAGE FOLDER DIR      the table, then FOLDER's streams
                                         copied into the directory DIR

Run it with the module on the path, e.g. PYTHONPATH=build.
"""
import os
import shutil
import sys

import kystore


def join(folder, name):
    return folder + "/" + name if folder else name


def print_table(storage):
    rows = [(join(folder, name), storage.stat(join(folder, name)).length)
            for folder, _, streams in storage.walk() for name in streams]
    width = max([len(path) for path, _ in rows] + [len("stream")])
    print(f"{'stream':<{width}}  {'bytes':>12}")
    for path, length in rows:
        print(f"{path:<{width}}  {length:>12}")
    print(f"{len(rows)} streams, {sum(length for _, length in rows)} bytes")


def export(storage, folder, target):
    """Copies every stream below `folder` into `target`, folders as
    directories.  Names that would leave `target` ("." and "..") are
    skipped: a stream name may be anything a file name may not."""
    folder = folder.strip("/")
    for top, folders, streams in storage.walk(folder):
        folders[:] = [name for name in folders if name not in (".", "..")]
        relative = top[len(folder):].strip("/")
        directory = os.path.join(target, *relative.split("/")) if relative else target
        os.makedirs(directory, exist_ok=True)
        for name in streams:
            if name in (".", ".."):
                print(f"skipped {join(top, name)!r}: not a file name", file=sys.stderr)
                continue
            with storage.open_stream(join(top, name)) as src, \
                    open(os.path.join(directory, name), "wb") as dst:
                shutil.copyfileobj(src, dst)


def main(argv):
    if len(argv) not in (2, 4):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    with kystore.open(argv[1]) as storage:
        print_table(storage)
        if len(argv) == 4:
            export(storage, argv[2], argv[3])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
