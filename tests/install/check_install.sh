#!/usr/bin/env bash
# check_install.sh BUILD SOURCE: the build installed into a staging folder,
# checked the way its users meet it:
#  1. the staged tree holds exactly the expected files, none naming the build
#     folder, every library path relative to the file, the records folder
#     root's alone; the man pages read without a warning; the installed
#     programs run, qzfi info with the installed plug-in on a host of the
#     installed simulator;
#  2. a small plug-in (tinyfi/) builds against the staged CMake package and
#     runs: it loads, claims and traces, the framework finds the installed
#     plug-in and catalogue folders from its own location, and the installed
#     qzvmfi plug-in loads with the framework installed beside it.
# Every installed program runs in an empty environment, so no folder of the
# build is on any path. Nothing is installed into the machine's own folders.
# The Debian packages are checked by check_packages.sh.
set -euo pipefail
shopt -s nullglob
build=$(realpath "$1")
source=$(realpath "$2")
tiny=$source/tests/install/tinyfi

work=$(mktemp -d /tmp/qzfi-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
. "$source/tests/install/lib.sh"

check_tree() {  # check_tree WHAT LISTING
  local differences
  if ! differences=$(diff <(expected_tree | LC_ALL=C sort) <(echo "$2")); then
    fail "$1 differs from the expected files (< expected, > found):"$'\n'"$differences"
  fi
}

# Man pages that groff reads without a warning.
check_man_pages() {  # check_man_pages ROOT
  local page warnings
  for page in "$1/usr/$QZ_MANDIR"/man*/*.gz; do
    warnings=$(zcat "$page" | groff -man -ww -z -Tutf8 2>&1)
    [ -z "$warnings" ] || fail "${page##*/}: $warnings"
  done
}

# Programs installed in bin/, run from ROOT. "qzfi info" loads the installed
# qzvmfi plug-in from the framework's plug-in folder and starts it on a host of
# the installed simulator, where it finds its volume manager.
check_programs() {  # check_programs ROOT
  local bin=$1/usr/$QZ_BINDIR lib=$1/usr/$QZ_LIBDIR output sim
  output=$(installed "$bin/qzsim" --help)
  [[ $output == "qzsim - QzVM simulator"* ]] || fail "the installed qzsim does not run: $output"
  output=$(installed "$bin/qzfi" --version)
  expect_output "qzfi --version" "qzfi $QZ_VERSION" "$output"
  sim=$(mktemp -d "$work/sim.XXXXXX")
  installed QZSIM_ROOT="$sim" "$bin/qzsim" init >/dev/null
  installed QZSIM_ROOT="$sim" "$bin/qzsim" host add A >/dev/null
  output=$(installed QZSIM_ROOT="$sim" "$bin/qzsim" host A -- "$bin/qzfi" info) ||
    fail "the installed qzfi info failed:"$'\n'"$output"
  expect_output "qzfi info against the installed plug-in" \
    "$(expected_info "$lib/qzfi/plugins/libqzvmfi.so")" "$(info_block <<<"$output")"
}

step "the build's own programs and plug-in"
for file in "$build/$QZ_BINDIR/qzfi" "$build/$QZ_LIBDIR/qzfi/plugins/libqzvmfi.so" \
  "$build"/sim/qzsim "$build"/sim/qzsim-sysblock; do
  check_run_path "$file" "${file#"$build"/}"
done

step "install into a staging folder"
stage=$work/stage
DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null
check_tree "the staged install" "$(tree_of "$stage")"
check_no_build_paths "$stage" "$build"
check_man_pages "$stage"
expect_output "the staged records folder's mode" 700 "$(stat -c %a "$stage/var/lib/qzfi/records")"
check_programs "$stage"

step "a plug-in built against the staged CMake package"
cmake -S "$tiny" -B "$work/tiny-cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$QZ_CXX" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
  -DCMAKE_PREFIX_PATH="$stage/usr" >/dev/null
cmake --build "$work/tiny-cmake" >/dev/null
check_tiny_plugin installed "$stage/usr" "$work/tiny-cmake" "$work/log"
cmake --install "$work/tiny-cmake" >/dev/null
[ -f "$stage/usr/$QZ_LIBDIR/qzfi/plugins/libtinyfi.so" ] ||
  fail "tinyfi is not installed in the framework's plug-in folder"

echo "installed tree and plug-in build: OK"
