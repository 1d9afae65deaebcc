#!/usr/bin/env bash
# Installs a build into an empty directory, builds a host against that tree with the CMake package and with pkg-config,
# and runs a block with each: `install_test.sh BUILD_DIRECTORY CXX_COMPILER`.
set -euo pipefail

build=$1
cxx=$2
source=$(cd "$(dirname "$0")" && pwd)/installed_host
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
home=$work/home
unset VEXA_HOME

cmake --install "$build" --prefix "$home" >/dev/null
for file in bin/vexadx bin/vexadxcfg.ini bin/vexaprefs.properties bin/vexaprefs.jar bin/vexajavaplugin.jar \
            lib/libvexadxcom.so lib/libvexadeploy.so lib/libvexapython.dylib JRE/lib \
            include/vexadx/vexadxcom.h share/man/man1/vexadx.1 \
            share/doc/vexadx/README.md share/examples/vexadx/survey.py; do
  [ -e "$home/$file" ] || { echo "not installed: $file"; exit 1; }
done

# The installed tree may not lean on the one it was built in.
if readelf -d "$home"/bin/vexadx "$home"/lib/* 2>/dev/null | grep -E 'R(UN)?PATH' | grep -F "$build"; then
  echo "run path into the build directory"
  exit 1
fi

cmake -G Ninja -S "$source" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$home" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/cmake" >/dev/null
flags=$(PKG_CONFIG_PATH=$home/lib/pkgconfig pkg-config --cflags --libs vexadxcom)
# shellcheck disable=SC2086 # the flags are words
"$cxx" -std=c++20 "$source/host.cpp" -o "$work/host" $flags -Wl,-rpath,"$home/lib"

for host in "$work/cmake/host" "$work/host"; do
  [ "$("$host" "$home" 'print(6 * 7)')" = 42 ] || { echo "$host did not print 42"; exit 1; }
  if "$host" "$home" 'raise ValueError' >/dev/null 2>&1; then
    echo "$host took a failing block for a good one"
    exit 1
  fi
done
[ "$("$home/bin/vexadx" run PYTHON --in-process -e 'print(6 * 7)')" = 42 ]
