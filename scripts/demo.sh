#!/usr/bin/env bash
# Shows the kystore command at work on a sample storage made under the
# build directory.  Called by `make demo` with the build directory as $1.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build}" && pwd)"
kystore="$build/tools/kystore"
if [ ! -x "$kystore" ]; then
  echo "demo: $kystore is missing; build it first (make demo does)" >&2
  exit 1
fi

work="$build/demo"
mkdir -p "$work"
sample="$work/sample.kys"
copy="$work/copy32.kys"
rm -f "$sample" "$copy" "$work"/record_*.kys "$work/settings.kys" "$work/quickstart.kys" "$work/road.kys" "$work/road.rec" "$work/replayed.kys"

# Echo each command before running it, as if typed at a prompt.
run() {
  echo
  echo "\$ kystore $*"
  "$kystore" "$@"
}

cd "$work"
sample=sample.kys
copy=copy32.kys

run create "$sample"
run create road.kys

# A few root streams: a text, a binary file, and two time-stamped records
# (names of 8 hexadecimal digits, seconds since 1970).
run put "$sample" Readme "$root/README.md"
head -c 100000 /dev/urandom >random.bin
run put "$sample" Random random.bin
echo "first sample" | run put "$sample" 65a0c000
echo "second sample" | run put "$sample" 65a0c258

# A small tree of nested folders; put makes the folders on the way.
echo 640 | run put "$sample" Settings/Display/Width
echo 480 | run put "$sample" Settings/Display/Height
echo "en" | run put "$sample" Settings/Language
run mkdir -p "$sample" Projects/2024/Drafts
echo "a draft" | run put "$sample" Projects/2024/Drafts/one.txt

run info "$sample"
run ls -l "$sample"
run ls --sort "$sample"
run ls --durations "$sample"
run tree "$sample"
run cat "$sample" Settings/Display/Width
run cat "$sample" Settings/Language

# Rename, copy into a storage with 32-bit offsets, remove.
run mv "$sample" Projects/2024/Drafts/one.txt Projects/2024/Drafts/first.txt
run mv "$sample" Projects/2024/Drafts/first.txt Projects
run ls -l "$sample" Projects
run stat "$sample" Settings/Display/Width
run du "$sample"
run ls --json "$sample" Settings
run create --32 "$copy"
run cp "$sample" Settings "$copy" Settings
run tree "$copy"
run rm -r "$sample" Projects
run tree "$sample"

# Entries, recorded: set stores typed values, get reads them back, and the
# recording replays the same change into another storage.
run --record road.rec set road.kys Cfg/Width 640 --type int
run get road.kys Cfg/Width
run entries road.kys Cfg
run recording road.rec
run create replayed.kys
run replay replayed.kys road.rec
run get replayed.kys Cfg/Width --type int
run compact "$sample"
run generic "$sample"

# The road of one request through the library: Cfg/Width 640 stored, the
# storage closed, opened again loaded into memory, the value read back.
rm -f road.kys
echo
echo "\$ example_road road.kys"
"$build/examples/example_road" road.kys

# The README's API example, built as examples/quickstart.cpp.
if [ -x "$build/examples/example_quickstart" ]; then
  echo
  echo "\$ example_quickstart quickstart.kys"
  "$build/examples/example_quickstart" quickstart.kys
  run tree quickstart.kys
fi

# Settings kept as entries, and changes recorded on one storage replayed
# into another, through the library (examples/settings.cpp, record_replay.cpp).
for example in settings record_replay; do
  if [ -x "$build/examples/example_$example" ]; then
    echo
    echo "\$ example_$example"
    "$build/examples/example_$example"
  fi
done

echo
if cmp -s <("$kystore" cat "$sample" Random) random.bin; then
  echo "demo: the 100000 random bytes came back unchanged"
else
  echo "demo: the random bytes did not come back unchanged" >&2
  exit 1
fi
rm -f random.bin
echo "demo: the sample storages are in $work"
