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
         "$prefix/include/AvQvlCppBinding/protocol/ResultCodes.h" \
         "$prefix/include/AvQvlCppBinding/transport/testing/TestTransport.h" \
         "$prefix/$libdir/pkgconfig/AvQvlCppBinding.pc" \
         "$prefix/$libdir/cmake/AvQvlCppBinding/AvQvlCppBindingConfig.cmake" \
         "$prefix/include/AvQvlCppBinding/client/Version.h" \
         "$prefix/share/man/man1/quorvel.1" "$prefix/share/man/man8/quorveld.8" \
         "$prefix/share/bash-completion/completions/quorvel"; do
    [[ -e $f ]] || { echo "missing after install: $f" >&2; exit 1; }
done
if grep -rlF "$build" "$prefix/$libdir/cmake" "$prefix/$libdir/pkgconfig"; then
    echo "the installed package refers to the build tree" >&2
    exit 1
fi

step "installed quorvel (found through its RPATH)"
"$prefix/bin/quorvel" status

step "one version: the header's macros, pkg-config, the CMake package and quorvel"
macro() { sed -n "s/^#define AVQVL_VERSION_$1 \(.*\)/\1/p" "$prefix/include/AvQvlCppBinding/client/Version.h"; }
version="$(macro MAJOR).$(macro MINOR).$(macro PATCH)"
[[ $(macro STRING) == "\"$version\"" ]] || { echo "AVQVL_VERSION_STRING is $(macro STRING), not $version" >&2; exit 1; }
pc_version=$(PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" pkg-config --modversion AvQvlCppBinding)
[[ $pc_version == "$version" ]] || { echo "pkg-config says $pc_version, the header $version" >&2; exit 1; }
grep -qF "set(PACKAGE_VERSION \"$version\")" "$prefix/$libdir/cmake/AvQvlCppBinding/AvQvlCppBindingConfigVersion.cmake" ||
    { echo "the CMake package's version is not $version" >&2; exit 1; }
[[ $("$prefix/bin/quorvel" --version) == "quorvel $version" ]] || { echo "quorvel --version is not $version" >&2; exit 1; }

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
