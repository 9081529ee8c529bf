import io
import json
import os
import shutil
import subprocess
import sys
import threading

import pytest

import kystore
from conftest import ROOT

PAYLOAD = bytes(range(256)) * 41  # spans several 4096-byte blocks


def test_files_pass_between_the_command_and_python(path, width, cli, tmp_path):
    src = tmp_path / "src.bin"
    src.write_bytes(PAYLOAD)
    cli("create", *(["--32"] if width == 32 else []), path)
    cli("put", path, "Docs/Big/data", str(src))
    cli("set", path, "Cfg/Width", "640", "--type", "int")
    with kystore.open(path, "r+") as s:
        assert s["Docs/Big/data"] == PAYLOAD
        assert s.get_entry("Cfg/Width", 0) == 640
        assert list(s.walk()) == [("", ["Docs", "Cfg"], []), ("Docs", ["Big"], []),
                                  ("Docs/Big", [], ["data"]), ("Cfg", [], ["Width"])]
        s["Docs/Big/data"] = b"from python"
        s.folder("Cfg").set_entry("Name", "caf\u00e9")
    assert cli("cat", path, "Docs/Big/data") == b"from python"
    assert cli("get", path, "Cfg/Name", "--type", "string").strip() == "caf\u00e9".encode()
    cli("put", path, "Docs/Big/data", "-", data=b"again")
    with kystore.open(path, in_memory=True) as s:
        assert s["Docs/Big/data"] == b"again"
        assert s.stat("Docs/Big/data") == (5, False, 0)


def test_tree_round_trip_across_reopen(path, width):
    with kystore.open(path, "x", width=width, block_size=64) as s:
        s["a/b/c"] = PAYLOAD
        s["a/empty"] = b""
        s.mkdir("m/n", parents=True)
        s["gone"] = b"x"
        del s["gone"]
    with kystore.open(path, "a") as s:
        assert s["a/b/c"] == PAYLOAD and s["a/empty"] == b""
        assert sorted(s) == ["a", "m"] and "m/n" in s and "a/x" not in s
        assert s.stat("m").folder and s.stat("a/b/c").length == len(PAYLOAD)
        s.remove("m", recursive=True)
        assert s.listdir() == ["a"]


def test_stream_is_a_file(path, tmp_path):
    with kystore.open(path, "w") as s:
        s.mkdir("f")
        with s.open_stream("f/doc", "wb") as out:
            shutil.copyfileobj(io.BytesIO(PAYLOAD), out, 1000)
        with s.open_stream("f/doc") as raw, open(tmp_path / "copy", "wb") as copy:
            shutil.copyfileobj(raw, copy)
        assert (tmp_path / "copy").read_bytes() == PAYLOAD
        with s.open_stream("f/json", "wb") as out:
            out.write(json.dumps({"lines": ["one", "two"]}).encode())
        assert json.load(s.open_stream("f/json")) == {"lines": ["one", "two"]}
        with io.BufferedReader(s.open_stream("f/json")) as buffered:
            assert buffered.read(10) == b'{"lines": '
        with s.open_stream("f/doc", "r+b") as f:
            assert f.seek(-6, io.SEEK_END) == len(PAYLOAD) - 6 and f.read() == PAYLOAD[-6:]
            assert f.truncate(10) == 10 and f.tell() == len(PAYLOAD)
            f.write(b"!")  # past the end: the gap reads as zeros
            f.seek(8)
            assert f.read() == PAYLOAD[8:10] + bytes(len(PAYLOAD) - 10) + b"!"
        with s.open_stream("f/doc", "ab") as f:
            f.seek(0)
            f.write(b"end")
            assert not f.readable() and f.writable()
        assert s["f/doc"].endswith(b"!end")
        kept = s.open_stream("f/doc")
    assert kept.closed  # closing the storage released it
    with pytest.raises(ValueError):
        kept.read()


ENTRIES = [  # value, the type it is set as, the type it is read as (None: the default's)
    (7, None, None), (-2**31, None, None), (2**40, None, "int64"), (2**64 - 1, None, "uint64"),
    (3_000_000_000, "uint32", "uint32"), (2.5, None, None), ("text \u00e9", None, None),
    (b"\x00raw\xff", None, None), (5, "int64", "int64"), (1, "double", "double"),
]


@pytest.mark.parametrize("value,set_type,get_type", ENTRIES)
def test_entries_keep_their_type(path, width, value, set_type, get_type):
    with kystore.open(path, "w", width=width) as s:
        s.set_entry("root", value, type=set_type)
        s.folder("Cfg", create=True).set_entry("key", value, type=set_type)
    default = type(value)()
    with kystore.open(path) as s:
        folder = s.folder("Cfg")
        assert s.get_entry("root", default, type=get_type) == value
        assert folder.get_entry("key", default, type=get_type) == value
        assert folder.get_entry("missing", default) is default
        assert s.get_entry("Cfg", "dflt") == "dflt"  # a folder is no entry


def test_entry_bytes_match_the_library_forms(path):
    with kystore.open(path, "w") as s:
        s.set_entry("i", 640)
        s.set_entry("s", "abc")
        s.set_entry("b", b"xy")
        assert (s["i"], s["s"], s["b"]) == (b"\x80\x02\x00\x00", b"\x03\x00abc", b"\x02\x00\x00\x00xy")
        s.set_entry("i", 2**40)
        assert s.get_entry("i", 0, type="int64") == 2**40 and s.get_entry("s", 0) == 0x62610003


def test_recording_replays_into_another_storage(path, tmp_path):
    with kystore.open(path, "w") as s:
        with s.recording() as rec:
            s["Docs/a"] = b"data"
            s.set_entry("Cfg/Width", 640)
            s.set_entry("Name", "x")
            del s["Docs/a"]
            s["Docs/b"] = b"kept"
    with kystore.open(str(tmp_path / "copy.kys"), "w") as c:
        assert c.replay(rec.data) > 0
        assert c["Docs/b"] == b"kept" and "Docs/a" not in c
        assert c.get_entry("Cfg/Width", 0) == 640 and c.get_entry("Name", "") == "x"


def test_compact_drops_removed_streams(path):
    with kystore.open(path, "w") as s:
        s["big"] = PAYLOAD * 4
        s["small"] = b"s"
        del s["big"]
        with pytest.raises(PermissionError):
            kystore.compact(path)  # open here: it would go on with the old file
    before = open(path, "rb").read()
    kystore.compact(path)
    assert len(open(path, "rb").read()) < len(before)
    with kystore.open(path) as s:
        assert s.listdir() == ["small"] and s["small"] == b"s"


def test_threads_share_a_storage(path):
    with kystore.open(path, "w") as s:
        for i in range(8):
            s["t/%d" % i] = PAYLOAD
        results = []
        workers = [threading.Thread(target=lambda i=i: results.append(s["t/%d" % i] == PAYLOAD))
                   for i in range(8)]
        for w in workers:
            w.start()
        for w in workers:
            w.join()
        assert results == [True] * 8


def test_failures_raise_and_change_nothing(path, tmp_path):
    with kystore.open(path, "w", width=32) as s:
        s["d/data"] = b"1"
    notstorage = tmp_path / "plain"
    notstorage.write_bytes(b"not a storage" * 10)
    damaged = tmp_path / "damaged"
    damaged.write_bytes(open(path, "rb").read()[:40])
    image = open(path, "rb").read()
    with kystore.open(path, "r+") as s:
        held = s.open_stream("d/data")
        cases = [
            (KeyError, lambda: s["nope"]), (KeyError, lambda: s["d/data/x"]),
            (KeyError, lambda: s.open_stream("no/such", "wb")), (KeyError, lambda: s.mkdir("x/y")),
            (ValueError, lambda: s["x" * 61]), (ValueError, lambda: s.__setitem__("", b"")),
            (ValueError, lambda: s.open_stream("d/data", "rt")), (ValueError, lambda: s.set_entry("k", b"")),
            (ValueError, lambda: s.set_entry("k", 5, type="int8")), (ValueError, lambda: s.set_entry("k", 2**40, type="int32")),
            (ValueError, lambda: s.set_entry("k", "a\0b")), (TypeError, lambda: s.set_entry("k", None)),
            (IsADirectoryError, lambda: s["d"]), (IsADirectoryError, lambda: s.__delitem__("d")),
            (IsADirectoryError, lambda: s.set_entry("d", 1)), (NotADirectoryError, lambda: s.__setitem__("d/data/x", b"")),
            (FileExistsError, lambda: s.mkdir("d")), (OSError, lambda: s.remove("d")),
            (PermissionError, lambda: s.remove("d", recursive=True)),
            (FileExistsError, lambda: kystore.open(path, "x")),
            (FileNotFoundError, lambda: kystore.open(str(tmp_path / "none"))),
            (IsADirectoryError, lambda: kystore.open(str(tmp_path))),
            (kystore.StorageError, lambda: kystore.open(str(notstorage))),
            (kystore.StorageError, lambda: kystore.open(str(damaged))),
            (kystore.StorageError, lambda: kystore.open(str(notstorage), "a")),
            (ValueError, lambda: kystore.open(path, "r+", in_memory=True)),
            (ValueError, lambda: kystore.open(path, width=16)),
        ]
        for error, call in cases:
            with pytest.raises(error):
                call()
        held.close()
    with kystore.open(path, in_memory=True) as s:
        for call in (lambda: s.__setitem__("d/data", b"2"), lambda: s.mkdir("n"),
                     lambda: s.set_entry("k", 1), lambda: s.open_stream("d/data", "r+b"),
                     lambda: s.replay(b"\x03")):
            with pytest.raises(PermissionError):
                call()
    assert open(path, "rb").read() == image
    assert open(notstorage, "rb").read() == b"not a storage" * 10


def test_inventory_example_exports_a_folder(path, tmp_path):
    with kystore.open(path, "w") as s:
        s["Docs/a"] = b"A"
        s["Docs/sub/b"] = PAYLOAD
        s["Docs/.."] = b"would escape"
        s["Other"] = b"x"
    example = os.path.join(ROOT, "examples", "python", "inventory.py")
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(kystore.__file__)))
    done = subprocess.run([sys.executable, example, path, "Docs", str(tmp_path / "out")],
                          capture_output=True, text=True, check=True, env=env)
    assert "Docs/sub/b" in done.stdout and "4 streams" in done.stdout
    assert (tmp_path / "out" / "a").read_bytes() == b"A"
    assert (tmp_path / "out" / "sub" / "b").read_bytes() == PAYLOAD
    assert sorted(os.listdir(tmp_path / "out")) == ["a", "sub"]


def test_damaged_stream_raises_storage_error(path, width):
    with kystore.open(path, "w", width=width) as s:
        s["d"] = b"MARKER" * 10
    image = bytearray(open(path, "rb").read())
    block = image.index(b"MARKER") - (40 if width == 64 else 20)
    image[block:block + 4] = bytes(4)  # the data block's magic
    assert kystore.check(path) == []
    open(path, "wb").write(image)
    with kystore.open(path) as s:
        for call in (lambda: s["d"], lambda: s.open_stream("d").read()):
            with pytest.raises(kystore.StorageError):
                call()
    assert [offset for offset, _ in kystore.check(path)] == [block]
    open(path, "wb").write(b"not a storage")
    with pytest.raises(kystore.StorageError):
        kystore.check(path)
    with pytest.raises(FileNotFoundError):
        kystore.check(path + "-missing")


def test_interleaved_streams_keep_their_positions(path, width):
    with kystore.open(path, "w", width=width, block_size=64) as s:
        s["a"], s["b"] = PAYLOAD, PAYLOAD[::-1]
        a, b = s.open_stream("a"), s.open_stream("b")
        c, d = s.open_stream("c", "wb"), s.open_stream("d", "ab")
        while True:
            x = a.read(60)
            "b" in s  # other calls move the file position in between
            x += a.read(40)
            y = b.read(77)
            if not x and not y:
                break
            c.write(x[:50])
            "b" in s
            c.write(x[50:])
            d.write(y)
        assert (s["c"], s["d"]) == (PAYLOAD, PAYLOAD[::-1])
