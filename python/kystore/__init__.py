"""kystore: storages of named byte streams in one file.

A storage keeps a tree of folders and data streams inside one ordinary
file.  Open one with ``kystore.open(path, mode)``; read and write streams
by slash-separated paths (``storage["Cfg/Width"]``), open them as files
(``storage.open_stream``), walk them, keep typed entries, record changes
and replay them.  See docs/PYTHON.md.
"""

import collections
import io
import os

from ._kystore import StorageError, _Storage, _Stream, check, compact

__all__ = ["open", "compact", "check", "Storage", "StreamIO", "Folder", "Recording",
           "StatResult", "StorageError"]

StatResult = collections.namedtuple("StatResult", "length folder duration")
StatResult.__doc__ = """What stat() tells of a stream: its length in bytes, whether it is a
folder, and its duration in minutes as kept in its header."""


def open(path, mode="r", *, width=None, block_size=4096, in_memory=False):
    """Opens the storage file at `path`.

    mode: "r" read-only, "r+" read-write, "w" create (an existing file is
    emptied), "x" create (FileExistsError when the file exists), "a" open
    read-write or create.  width (32 or 64, default 64) and block_size
    apply to new files; in_memory (mode "r" only) reads the whole file into
    memory first.  The storage is a context manager; close() releases every
    stream it handed out.
    """
    return Storage(os.fspath(path), mode, width, block_size, in_memory)


def _entry_type(value):
    """The entry type a Python value is stored as."""
    if isinstance(value, int):
        if -2**31 <= value < 2**31:
            return "int32"
        return "int64" if -2**63 <= value < 2**63 else "uint64"
    if isinstance(value, float):
        return "double"
    if isinstance(value, str):
        return "str"
    if isinstance(value, (bytes, bytearray, memoryview)):
        return "bytes"
    raise TypeError("no entry type for %s; give type=" % type(value).__name__)


def _text(name):
    return os.fsdecode(name) if isinstance(name, bytes) else name


def _join(folder, name):
    return folder + "/" + name if folder else name


class Storage(_Storage):
    """One open storage file.  Make it with kystore.open()."""

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __iter__(self):
        return iter(self.listdir())

    def __repr__(self):
        state = "closed" if self.closed else ("r+" if self.writable else "r")
        return "<kystore.Storage %r %s>" % (self.path, state)

    def open_stream(self, path, mode="rb"):
        """The data stream at `path` as a raw binary file.

        "rb" reads, "r+b" reads and writes, "wb" creates or empties, "ab"
        creates or appends; "wb" and "ab" need the folders above to exist.
        """
        return StreamIO(self._open_stream(path, mode), _text(path), mode)

    def stat(self, path):
        return StatResult(*self._stat(path))

    def walk(self, path=""):
        """Yields (folder, folders, streams) for `path` and every folder
        below it, top-down, like os.walk; prune by editing `folders`."""
        pending = [_text(path).strip("/")]
        while pending:
            top = pending.pop()
            folders, streams = [], []
            for name, is_folder in self._scandir(top):
                (folders if is_folder else streams).append(name)
            yield top, folders, streams
            pending.extend(_join(top, name) for name in reversed(folders))

    def folder(self, path, create=False):
        """A view of the folder at `path` for its entries; with create, the
        folder and those above it are made when missing."""
        path = _text(path).strip("/")
        if create:
            self.mkdir(path, parents=True, exist_ok=True)
        if not self.stat(path).folder:
            raise NotADirectoryError(path + ": not a folder")
        return Folder(self, path)

    def get_entry(self, key, default=None, *, type=None):
        """The entry at `key` ("Width" at the root, "Cfg/Width" in a folder),
        read as `type` or as the type of `default`; `default` when it is
        missing, a folder, or too short for the type."""
        kind = type if type is not None else _entry_type(default)
        return self._get_entry(key, kind, default)

    def set_entry(self, key, value, *, type=None):
        """Stores `value` at `key` as `type` or as the value's own type,
        making missing folders."""
        self._set_entry(key, type if type is not None else _entry_type(value), value)

    def recording(self):
        """A context manager that records the changes made in it; its
        `data` holds the recording afterwards, for replay()."""
        return Recording(self)


class Folder:
    """The entries of one folder of a storage (Storage.folder())."""

    def __init__(self, storage, path):
        self.storage = storage
        self.path = path

    def _key(self, key):
        key = _text(key)
        if "/" in key:
            raise ValueError("an entry key is one name, without '/'")
        return _join(self.path, key)

    def get_entry(self, key, default=None, *, type=None):
        return self.storage.get_entry(self._key(key), default, type=type)

    def set_entry(self, key, value, *, type=None):
        self.storage.set_entry(self._key(key), value, type=type)

    def listdir(self):
        return self.storage.listdir(self.path)

    def __repr__(self):
        return "<kystore.Folder %r>" % self.path


class Recording:
    """Records the changes made while it is entered (Storage.recording())."""

    def __init__(self, storage):
        self._storage = storage
        self.data = None

    def __enter__(self):
        self._storage._start_recording()
        return self

    def __exit__(self, *exc):
        self.data = self._storage._stop_recording()
        return False


class StreamIO(io.RawIOBase):
    """A stream of a storage as a raw binary file (Storage.open_stream())."""

    def __init__(self, handle, name, mode):
        super().__init__()
        self._handle = handle
        self.name = name
        self.mode = mode

    @property
    def closed(self):
        return self._handle.closed

    def close(self):
        if not self._handle.closed:
            self._handle.close()
        super().close()

    def readable(self):
        self._check_open()
        return self._handle.readable

    def writable(self):
        self._check_open()
        return self._handle.writable

    def seekable(self):
        self._check_open()
        return True

    def readinto(self, buffer):
        if not self.readable():
            raise io.UnsupportedOperation("not readable")
        return self._handle.readinto(buffer)

    def write(self, data):
        if not self.writable():
            raise io.UnsupportedOperation("not writable")
        return self._handle.write(data)

    def seek(self, offset, whence=io.SEEK_SET):
        self._check_open()
        if whence == io.SEEK_SET:
            position = offset
        elif whence == io.SEEK_CUR:
            position = self._handle.position + offset
        elif whence == io.SEEK_END:
            position = self._handle.length() + offset
        else:
            raise ValueError("invalid whence (%r)" % whence)
        if position < 0:
            raise ValueError("negative seek position %d" % position)
        self._handle.position = position
        return position

    def tell(self):
        self._check_open()
        return self._handle.position

    def truncate(self, size=None):
        if not self.writable():
            raise io.UnsupportedOperation("not writable")
        return self._handle.truncate(self._handle.position if size is None else size)

    def _check_open(self):
        if self.closed:
            raise ValueError("I/O operation on closed stream")
