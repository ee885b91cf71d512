#!/usr/bin/env bash
# check_packages.sh BUILD SOURCE: the Debian packages made from the build,
# checked the way Debian and their users meet them:
#  1. cpack makes the five packages; each holds exactly its files, owned by
#     root with the expected modes, and the control files it needs (its own
#     dependencies, the library's shlibs and ldconfig trigger, conffiles);
#  2. lintian finds no error and no warning in any of them, but for an
#     override shipped with a one-line reason;
#  3. apt-get installs them into a scratch root: an overlay of the machine's
#     own root in a private mount namespace, with its changes kept in memory,
#     so that nothing of the machine changes; there the installed qzfi runs
#     "qzfi info" with the installed plug-in on a host of the installed
#     simulator, every program has its man page, and a small plug-in
#     (tinyfi/) builds against libqzfi-pdk-dev with its CMake package and its
#     pkg-config file, loads and runs;
#  4. apt-get removes them, keeping the configuration and the records; a
#     purge then leaves nothing behind: the plug-in's configuration file, the
#     trace folder, the records and the agent's enabled links go with it.
# Where mount namespaces are not available, the packages are unpacked with
# dpkg-deb -x instead and step 4 is not run (the test says so).
set -euo pipefail
shopt -s nullglob

# The checks run in a mount namespace of their own: every mount of the
# scratch root goes away with them.
if [ -z "${QZ_PACKAGES_NAMESPACE:-}" ] && unshare --mount --propagation private true 2>/dev/null; then
  exec unshare --mount --propagation private env QZ_PACKAGES_NAMESPACE=1 "$0" "$@"
fi

build=$(realpath "$1")
source=$(realpath "$2")
tiny=$source/tests/install/tinyfi

work=$(mktemp -d /tmp/qzfi-packages.XXXXXX)
scratch=$work/scratch
cleanup() {
  if mountpoint -q "$scratch"; then
    umount -R "$scratch"
  fi
  rm -rf --one-file-system "$work"
}
trap cleanup EXIT
. "$source/tests/install/lib.sh"

deb_of() { echo "$work/package/$1_${QZ_VERSION}_amd64.deb"; }

# Files and links of a package, and the folders that hold nothing.
contents_of() {  # contents_of DEB
  dpkg-deb -c "$1" | awk '{print $6}' | sed 's|^\./||; /^$/d' | LC_ALL=C sort | awk '
    { if (prev != "" && index($0, prev) != 1) print prev; prev = "" }
    /\/$/ { prev = $0; next }
    { print }
    END { if (prev != "") print prev }'
}
control_file() { dpkg-deb --ctrl-tarfile "$1" | tar -xO "./$2"; }
control_files() { dpkg-deb --ctrl-tarfile "$1" | tar -t | sed 's|^\./||; /^$/d' | LC_ALL=C sort | xargs; }

# Depends holds each given package (an extended regular expression), or not.
check_depends() {  # check_depends PACKAGE [!]NAME...
  local depends entry
  depends=$(dpkg-deb -f "$(deb_of "$1")" Depends)
  shift
  for entry in "$@"; do
    if [[ $entry == '!'* ]]; then
      ! grep -qE "(^|, )${entry#!}( |,|$)" <<<"$depends" || fail "Depends has ${entry#!}: $depends"
    else
      grep -qE "(^|, )$entry( |,|$)" <<<"$depends" || fail "Depends lacks $entry: $depends"
    fi
  done
}

check_package() {  # check_package PACKAGE
  local deb differences listing
  deb=$(deb_of "$1")
  [ -f "$deb" ] || fail "cpack made no ${deb##*/}"
  expect_output "$1: name, version, architecture and maintainer" \
    "$1 $QZ_VERSION amd64 $maintainer" \
    "$(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version) $(dpkg-deb -f "$deb" Architecture) $(dpkg-deb -f "$deb" Maintainer)"
  if ! differences=$(diff <(package_files "$1" | LC_ALL=C sort) <(contents_of "$deb")); then
    fail "$1 differs from the expected files (< expected, > found):"$'\n'"$differences"
  fi
  listing=$(dpkg-deb -c "$deb")
  expect_output "$1: owners" "root/root" "$(awk '{print $2}' <<<"$listing" | sort -u)"
  # Programs are executable, everything else that is a file is not; the
  # records folder is root's alone.
  expect_output "$1: modes" "" "$(awk '
    $1 ~ /^-/ && (($6 ~ /^\.\/usr\/bin\// && $1 != "-rwxr-xr-x") ||
                  ($6 !~ /^\.\/usr\/bin\// && $1 != "-rw-r--r--")) { print $1, $6 }
    $1 ~ /^d/ && $6 == "./var/lib/qzfi/records/" && $1 != "drwx------" { print $1, $6 }
    $1 ~ /^d/ && $6 != "./var/lib/qzfi/records/" && $1 != "drwxr-xr-x" { print $1, $6 }' <<<"$listing")"
}

# Each lintian override comes with its reason, a comment line right above it.
check_override_reasons() {  # check_override_reasons PACKAGE
  local overrides=$work/unpacked/$1/usr/share/lintian/overrides/$1
  [ -f "$overrides" ] || return 0
  awk -v name="$1" '
    /^#/ { reason = 1; next }
    /^[[:space:]]*$/ { reason = 0; next }
    !reason { print name ": override without a reason: " $0; bad = 1 }
    { reason = 0 }
    END { exit bad }' "$overrides" || fail "lintian overrides need a one-line reason each"
}

maintainer=$(sed -n 's/^ -- \(.*>\)  .*/\1/p' "$source/packaging/deb/changelog" | head -1)

step "the packages made by cpack"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/cpack.log" 2>&1 ||
  fail "cpack failed:"$'\n'"$(cat "$work/cpack.log")"
made=$(cd "$work/package" && printf '%s\n' *.deb | LC_ALL=C sort)
expect_output "the packages" \
  "$(for package in "${QZ_PACKAGES[@]}"; do echo "${package}_${QZ_VERSION}_amd64.deb"; done | LC_ALL=C sort)" \
  "$made"
for package in "${QZ_PACKAGES[@]}"; do
  check_package "$package"
done
for page in "$source"/man/*.[1-9]; do
  name=${page##*/}
  for package in "${QZ_PACKAGES[@]}"; do
    package_files "$package"
  done | grep -xF "usr/$QZ_MANDIR/man${name##*.}/$name.gz" >/dev/null || fail "no package holds the man page $name"
done

library=$(deb_of libqzfi-pdk1)
expect_output "libqzfi-pdk1's control files" "control md5sums shlibs triggers" "$(control_files "$library")"
expect_output "libqzfi-pdk1's shlibs" "libqzfi_pdk $QZ_SOVERSION libqzfi-pdk1 (>= $QZ_VERSION)" \
  "$(control_file "$library" shlibs)"
expect_output "libqzfi-pdk1's trigger" "activate-noawait ldconfig" "$(control_file "$library" triggers)"
expect_output "qzvmfi's control files" "conffiles control md5sums postrm" \
  "$(control_files "$(deb_of qzvmfi)")"
expect_output "qzvmfi's conffiles" "/etc/logrotate.d/qzfi" "$(control_file "$(deb_of qzvmfi)" conffiles)"
expect_output "qzfi's control files" "control md5sums postinst postrm prerm" \
  "$(control_files "$(deb_of qzfi)")"
# Each package names the runtime packages of what its binaries link, and no
# more: the plug-in and the framework's program do not pull the simulator in.
runtime=('libace-[0-9.]+' 'libicu[0-9]+' 'libstdc\+\+6')
exact="libqzfi-pdk1 \(= $QZ_VERSION\)"
check_depends libqzfi-pdk1 "${runtime[@]}" '!libqzfi-pdk1'
check_depends libqzfi-pdk-dev "$exact" libace-dev libicu-dev
check_depends qzvmfi "$exact" "${runtime[@]}" '!qzsim' '!qzfi'
check_depends qzfi "$exact" 'libace-[0-9.]+' libsystemd0 '!qzsim'
check_depends qzsim libsqlite3-0 'libfuse3-[0-9]+' '!libqzfi-pdk1'

# Stripped: not even the debug information names the sources.
mkdir "$work/unpacked"
for package in "${QZ_PACKAGES[@]}"; do
  dpkg-deb -x "$(deb_of "$package")" "$work/unpacked/$package"
done
check_no_build_paths "$work/unpacked" "$build" "$source"

step "lintian"
for package in "${QZ_PACKAGES[@]}"; do
  check_override_reasons "$package"
done
debs=()
for package in "${QZ_PACKAGES[@]}"; do
  debs+=("$(deb_of "$package")")
done
if ! findings=$(lintian --fail-on error,warning --display-level '>=warning' "${debs[@]}" 2>&1); then
  fail "lintian finds errors or warnings:"$'\n'"$findings"
fi
grep -E '^[EW]: ' <<<"$findings" && fail "lintian reports the findings above"

# The scratch root: the machine's root seen through an overlay whose changes
# go to memory, with its own /proc, /dev, /run and /tmp, and /sys read-only.
make_scratch_root() {
  mkdir "$scratch"
  mount -t tmpfs -o mode=0755 tmpfs "$scratch"
  mkdir "$scratch/upper" "$scratch/overlay" "$scratch/root"
  mount -t overlay overlay -o "lowerdir=/,upperdir=$scratch/upper,workdir=$scratch/overlay" \
    "$scratch/root" || fail "cannot lay the scratch root over the machine's root"
  root=$scratch/root
  mount -t proc proc "$root/proc"
  mount -t sysfs -o ro sysfs "$root/sys"
  mount -t tmpfs -o mode=0755 tmpfs "$root/dev"
  local device
  for device in null zero full random urandom fuse; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
  done
  mkdir "$root/dev/pts" "$root/dev/shm"
  mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
  ln -s pts/ptmx "$root/dev/ptmx"
  mount -t tmpfs -o mode=0755 tmpfs "$root/run"
  mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
}
# A program of the scratch root, run there with a plain environment; its
# trace folder is /tmp/log.
in_root() {
  chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C \
    DEBIAN_FRONTEND=noninteractive QZFI_LOG_DIR=/tmp/log "$@"
}
status_of() {  # status_of PACKAGE: dpkg's status in the scratch root
  in_root dpkg-query -W -f '${Status}' "$1" 2>/dev/null || echo "unknown ok not-installed"
}
check_statuses() {  # check_statuses WHAT PACKAGE=STATUS...
  local entry
  for entry in "${@:2}"; do
    expect_output "$1: dpkg's status of ${entry%%=*}" "${entry#*=}" "$(status_of "${entry%%=*}")"
  done
}
# What the scratch root changed of the machine's root: its files, links and
# deleted files (c), and its folders that the machine does not have.
changes() {
  (cd "$scratch/upper" && find . -mindepth 1 -printf '%y %P\n') | while read -r type path; do
    if [ "$type" != d ] || [ ! -d "/$path" ]; then
      echo "$type $path"
    fi
  done | LC_ALL=C sort
}
lasting_changes() { changes | { grep -vE "$bookkeeping" || true; }; }
# What dpkg, apt and the triggers keep of every install: their state, logs
# and caches; and on a machine without systemd, the empty folders of its
# units' links and states that deb-systemd-helper makes and keeps.
bookkeeping='^([fd] (var/lib/dpkg/|var/lib/apt/|var/log/(dpkg\.log|apt/)|var/cache/(apt|ldconfig|man|debconf)/|etc/ld\.so\.cache$)|d (etc/systemd|etc/systemd/system|var/lib/systemd)$)'

if [ -z "${QZ_PACKAGES_NAMESPACE:-}" ]; then
  step "the packages unpacked with dpkg-deb -x"
  echo "NOTE: no mount namespace here: apt-get install, remove and purge are not checked"
  root=$work/root
  for package in "${QZ_PACKAGES[@]}"; do
    dpkg-deb -x "$(deb_of "$package")" "$root"
  done
  sim=$(mktemp -d "$work/sim.XXXXXX")
  bin=$root/usr/$QZ_BINDIR
  installed QZSIM_ROOT="$sim" "$bin/qzsim" init >/dev/null
  installed QZSIM_ROOT="$sim" "$bin/qzsim" host add A >/dev/null
  output=$(installed QZSIM_ROOT="$sim" "$bin/qzsim" host A -- "$bin/qzfi" info) ||
    fail "the unpacked qzfi info failed:"$'\n'"$output"
  expect_output "qzfi info against the unpacked plug-in" \
    "$(expected_info "$root/usr/$QZ_LIBDIR/qzfi/plugins/libqzvmfi.so")" "$(info_block <<<"$output")"
  export PKG_CONFIG_PATH=$root/usr/$QZ_LIBDIR/pkgconfig
  read -r -a flags <<<"$(pkg-config --cflags --libs qzfi_pdk)"
  mkdir "$work/tiny-pc"
  "$QZ_CXX" -std=c++17 -Wall -Wextra -Werror -fPIC -shared -o "$work/tiny-pc/libtinyfi.so" \
    "$tiny/tinyfi.cc" "${flags[@]}"
  "$QZ_CXX" -std=c++17 -Wall -Wextra -Werror -o "$work/tiny-pc/tinyfi_host" "$tiny/tinyfi_host.cc" \
    "${flags[@]}" -ldl -Wl,-rpath,"$root/usr/$QZ_LIBDIR"
  check_tiny_plugin installed "$root/usr" "$work/tiny-pc" "$work/log"
  echo "Debian packages, unpacked: OK"
  exit 0
fi

step "a scratch root as the machine's root was, without these packages"
make_scratch_root
# Whatever of these packages the machine may have goes first, in the scratch
# root only; man-db's index is not rebuilt at each install there.
in_root dpkg --purge "${QZ_PACKAGES[@]}" >/dev/null 2>&1 || true
rm -rf "$root/etc/qzfi" "$root/var/log/qzfi" "$root/var/lib/qzfi" "$root/var/lib/man-db/auto-update"
mkdir -m 0755 "$root/tmp/debs"
install -m 0644 "${debs[@]}" "$root/tmp/debs/"
before=$(lasting_changes)

step "apt-get install ./*.deb"
# Everything they need besides each other is installed already.
needed=$(in_root sh -c 'cd /tmp/debs && apt-get install -s --no-install-recommends ./*.deb' |
  sed -n 's/^Inst \([^ ]*\) .*/\1/p' | LC_ALL=C sort | xargs)
expect_output "what apt-get would install" "$(printf '%s\n' "${QZ_PACKAGES[@]}" | LC_ALL=C sort | xargs)" \
  "$needed"
in_root sh -c 'cd /tmp/debs && apt-get install -y -q --no-install-recommends ./*.deb' \
  >"$work/install.log" 2>&1 || fail "apt-get install failed:"$'\n'"$(cat "$work/install.log")"
check_statuses "installed" "${QZ_PACKAGES[@]/%/=install ok installed}"
in_root ldconfig -p | grep -F "libqzfi_pdk.so.$QZ_SOVERSION (" >/dev/null ||
  fail "the ldconfig trigger did not put libqzfi_pdk.so.$QZ_SOVERSION in the cache"
for program in $(in_root dpkg -L "${QZ_PACKAGES[@]}" | grep '^/usr/bin/.'); do
  in_root man -w "${program##*/}" >/dev/null || fail "${program##*/} has no man page"
done
[ -f "$root/var/lib/systemd/deb-systemd-helper-enabled/qzfi-agent.service.dsh-also" ] ||
  fail "qzfi's postinst did not record the agent's unit with deb-systemd-helper"
[ ! -e "$root/etc/systemd/system/multi-user.target.wants/qzfi-agent.service" ] ||
  fail "the agent's unit is enabled at install"
expect_output "the records folder's mode and owner" "700 root:root" \
  "$(stat -c '%a %U:%G' "$root/var/lib/qzfi/records")"
# bash-completion loads a program's completion by its name from this folder.
expect_output "qzfi's bash completion, installed" "complete -F _qzfi qzfi" \
  "$(in_root bash -c '. /usr/share/bash-completion/completions/qzfi && complete -p qzfi')"

step "qzfi info with the installed plug-in on a simulated host"
# The framework's own configuration and trace folders, as on a real host.
in_root sh -c 'QZSIM_ROOT=/tmp/sim; export QZSIM_ROOT; qzsim init && qzsim host add A' >/dev/null
output=$(in_root QZSIM_ROOT=/tmp/sim qzsim host A -- \
  env QZFI_CONFIG_DIR=/etc/qzfi QZFI_LOG_DIR=/var/log/qzfi qzfi info) ||
  fail "the installed qzfi info failed:"$'\n'"$output"
expect_output "qzfi info against the installed plug-in" \
  "$(expected_info "/usr/$QZ_LIBDIR/qzfi/plugins/libqzvmfi.so")" "$(info_block <<<"$output")"
[ -f "$root/etc/qzfi/qzvmfi.conf" ] || fail "the plug-in wrote no /etc/qzfi/qzvmfi.conf"
[ -f "$root/var/log/qzfi/qzvmfi.log" ] || fail "the plug-in wrote no trace in /var/log/qzfi"
# A record kept in the default folder, as a backup leaves it: the removal
# keeps it, the purge takes it.
echo '{}' >"$root/var/lib/qzfi/records/vol1.json"

step "a plug-in built against libqzfi-pdk-dev"
cp -r "$tiny" "$root/tmp/tinyfi"
in_root cmake -S /tmp/tinyfi -B /tmp/tiny-cmake -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$QZ_CXX" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
in_root cmake --build /tmp/tiny-cmake >/dev/null
check_tiny_plugin in_root /usr /tmp/tiny-cmake "$root/tmp/log"
in_root sh -c "mkdir /tmp/tiny-pc && cd /tmp/tiny-pc &&
  $QZ_CXX -std=c++17 -Wall -Wextra -Werror -fPIC -shared -o libtinyfi.so /tmp/tinyfi/tinyfi.cc \$(pkg-config --cflags --libs qzfi_pdk) &&
  $QZ_CXX -std=c++17 -Wall -Wextra -Werror -o tinyfi_host /tmp/tinyfi/tinyfi_host.cc \$(pkg-config --cflags --libs qzfi_pdk) -ldl"
check_tiny_plugin in_root /usr /tmp/tiny-pc "$root/tmp/log"

step "apt-get remove"
# An administrator enabled the agent meanwhile (where systemd is not
# installed, with the link that systemctl enable makes).
if [ -x "$root/usr/bin/systemctl" ]; then
  in_root systemctl enable qzfi-agent.service >/dev/null 2>&1
else
  mkdir -p "$root/etc/systemd/system/multi-user.target.wants"
  ln -s /lib/systemd/system/qzfi-agent.service "$root/etc/systemd/system/multi-user.target.wants/"
fi
[ -L "$root/etc/systemd/system/multi-user.target.wants/qzfi-agent.service" ] ||
  fail "systemctl enable made no link for the agent's unit"
in_root apt-get remove -y -q "${QZ_PACKAGES[@]}" >"$work/remove.log" 2>&1 ||
  fail "apt-get remove failed:"$'\n'"$(cat "$work/remove.log")"
check_statuses "removed" libqzfi-pdk1="unknown ok not-installed" \
  libqzfi-pdk-dev="unknown ok not-installed" qzsim="unknown ok not-installed" \
  qzvmfi="deinstall ok config-files" qzfi="deinstall ok config-files"
for package in "${QZ_PACKAGES[@]}"; do
  while read -r path; do
    case $path in
      etc/* | var/log/qzfi/ | var/lib/qzfi/records/) ;;
      */) [ ! -d "$root/$path" ] || [ -d "/$path" ] || fail "the removed $package left /$path" ;;
      *) [ ! -e "$root/$path" ] || fail "the removed $package left /$path" ;;
    esac
  done < <(package_files "$package")
done
in_root ldconfig -p | grep -F "libqzfi_pdk.so" >/dev/null && fail "the ldconfig cache still has libqzfi_pdk.so"
for kept in etc/logrotate.d/qzfi etc/qzfi/qzvmfi.conf; do
  [ -f "$root/$kept" ] || fail "removing qzvmfi took its configuration /$kept"
done
[ -f "$root/var/lib/qzfi/records/vol1.json" ] || fail "removing qzfi took the records"

step "apt-get purge"
in_root apt-get purge -y -q qzvmfi qzfi >"$work/purge.log" 2>&1 ||
  fail "apt-get purge failed:"$'\n'"$(cat "$work/purge.log")"
check_statuses "purged" "${QZ_PACKAGES[@]/%/=unknown ok not-installed}"
for gone in etc/qzfi var/log/qzfi var/lib/qzfi etc/logrotate.d/qzfi \
  etc/systemd/system/multi-user.target.wants/qzfi-agent.service \
  var/lib/systemd/deb-systemd-helper-enabled/qzfi-agent.service.dsh-also; do
  [ ! -e "$root/$gone" ] && [ ! -L "$root/$gone" ] || fail "the purge left /$gone"
done
if ! left=$(diff <(echo "$before") <(lasting_changes)); then
  fail "install, remove and purge left these changes (> left, < undone):"$'\n'"$left"
fi

echo "Debian packages, lintian, install, use, remove and purge: OK"
