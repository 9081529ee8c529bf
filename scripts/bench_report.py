#!/usr/bin/env python3
"""Turns Google Benchmark JSON into the figures and ratios of PERFORMANCE.md."""
import json
import platform
import subprocess
import sys

# Each kystore benchmark and the plain-file benchmark it is compared with.
TWINS = {
    "BM_WriteStream": "BM_WritePlainFile",
    "BM_ReadStream": "BM_ReadPlainFile",
    "BM_ReadStreamInMemory": "BM_ReadPlainFile",
}


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


def main(src, dst):
    data = json.load(open(src))
    rows = {b["name"]: b for b in data["benchmarks"] if b.get("run_type", "iteration") == "iteration"}
    lines = []
    for name, b in rows.items():
        figure = "%.1f ms" % b["real_time"] if b.get("time_unit") == "ms" else "%g %s" % (b["real_time"], b["time_unit"])
        rate = ""
        if "bytes_per_second" in b:
            rate = "%.0f MiB/s" % (b["bytes_per_second"] / 1048576)
        elif "items_per_second" in b:
            rate = "%.0f streams/s" % b["items_per_second"]
        ratio = ""
        twin = TWINS.get(name)
        if twin in rows and "bytes_per_second" in rows[twin]:
            ratio = "%.2f" % (b["bytes_per_second"] / rows[twin]["bytes_per_second"])
        lines.append((name, figure, rate, ratio))
        print("%-26s %12s %16s %s" % (name, figure, rate, ("ratio to plain file " + ratio) if ratio else ""))
    with open(dst, "w") as out:
        out.write("# Performance\n\n")
        out.write("Measured by `make bench` (Google Benchmark, Release build). Each stream\n")
        out.write("figure is compared with plain POSIX I/O of the same bytes in the same run:\n")
        out.write("64 MiB moved in 64 KiB calls, through the page cache. The aim for large\n")
        out.write("sequential transfers is 0.9 or more of the plain-file throughput.\n\n")
        out.write("Machine: %s.\n\n" % machine())
        out.write("| benchmark | time per run | rate | ratio to plain file |\n")
        out.write("|---|---|---|---|\n")
        for name, figure, rate, ratio in lines:
            out.write("| %s | %s | %s | %s |\n" % (name, figure, rate, ratio or "-"))
        out.write("\nThe stream benchmarks use a block size of 64 KiB; the stream that is\n")
        out.write("written alone grows in place as one contiguous run at the end of the file.\n")
        out.write("`BM_Create10000Streams` creates 10,000 root streams of 1 KiB each;\n")
        out.write("`BM_Open10000Streams` opens a storage holding them (walks the root\n")
        out.write("directory and maps every name).\n")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
