#!/usr/bin/env bash
# check_install.sh BUILD SOURCE: the build installed into a staging folder and
# packaged as a .deb, checked the way their users meet them:
#  1. the staged tree holds exactly the expected files, none naming the build
#     folder, every library path relative to the file; the man pages read
#     without a warning; the installed programs run, qzfi info with the
#     installed plug-in on a host of the installed simulator;
#  2. a small plug-in (tinyfi/) builds against the staged CMake package and
#     runs: it loads, claims and traces, the framework finds the installed
#     plug-in and catalogue folders from its own location, and the installed
#     qzvmfi plug-in loads with the framework installed beside it;
#  3. the .deb's files, owners, modes, dependencies and conffiles;
#  4. the .deb unpacked with dpkg-deb -x: the same files, stripped of any path
#     of the sources, its programs run, and the small plug-in built with its
#     pkg-config file runs against it.
# Every installed program runs in an empty environment, so no folder of the
# build is on any path. Nothing is installed into the machine's own folders.
# The layout comes from the build in QZ_* variables (tests/install/CMakeLists.txt).
set -euo pipefail
shopt -s nullglob
build=$(realpath "$1")
source=$(realpath "$2")
tiny=$source/tests/install/tinyfi

work=$(mktemp -d /tmp/qzfi-install.XXXXXX)
trap 'rm -rf "$work"' EXIT

step() { echo "== $*"; }
fail() {
  echo "FAIL: $*" >&2
  exit 1
}
# An installed program, run with nothing of the build or of the caller's
# environment: its libraries must come from the tree it was installed in.
installed() { env -i PATH=/usr/bin:/bin HOME="$work" LC_ALL=C QZFI_LOG_DIR="$work/log" "$@"; }
expect_output() {  # expect_output WHAT EXPECTED ACTUAL
  [ "$3" = "$2" ] || fail "$1: expected"$'\n'"$2"$'\n'"got"$'\n'"$3"
}

# Files and links of an installed tree, and its empty folders with a "/".
expected_tree() {
  local lib=usr/$QZ_LIBDIR
  cat <<EOF
etc/logrotate.d/qzfi
etc/qzfi/
var/log/qzfi/
usr/$QZ_BINDIR/qzfi
usr/$QZ_BINDIR/qzsim
usr/$QZ_BINDIR/qzsim-sysblock
$lib/libqzfi_pdk.so
$lib/libqzfi_pdk.so.$QZ_SOVERSION
$lib/libqzfi_pdk.so.$QZ_VERSION
$lib/cmake/qzfi_pdk/qzfi_pdkConfig.cmake
$lib/cmake/qzfi_pdk/qzfi_pdkConfigVersion.cmake
$lib/cmake/qzfi_pdk/qzfi_pdkTargets.cmake
$lib/cmake/qzfi_pdk/qzfi_pdkTargets-${QZ_BUILD_TYPE:-noconfig}.cmake
$lib/pkgconfig/qzfi_pdk.pc
$lib/qzfi/plugins/libqzvmfi.so
usr/$QZ_DATADIR/qzfi/catalog/qzvmfi/root.res
EOF
  local header page name
  for header in "$source"/framework/qzfi/*.h; do
    echo "usr/$QZ_INCLUDEDIR/qzfi/${header##*/}"
  done
  for page in "$source"/man/*.[1-9]; do
    name=${page##*/}
    echo "usr/$QZ_MANDIR/man${name##*.}/$name.gz"
  done
}

tree_of() {
  (cd "$1" && {
    find . -mindepth 1 \( -type f -o -type l \) -printf '%P\n'
    find . -mindepth 1 -type d -empty -printf '%P/\n'
  }) | LC_ALL=C sort
}

check_tree() {  # check_tree WHAT LISTING
  local differences
  if ! differences=$(diff <(expected_tree | LC_ALL=C sort) <(echo "$2")); then
    fail "$1 differs from the expected files (< expected, > found):"$'\n'"$differences"
  fi
}

# No installed file names a folder of the build, and every library search path
# is relative to the file itself.
check_no_build_paths() {  # check_no_build_paths ROOT FOLDER...
  local root=$1 folder file path
  shift
  for folder in "$@"; do
    if grep -rlF "$folder" "$root"; then
      fail "the files above name $folder"
    fi
  done
  while IFS= read -r -d '' file; do
    head -c 4 "$file" | cmp -s - <(printf '\177ELF') || continue
    check_run_path "$file" "${file#"$root"/}"
  done < <(find "$root" -type f -print0)
}

# Every entry of an ELF file's library search path is relative to the file:
# an empty entry would make the loader search the current folder.
check_run_path() {  # check_run_path FILE NAME
  local path
  while read -r path; do
    case $path in
      '$ORIGIN'*) ;;
      *) fail "$2 searches '$path' for libraries" ;;
    esac
  done < <(readelf -d "$1" | sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]/\2/p' | tr ':' '\n')
}

# The tiny plug-in and its host, run against the framework installed at ROOT.
check_tiny_plugin() {  # check_tiny_plugin ROOT BUILT
  local root=$1 host=$2/tinyfi_host
  local lib=$root/usr/$QZ_LIBDIR
  expect_output "folders of the framework under $root" \
    "plugins $lib/qzfi/plugins"$'\n'"catalogs $root/usr/$QZ_DATADIR/qzfi/catalog" \
    "$(installed "$host" folders)"
  expect_output "a qzvmfi catalogue text from the installed catalogue" \
    "deportTree: unable to deport disk group dg1." \
    "$(installed "$host" message qzvmfi MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP deportTree dg1)"
  rm -rf "$work/log"
  expect_output "tinyfi's claims" \
    "loaded tinyfi"$'\n'"claimed /dev/tiny/vol1"$'\n'"not claimed /dev/qz/dsk/dg1/vol1" \
    "$(installed "$host" load "$2/libtinyfi.so" /dev/tiny/vol1 /dev/qz/dsk/dg1/vol1)"
  grep -q "CTinyPlugin::claim /dev/tiny/vol1 claimed" "$work/log/tinyfi.log" ||
    fail "tinyfi's trace file lacks its claim"
  local output
  output=$(installed "$host" load "$lib/qzfi/plugins/libqzvmfi.so")
  [[ $output == "loaded "* ]] || fail "the installed qzvmfi plug-in does not load: $output"
  output=$(installed ldd "$lib/qzfi/plugins/libqzvmfi.so")
  grep -qF "libqzfi_pdk.so.$QZ_SOVERSION => $lib/" <<<"$output" ||
    fail "the installed qzvmfi plug-in does not find the framework installed beside it:"$'\n'"$output"
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
    "plug-in:           qzvmfi
file:              $lib/qzfi/plugins/libqzvmfi.so
provider:          qzvmfi (handles qzvm)
interface version: 7.0.0.0
release:           Brovik_$QZ_VERSION
fi access types:   none" "$(sed -n '/^plug-in:/,/^fi access types:/p' <<<"$output")"
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
check_programs "$stage"

step "a plug-in built against the staged CMake package"
cmake -S "$tiny" -B "$work/tiny-cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$QZ_CXX" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
  -DCMAKE_PREFIX_PATH="$stage/usr" >/dev/null
cmake --build "$work/tiny-cmake" >/dev/null
check_tiny_plugin "$stage" "$work/tiny-cmake"
cmake --install "$work/tiny-cmake" >/dev/null
[ -f "$stage/usr/$QZ_LIBDIR/qzfi/plugins/libtinyfi.so" ] ||
  fail "tinyfi is not installed in the framework's plug-in folder"

step "the Debian package"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package" >/dev/null
debs=("$work"/package/*.deb)
[ ${#debs[@]} -eq 1 ] || fail "cpack made ${#debs[@]} packages, not one"
deb=${debs[0]}
expect_output "package name and version" "qzvmfi $QZ_VERSION" \
  "$(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version)"
depends=$(dpkg-deb -f "$deb" Depends)
for runtime in 'libace-[0-9.]+' 'libicu[0-9]+' 'libsqlite3-0' 'libfuse3-[0-9]+'; do
  grep -qE "(^|, )$runtime( |,|$)" <<<"$depends" || fail "Depends lacks $runtime: $depends"
done
expect_output "conffiles" "/etc/logrotate.d/qzfi" \
  "$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles)"
listing=$(dpkg-deb -c "$deb")
owners=$(awk '{print $2}' <<<"$listing" | sort -u)
expect_output "owners in the package" "root/root" "$owners"
# Files and links, and the folders that hold nothing.
entries=$(awk '{print $6}' <<<"$listing" | sed 's|^\./||; /^$/d' | LC_ALL=C sort)
contents=$(awk '
  { if (prev != "" && index($0, prev) != 1) print prev; prev = "" }
  /\/$/ { prev = $0; next }
  { print }
  END { if (prev != "") print prev }' <<<"$entries")
check_tree "the package" "$contents"
mode_of() { awk -v name="./$1" '$6 == name {print $1}' <<<"$listing"; }
expect_output "mode of qzsim" "-rwxr-xr-x" "$(mode_of "usr/$QZ_BINDIR/qzsim")"
expect_output "mode of qzsim-sysblock" "-rwxr-xr-x" "$(mode_of "usr/$QZ_BINDIR/qzsim-sysblock")"
expect_output "mode of qzfi" "-rwxr-xr-x" "$(mode_of "usr/$QZ_BINDIR/qzfi")"
expect_output "mode of the plug-in" "-rw-r--r--" "$(mode_of "usr/$QZ_LIBDIR/qzfi/plugins/libqzvmfi.so")"
expect_output "mode of the framework" "-rw-r--r--" \
  "$(mode_of "usr/$QZ_LIBDIR/libqzfi_pdk.so.$QZ_VERSION")"
expect_output "mode of the trace folder" "drwxr-x---" "$(mode_of var/log/qzfi/)"

step "the package unpacked with dpkg-deb -x"
root=$work/root
dpkg-deb -x "$deb" "$root"
check_tree "the unpacked package" "$(tree_of "$root")"
# Stripped: not even the debug information names the sources.
check_no_build_paths "$root" "$build" "$source"
check_programs "$root"

step "a plug-in built with the unpacked package's pkg-config file"
export PKG_CONFIG_PATH=$root/usr/$QZ_LIBDIR/pkgconfig
expect_output "pkg-config's plug-in folder" "$root/usr/$QZ_LIBDIR/qzfi/plugins" \
  "$(realpath "$(pkg-config --variable=plugindir qzfi_pdk)")"
read -r -a flags <<<"$(pkg-config --cflags --libs qzfi_pdk)"
mkdir "$work/tiny-pc"
"$QZ_CXX" -std=c++17 -Wall -Wextra -Werror -fPIC -shared -o "$work/tiny-pc/libtinyfi.so" \
  "$tiny/tinyfi.cc" "${flags[@]}"
"$QZ_CXX" -std=c++17 -Wall -Wextra -Werror -o "$work/tiny-pc/tinyfi_host" "$tiny/tinyfi_host.cc" \
  "${flags[@]}" -ldl -Wl,-rpath,"$root/usr/$QZ_LIBDIR"
check_tiny_plugin "$root" "$work/tiny-pc"

echo "installed tree, plug-in builds and package: OK"
