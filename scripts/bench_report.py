#!/usr/bin/env python3
"""Turns Google Benchmark JSON into the figures and ratios of PERFORMANCE.md.

Two kinds of benchmark names come in:
  BM_<Workload>/<engine>/<N>/...   many small streams, engine kystore or sqlite
  BM_<Transfer>/<MiB>/...          one large stream or plain file
"""
import json
import platform
import subprocess
import sys

# Each kystore transfer and the plain-file transfer it is compared with.
TWINS = {
    "BM_WriteStream": "BM_WritePlainFile",
    "BM_ReadStream": "BM_ReadPlainFile",
    "BM_ReadStreamInMemory": "BM_ReadPlainFile",
}

# The many-stream workloads: benchmark, what it does, how its time is
# shown (per run or per lookup), the most kystore may take as a multiple of
# SQLite, and the most its time may grow when N grows tenfold.
WORKLOADS = [
    ("BM_CreateRoot", "create N root streams", "run", 3.0, 12.0),
    ("BM_CreateChildren", "create N children of one folder", "run", 5.0, 12.0),
    ("BM_CreateRootGathered", "create N root streams, writes gathered", "run", 3.0, 12.0),
    ("BM_CreateChildrenGathered", "create N children, writes gathered", "run", 5.0, 12.0),
    ("BM_OpenReadOne", "open a storage of N root streams, read one", "run", 3.0, None),
    ("BM_LookupRoot", "random lookup + read among N root streams", "item", 1.5, None),
    ("BM_LookupChild", "random lookup + read among N children, no preload", "item", 1.5, None),
    ("BM_DeleteHalf", "delete every second of N root streams", "run", 3.0, None),
]
MIN_THROUGHPUT = 0.9  # of the plain file's
MAX_INDEX_BYTES = 200  # per stream, beyond its name


# What the figures owe to the indexes and where kystore still falls short;
# kept with the report so that a new run does not lose it.
WHERE_THE_TIME_GOES = """Every workload of many small streams now grows linearly with N: the
name maps find a name through a growing hash index beside their 17
buckets, root creation starts its search at the first directory block
that may hold a free slot, and a folder knows each child's slot, its free
slots and where its slots end (see "Indexes in memory" in docs/API.md).
Before them, creating 100,000 root streams took 293 s and 3,000 checked
children 42 s.

Where kystore still falls short of SQLite:

- Creation writes through: a root stream with 100 bytes costs ten system
  calls (the directory block read again, the slot, the file's end, the
  block header and its reserved area, the link, a re-read of the block
  header, the data, the used end, the length), each at once, so that the
  file is whole after every call. SQLite writes pages at commit. The
  "writes gathered" rows run the same calls between BeginWriteBatch and
  EndWriteBatch, which keeps the writes in memory and puts the same bytes
  into the file in large writes: root creation then meets its target. A
  folder's slots still cost a read each once gathered bytes have reached
  the file (its slots lie one per block, between its children's blocks).
- Opening reads the whole root directory and maps every name, as the
  format's readers expect (a damaged chain must fail the open); SQLite
  reads the pages of one lookup. The time per stream of that map grows
  from 10,000 to 100,000 streams once the map no longer fits the caches.
- Every 100-byte stream takes a data block of its own (4 KiB here), so the
  file is about 30 times larger than SQLite's.

"""


def machine():
    cpu = "unknown CPU"
    try:
        for line in open("/proc/cpuinfo"):
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    except OSError:
        pass
    mem = ""
    try:
        for line in open("/proc/meminfo"):
            if line.startswith("MemTotal"):
                mem = "%.0f GiB" % (int(line.split()[1]) / 1048576)
    except OSError:
        pass
    cxx = subprocess.run(["c++", "--version"], capture_output=True, text=True).stdout.split("\n")[0]
    cores = subprocess.run(["nproc"], capture_output=True, text=True).stdout.strip()
    return "%s, %s cores, %s memory, Linux %s, %s" % (cpu, cores, mem, platform.release(), cxx)


def split_runs(data):
    """Many-stream runs keyed (workload, engine, N); transfers keyed (name, MiB)."""
    scale, transfers = {}, {}
    for b in data["benchmarks"]:
        if b.get("run_type", "iteration") != "iteration":
            continue
        parts = b["name"].split("/")
        if len(parts) > 2 and parts[1] in ("kystore", "sqlite") and parts[2].isdigit():
            scale[(parts[0], parts[1], int(parts[2]))] = b
        elif len(parts) > 1 and parts[1].isdigit():
            transfers[(parts[0], int(parts[1]))] = b
    return scale, transfers


def seconds(b, per):
    """Wall time of one run, or of one item (lookup) when per == "item"."""
    unit = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b.get("time_unit", "ns")]
    if per == "item":
        return 1.0 / b["items_per_second"]
    return b["real_time"] * unit


def show(t):
    if t >= 1.0:
        return "%.2f s" % t
    if t >= 1e-3:
        return "%.1f ms" % (t * 1e3)
    return "%.2f µs" % (t * 1e6)


def verdict(ok):
    """yes, no (bold), or - when there was nothing to compare."""
    if ok is None:
        return "-"
    return "yes" if ok else "**no**"


def workload_rows(scale):
    """Table rows and growth sentences of the many-stream workloads."""
    rows, growth_notes = [], []
    for bm, label, per, max_ratio, max_growth in WORKLOADS:
        sizes = sorted({n for (w, e, n) in scale if w == bm and e == "kystore"})
        ratios = []
        for i, n in enumerate(sizes):
            ky = scale[(bm, "kystore", n)]
            sq = scale.get((bm, "sqlite", n))
            t_ky = seconds(ky, per)
            t_sq = seconds(sq, per) if sq else None
            ratio = t_ky / t_sq if t_sq else None
            growth = None
            if i > 0 and sizes[i - 1] * 10 == n:
                growth = t_ky / seconds(scale[(bm, "kystore", sizes[i - 1])], per)
            target = "≤%gx" % max_ratio + (", growth ≤%gx" % max_growth if max_growth else "")
            ok = None
            if ratio is not None:
                ok = ratio <= max_ratio and (max_growth is None or growth is None or
                                             growth <= max_growth)
            rows.append((label + (" (per lookup)" if per == "item" else ""), "{:,}".format(n),
                         show(t_ky), show(t_sq) if t_sq else "-",
                         "%.2f" % ratio if ratio else "-",
                         "%.1fx" % growth if growth else "-", target, verdict(ok)))
            ratios.append((n, ratio, t_ky, t_sq))
        if len(ratios) == 2 and all(r[1] for r in ratios):
            (n1, r1, k1, s1), (n2, r2, k2, s2) = ratios
            growth_notes.append(
                "- %s: %.2f at N = {:,}, %.2f at N = {:,}; kystore's time grew %.1fx, "
                "SQLite's %.1fx.".format(n1, n2) % (label, r1, r2, k2 / k1, s2 / s1))
    return rows, growth_notes


def stream_rows(transfers):
    """The largest stream written and read (256 MiB in a full run)."""
    rows = []
    sizes = [mib for (name, mib) in transfers if name == "BM_WriteStream"]
    mib = max(sizes) if sizes else 0
    for kind, twin in (("BM_WriteStream", "BM_WritePlainFile"), ("BM_ReadStream", "BM_ReadPlainFile")):
        ky, plain = transfers.get((kind, mib)), transfers.get((twin, mib))
        if not ky or not plain:
            continue
        t_ky, t_plain = seconds(ky, "run"), seconds(plain, "run")
        throughput = t_plain / t_ky
        verb = "write" if kind == "BM_WriteStream" else "read"
        rows.append(("%s one %d MiB stream (plain file)" % (verb, mib), "1", show(t_ky),
                     show(t_plain), "%.2f" % (t_ky / t_plain), "-",
                     "≤%.2fx (throughput ≥%gx)" % (1 / MIN_THROUGHPUT, MIN_THROUGHPUT),
                     verdict(throughput >= MIN_THROUGHPUT)))
    return rows


def memory_rows(scale):
    rows = []
    for bm, label in (("BM_OpenReadOne", "memory per root stream after the open, beyond its name"),
                      ("BM_LookupChild", "memory per child held by the folder, beyond its name")):
        for (w, e, n), b in sorted(scale.items()):
            if w != bm or e != "kystore" or "heap_per_stream_beyond_names" not in b:
                continue
            beyond = b["heap_per_stream_beyond_names"]
            sq = scale.get((bm, "sqlite", n), {})
            other = "%.0f KiB in all" % (sq["heap_bytes"] / 1024) if "heap_bytes" in sq else "-"
            rows.append((label, "{:,}".format(n), "%.0f B (%.0f B with the name)" %
                         (beyond, b["heap_per_stream"]), other, "-", "-",
                         "≤%d B" % MAX_INDEX_BYTES, verdict(beyond <= MAX_INDEX_BYTES)))
    return rows


def file_sizes(scale):
    """The size of each file made at the largest N, as a phrase."""
    parts = []
    for bm, label in (("BM_CreateRoot", "root streams"), ("BM_CreateChildren", "children")):
        made = {(e, n): b["file_bytes"] for (w, e, n), b in scale.items()
                if w == bm and "file_bytes" in b}
        if not made:
            continue
        n = max(n for (e, n) in made)
        sizes = ["%s %.1f MB" % (e, made[(e, n)] / 1e6) for e in ("kystore", "sqlite") if (e, n) in made]
        parts.append("{:,} {} ({})".format(n, label, ", ".join(sizes)))
    return "; ".join(parts)


def transfer_lines(transfers):
    lines = []
    for (name, mib), b in transfers.items():
        figure = "%.1f ms" % b["real_time"] if b.get("time_unit") == "ms" else "%g %s" % (b["real_time"], b["time_unit"])
        rate = "%.0f MiB/s" % (b["bytes_per_second"] / 1048576) if "bytes_per_second" in b else ""
        ratio = ""
        twin = transfers.get((TWINS.get(name), mib))
        if twin and "bytes_per_second" in twin:
            ratio = "%.2f" % (b["bytes_per_second"] / twin["bytes_per_second"])
        lines.append(("%s/%d" % (name, mib), figure, rate, ratio))
    return lines


def main(src, dst, where):
    data = json.load(open(src))
    context = data.get("context", {})
    divisor = int(context.get("scale_divisor", "1"))
    scale, transfers = split_runs(data)
    rows, growth_notes = workload_rows(scale)
    table = rows + stream_rows(transfers) + memory_rows(scale)
    lines = transfer_lines(transfers)
    for row in table:
        print("%-62s %8s %10s %10s %6s %6s %s" % (row[0], row[1], row[2], row[3], row[4], row[5], row[7]))
    for name, figure, rate, ratio in lines:
        print("%-62s %12s %12s %s" % (name, figure, rate, ("ratio to plain file " + ratio) if ratio else ""))

    with open(dst, "w") as out:
        w = out.write
        w("# Performance\n\n")
        w("Measured by `make bench` (Google Benchmark, Release build). Every kystore\n")
        w("figure has a twin measured in the same run on the same machine: SQLite\n")
        w("for the workloads of many small streams, plain POSIX I/O for the large\n")
        w("transfers. `KYSTORE_BENCH_SCALE=small make bench` divides every size by\n")
        w("10 for a quick look; `make bench BENCH_ARGS=--benchmark_filter=BM_Lookup`\n")
        w("runs some of the benchmarks only.\n\n")
        if divisor != 1:
            w("**These figures come from a quick run with every size divided by %d\n" % divisor)
            w("(KYSTORE_BENCH_SCALE=small): N and the transfer sizes below are the\n")
            w("reduced ones, and the targets are meant for the full sizes.**\n\n")
        w("Files were kept in %s. By default `make bench` uses /dev/shm, so that\n" % where)
        w("the figures show the library's own cost rather than how fast the disk\n")
        w("writes back: on a disk the write figures of both sides are dominated by\n")
        w("writeback and vary by tens of percent from run to run. Set\n")
        w("KYSTORE_BENCH_DIR to measure on another file system.\n\n")
        w("Machine: %s.\n\n" % machine())
        w("SQLite %s (the system's library), one table\n" % context.get("sqlite_version", "?"))
        w("`streams(parent INTEGER, name TEXT, data BLOB, PRIMARY KEY(parent, name))`,\n")
        w("`journal_mode=WAL`, `synchronous=NORMAL`, each workload's changes in one\n")
        w("transaction, statements prepared once per connection. A root stream is a\n")
        w("row with parent 0, a child has its folder's rowid.\n\n")

        w("## Many small streams\n\n")
        w("Streams of 100 bytes under 8-character names; the storage has data\n")
        w("blocks of 4096 bytes and 64-bit offsets. The ratio is kystore's time\n")
        w("divided by SQLite's (lower is better); growth is kystore's time at N\n")
        w("divided by its time at N/10 (10 is linear).\n\n")
        w("| workload | N | kystore | SQLite (or plain file) | ratio | growth per 10x N | target | met |\n")
        w("|---|---|---|---|---|---|---|---|\n")
        for row in table:
            w("| %s |\n" % " | ".join(row))
        w("\nWhat each workload times:\n\n")
        w("- create: `kyStorage::Create`, then per name `CreateStream`, `Write` of\n")
        w("  100 bytes and `Release`, then the storage's `Release`; SQLite: open,\n")
        w("  `BEGIN`, one `INSERT` per name, `COMMIT`, close. Children are made\n")
        w("  through the folder's `CreateStream` with the name check on, and\n")
        w("  without `PreloadChildren`.\n")
        w("- open and read one: `Open` (read-only, not loaded into memory),\n")
        w("  `OpenStream` of the last name created, a seek and a read of 100 bytes,\n")
        w("  everything released; SQLite: open, one `SELECT`, close.\n")
        w("- lookup: the storage (and the folder) already open; per lookup\n")
        w("  `OpenStream` of a name drawn at random (the same names in the same\n")
        w("  order for both engines), a seek, a read of 100 bytes, `Release`;\n")
        w("  SQLite: one `SELECT` by `(parent, name)`. Shown per lookup.\n")
        w("- delete: on a fresh copy of the file, already open (neither timed),\n")
        w("  `OpenStream` and `Remove` of every second name, then the storage's\n")
        w("  `Release`; SQLite: `BEGIN`, one `DELETE` per name, `COMMIT`, close.\n")
        w("  (`kyStorage::RemoveStream` alone only forgets the name in memory and\n")
        w("  leaves the file as it was, so it is not what a user deletes with.)\n")
        w("- memory: the bytes the allocator hands out and has not taken back\n")
        w("  (glibc `mallinfo2`: in-use arena bytes plus mapped chunks), read just\n")
        w("  before the storage is opened and again while it is open, after one\n")
        w("  lookup and read (so that anything built on demand is counted). The\n")
        w("  difference, divided by N, less 9 bytes per stream (its name and\n")
        w("  terminator), is the cost of the in-memory maps and indexes. For\n")
        w("  children the baseline is taken with the storage open, before the\n")
        w("  folder is opened, and the second reading after the lookups. The\n")
        w("  benchmark also records the peak resident size (VmHWM, reset just\n")
        w("  before the open where the system allows) and its growth over the\n")
        w("  resident size before the open; that growth understates the cost\n")
        w("  whenever the heap reuses memory freed by earlier benchmarks, which\n")
        w("  is why the table uses the allocator's count. SQLite's column gives\n")
        w("  what its connection holds in all (its page cache), whatever N.\n\n")
        sizes = file_sizes(scale)
        if sizes:
            w("Files the create workloads made, at the largest N: %s.\n\n" % sizes)
        if growth_notes:
            w("How each ratio (kystore ÷ SQLite) moves when N grows tenfold:\n\n")
            for note in growth_notes:
                w(note + "\n")
            w("\n")
        w(WHERE_THE_TIME_GOES)

        w("## Large transfers\n\n")
        w("Each stream figure is compared with plain POSIX I/O of the same bytes\n")
        w("in the same run: the size in MiB after the name, moved in 64 KiB calls,\n")
        w("through the page cache. The aim for large sequential transfers is 0.9\n")
        w("or more of the plain-file throughput.\n\n")
        w("| benchmark | time per run | rate | ratio to plain file |\n")
        w("|---|---|---|---|\n")
        for name, figure, rate, ratio in lines:
            w("| %s | %s | %s | %s |\n" % (name, figure, rate, ratio or "-"))
        w("\nWhere the stream figures fall short of the plain file: a stream's data\n")
        w("never start on a page boundary (the file header, the directory block and\n")
        w("each block header come first), so every transfer touches one page more\n")
        w("and copies from an unaligned address; and every write that grows a\n")
        w("stream also rewrites its block header and its length in the stream\n")
        w("header (two small writes of 40 and 16 bytes), which keeps the file\n")
        w("consistent after every call. Reads cost one system call per call, writes\n")
        w("three; seeks cost none (the platform layer keeps the file position).\n")
        w("\nThe stream benchmarks use a block size of 64 KiB; the stream that is\n")
        w("written alone grows in place as one contiguous run at the end of the file.\n")
        w("`BM_OpenWithLoad` opens the storage with the in-memory load, which reads\n")
        w("the whole file.\n")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], sys.argv[3] if len(sys.argv) > 3 else "/tmp")
