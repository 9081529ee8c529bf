#!/bin/sh
# Installs kystore as a static and as a shared library into two temporary
# prefixes and builds a small program against each, once through the CMake
# package and once through pkg-config (the latter as C++20, to see that the
# package leaves the program's standard alone), then runs every program.
#
# Usage: consumer_test.sh SOURCE_DIR BUILD_DIR SHARED(ON|OFF) CMAKE CXX GENERATOR
# The build in BUILD_DIR is installed as it is; the other form is configured
# and built here, the library alone, unoptimised to keep this quick.
set -eu
src=$1 build=$2 shared=$3 cmake=$4 cxx=$5 generator=$6

work=$(mktemp -d "${TMPDIR:-/tmp}/kystore-install.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
log=$work/log

fail() {
  echo "consumer_test: $*" >&2
  [ -s "$log" ] && tail -n 40 "$log" >&2
  exit 1
}

case $shared in
  ON | on | 1 | TRUE | true) this=shared other=static other_flag=OFF ;;
  *) this=static other=shared other_flag=ON ;;
esac

"$cmake" --install "$build" --prefix "$work/$this" >"$log" 2>&1 || fail "installing $build failed"
"$cmake" -S "$src" -B "$work/build-$other" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
  -DBUILD_SHARED_LIBS=$other_flag -DKYSTORE_BUILD_TESTS=OFF -DKYSTORE_BUILD_TOOLS=OFF \
  -DKYSTORE_PYTHON=OFF \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 >"$log" 2>&1 ||
  fail "configuring the $other library failed"
"$cmake" --build "$work/build-$other" --target kystore -j 2 >"$log" 2>&1 ||
  fail "building the $other library failed"
"$cmake" --install "$work/build-$other" --prefix "$work/$other" >"$log" 2>&1 ||
  fail "installing the $other library failed"

for form in static shared; do
  prefix=$work/$form
  # Only the include directory itself may be on the consumer's path: no
  # generic header names at its top.
  for generic in format.h storage.h stream.h win_types.h; do
    [ ! -e "$prefix/include/$generic" ] || fail "$form: include/$generic installed"
  done

  "$cmake" -S "$src/tests/install/consumer" -B "$work/cmake-$form" -G "$generator" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" >"$log" 2>&1 ||
    fail "$form: find_package(kystore) failed"
  "$cmake" --build "$work/cmake-$form" >"$log" 2>&1 || fail "$form: the CMake consumer did not build"
  "$work/cmake-$form/consumer" "$work/cmake-$form.kys" >"$log" 2>&1 ||
    fail "$form: the CMake consumer failed"

  if command -v pkg-config >/dev/null 2>&1; then
    pcdir=$(dirname "$(find "$prefix" -name kystore.pc | head -n 1)")
    flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs kystore) ||
      fail "$form: pkg-config does not know kystore"
    libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir kystore)
    # shellcheck disable=SC2086  # the flags are a list
    "$cxx" -std=c++20 -DEXPECTED_CPLUSPLUS=202002L "$src/tests/install/consumer/consumer.cpp" \
      -o "$work/pc-$form" $flags -Wl,-rpath,"$libdir" >"$log" 2>&1 ||
      fail "$form: the pkg-config consumer did not build"
    "$work/pc-$form" "$work/pc-$form.kys" >"$log" 2>&1 || fail "$form: the pkg-config consumer failed"
  else
    echo "consumer_test: no pkg-config here, its consumer is skipped"
  fi

  # The shared form is really what the program loads, by its versioned name.
  if command -v readelf >/dev/null 2>&1; then
    needed=$(readelf -d "$work/cmake-$form/consumer" | grep 'NEEDED.*libkystore' || true)
    if [ $form = shared ]; then
      echo "$needed" | grep -q 'libkystore\.so\.[0-9]' || fail "shared: consumer does not load libkystore.so.N"
    else
      [ -z "$needed" ] || fail "static: consumer loads $needed"
    fi
  fi
  echo "consumer_test: $form library installs, links and runs"
done
