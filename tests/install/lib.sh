# Helpers of the install checks (check_install.sh, check_packages.sh), sourced
# after $work, $source and $tiny are set. The layout comes from the build in
# QZ_* variables (tests/install/CMakeLists.txt).

step() { echo "== $*"; }
fail() {
  echo "FAIL: $*" >&2
  exit 1
}
expect_output() {  # expect_output WHAT EXPECTED ACTUAL
  [ "$3" = "$2" ] || fail "$1: expected"$'\n'"$2"$'\n'"got"$'\n'"$3"
}
# An installed program, run with nothing of the build or of the caller's
# environment: its libraries must come from the tree it was installed in.
installed() { env -i PATH=/usr/bin:/bin HOME="$work" LC_ALL=C QZFI_LOG_DIR="$work/log" "$@"; }

# Files and links of a tree, and its empty folders with a "/".
tree_of() {
  (cd "$1" && {
    find . -mindepth 1 \( -type f -o -type l \) -printf '%P\n'
    find . -mindepth 1 -type d -empty -printf '%P/\n'
  }) | LC_ALL=C sort
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

# No installed file names a folder of the build, and every library search path
# is relative to the file itself.
check_no_build_paths() {  # check_no_build_paths ROOT FOLDER...
  local root=$1 folder file
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

# What "qzfi info" prints of the qzvmfi plug-in installed at PLUGIN.
expected_info() {  # expected_info PLUGIN
  cat <<EOF2
plug-in:           qzvmfi
file:              $1
provider:          qzvmfi (handles qzvm)
interface version: 7.0.0.0
release:           Brovik_$QZ_VERSION
fi access types:   none
EOF2
}
info_block() { sed -n '/^plug-in:/,/^fi access types:/p'; }

# The tiny plug-in and its host, built at BUILT, run with RUN (a command that
# runs a program of the installed tree) against the framework installed under
# PREFIX as RUN sees it; RUN's trace folder is LOGS.
check_tiny_plugin() {  # check_tiny_plugin RUN PREFIX BUILT LOGS
  local run=$1 lib=$2/$QZ_LIBDIR host=$3/tinyfi_host logs=$4 output
  expect_output "folders of the framework under $2" \
    "plugins $lib/qzfi/plugins"$'\n'"catalogs $2/$QZ_DATADIR/qzfi/catalog" \
    "$($run "$host" folders)"
  expect_output "a qzvmfi catalogue text from the installed catalogue" \
    "deportTree: unable to deport disk group dg1." \
    "$($run "$host" message qzvmfi MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP deportTree dg1)"
  rm -rf "$logs"
  expect_output "tinyfi's claims" \
    "loaded tinyfi"$'\n'"claimed /dev/tiny/vol1"$'\n'"not claimed /dev/qz/dsk/dg1/vol1" \
    "$($run "$host" load "$3/libtinyfi.so" /dev/tiny/vol1 /dev/qz/dsk/dg1/vol1)"
  grep -q "CTinyPlugin::claim /dev/tiny/vol1 claimed" "$logs/tinyfi.log" ||
    fail "tinyfi's trace file lacks its claim"
  output=$($run "$host" load "$lib/qzfi/plugins/libqzvmfi.so")
  [[ $output == "loaded "* ]] || fail "the installed qzvmfi plug-in does not load: $output"
  output=$($run ldd "$lib/qzfi/plugins/libqzvmfi.so")
  grep -qF "libqzfi_pdk.so.$QZ_SOVERSION => $lib/" <<<"$output" ||
    fail "the installed qzvmfi plug-in does not find the framework installed beside it:"$'\n'"$output"
}

# The Debian packages, and the files and links each holds (its empty folders
# with a "/"). Only the packages hold their copyright file, changelog and the
# agent's systemd unit; everything else is also what an install holds.
QZ_PACKAGES=(libqzfi-pdk1 libqzfi-pdk-dev qzvmfi qzfi qzsim)
package_files() {  # package_files PACKAGE
  local lib=usr/$QZ_LIBDIR man=usr/$QZ_MANDIR header
  echo "usr/share/doc/$1/changelog.gz"
  echo "usr/share/doc/$1/copyright"
  case $1 in
    libqzfi-pdk1)
      echo "$lib/libqzfi_pdk.so.$QZ_SOVERSION"
      echo "$lib/libqzfi_pdk.so.$QZ_VERSION"
      ;;
    libqzfi-pdk-dev)
      for header in "$source"/framework/qzfi/*.h; do
        echo "usr/$QZ_INCLUDEDIR/qzfi/${header##*/}"
      done
      cat <<EOF2
$lib/libqzfi_pdk.so
$lib/cmake/qzfi_pdk/qzfi_pdkConfig.cmake
$lib/cmake/qzfi_pdk/qzfi_pdkConfigVersion.cmake
$lib/cmake/qzfi_pdk/qzfi_pdkTargets.cmake
$lib/cmake/qzfi_pdk/qzfi_pdkTargets-${QZ_BUILD_TYPE:-noconfig}.cmake
$lib/pkgconfig/qzfi_pdk.pc
EOF2
      ;;
    qzvmfi)
      cat <<EOF2
etc/logrotate.d/qzfi
etc/qzfi/
var/log/qzfi/
$lib/qzfi/plugins/libqzvmfi.so
usr/$QZ_DATADIR/qzfi/catalog/qzvmfi/root.res
$man/man7/qzvmfi.7.gz
EOF2
      ;;
    qzfi)
      cat <<EOF2
usr/$QZ_BINDIR/qzfi
$man/man1/qzfi.1.gz
usr/$QZ_DATADIR/bash-completion/completions/qzfi
usr/$QZ_DATADIR/lintian/overrides/qzfi
var/lib/qzfi/records/
lib/systemd/system/qzfi-agent.service
EOF2
      ;;
    qzsim)
      cat <<EOF2
usr/$QZ_BINDIR/qzsim
usr/$QZ_BINDIR/qzsim-sysblock
$man/man1/qzsim.1.gz
$man/man1/qzsim-sysblock.1.gz
usr/$QZ_DATADIR/lintian/overrides/qzsim
EOF2
      ;;
    *) fail "no package $1" ;;
  esac
}
expected_tree() {
  local package
  for package in "${QZ_PACKAGES[@]}"; do
    package_files "$package"
  done | grep -vE '^(usr/share/doc/|lib/systemd/)'
}
