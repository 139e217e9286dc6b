#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds against it the way an
# application would: the examples through the CMake package, a test-transport
# consumer through the CMake package, and hello through pkg-config.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR LIBDIR
set -euo pipefail
build=$1
source=$2
libdir=$3

tmp=$(mktemp -d "${TMPDIR:-/tmp}/avqvl-install-XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi

step() { echo "== $*"; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in "$prefix/$libdir/libAvQvlCppBinding.so" "$prefix/$libdir/libAvQvlBindingv12064.so" \
         "$prefix/$libdir/libAvQvlTestTransport.a" "$prefix/bin/quorvel" \
         "$prefix/include/AvQvlCppBinding/client/AvQVLConnection.h" \
         "$prefix/include/AvQvlCppBinding/transport/AvQvlBinding.h" \
         "$prefix/include/AvQvlCppBinding/transport/testing/TestTransport.h" \
         "$prefix/$libdir/pkgconfig/AvQvlCppBinding.pc" \
         "$prefix/$libdir/cmake/AvQvlCppBinding/AvQvlCppBindingConfig.cmake"; do
    [[ -e $f ]] || { echo "missing after install: $f" >&2; exit 1; }
done
if grep -rlF "$build" "$prefix/$libdir/cmake" "$prefix/$libdir/pkgconfig"; then
    echo "the installed package refers to the build tree" >&2
    exit 1
fi

step "installed quorvel (found through its RPATH)"
"$prefix/bin/quorvel" status

step "examples through find_package"
cmake -S "$source/examples" -B "$tmp/examples" "${generator[@]}" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/examples" -j2 >/dev/null
"$tmp/examples/hello"
if [[ -e $source/examples/testing/ApplicationTest.cpp ]]; then
    "$tmp/examples/ApplicationTest" --gtest_brief=1
fi

step "the test transport wins over the transport library, in either link order"
cmake -S "$source/tests/install/consumer" -B "$tmp/consumer" "${generator[@]}" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/consumer" -j2 >/dev/null
"$tmp/consumer/transport_first"
"$tmp/consumer/transport_last"

step "hello through pkg-config"
mkdir "$tmp/pc"
PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" make -s -C "$tmp/pc" -f "$source/examples/Makefile" \
    CXXFLAGS="-std=c++17 -O1 -Wall -Wextra -Wpedantic -Werror"
LD_LIBRARY_PATH="$prefix/$libdir" "$tmp/pc/hello"
echo "install test passed"
