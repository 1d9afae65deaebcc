#!/usr/bin/env bash
# Compares what a library exports with the list of names: `exports_test.sh LIBRARY LIST`. Prints what is missing (-) and
# what is too many (+).
set -euo pipefail

string='std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >'
exported() {
  nm -D --defined-only -C "$1" | sed -E "s/^[0-9a-f]+ . //; s/$string/std::string/g; s/\[abi:cxx11\]//g; s/, std::allocator<std::string > >/>/g" |
    LC_ALL=C sort -u
}
diff --label "$2" --label "$1" -U0 "$2" <(exported "$1")
