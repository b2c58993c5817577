#!/usr/bin/env bash
# Installs the build tree into a scratch prefix and uses it the two ways a user would:
# the README's example compiled through pkg-config, and a CMake project through find_package.
# Usage: consumer_test.sh BUILD_DIR SOURCE_DIR EXPECTED_VERSION
set -euo pipefail

build_dir=$(cd "$1" && pwd)
source_dir=$(cd "$2" && pwd)
expected_version=$3

fail() {
  echo "$*" >&2
  exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

echo "== installing into $prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null

# GNUInstallDirs picks lib or lib/<multiarch> depending on the configured prefix.
pc_file=$(find "$prefix" -name zeptick.pc -path '*/pkgconfig/*' | head -n 1)
[[ -n $pc_file ]] || fail "zeptick.pc was not installed"
lib_dir=$(dirname "$(dirname "$pc_file")")

echo "== README usage example through pkg-config"
readme_example="$work/readme_example.cpp"
awk '
  /<!-- usage-example:begin -->/ { in_block = 1; next }
  /<!-- usage-example:end -->/   { in_block = 0; next }
  in_block && /^```cpp[[:space:]]*$/ { in_code = 1; next }
  in_block && in_code && /^```[[:space:]]*$/ { in_code = 0; next }
  in_block && in_code { print }
' "$source_dir/README.md" >"$readme_example"
[[ -s $readme_example ]] ||
  fail "README.md has no \`\`\`cpp block between the usage-example markers"
export PKG_CONFIG_PATH="$lib_dir/pkgconfig"
# Word splitting of pkg-config's output is intended.
# shellcheck disable=SC2046
g++ -std=c++20 -Wall -Wextra -o "$work/readme_example" "$readme_example" \
  $(pkg-config --cflags --libs zeptick)
LD_LIBRARY_PATH="$lib_dir" "$work/readme_example"

echo "== CMake consumer through find_package"
cmake -S "$source_dir/tests/install/cmake_consumer" -B "$work/consumer-build" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build "$work/consumer-build"
printed=$(LD_LIBRARY_PATH="$lib_dir" "$work/consumer-build/consumer")
[[ $printed == "$expected_version" ]] ||
  fail "consumer printed '$printed', expected '$expected_version'"
echo "consumer printed $printed"
