#!/bin/sh
# Builds the Debian package vigild_<version>_<arch>.deb with cmake --install
# and dpkg-deb (no debhelper, no fakeroot: --root-owner-group).
#
#   scripts/package.sh [--check] [BUILD_DIR]
#
# BUILD_DIR is a configured build directory whose vigild is used (it is
# built if needed); without one, build-package/ is made as a Release build.
# The package is written into BUILD_DIR. With --check the package is then
# unpacked into a throw-away root and checked: the files are where the unit
# and the man page say, vigild runs from there, and systemd accepts the unit.
set -eu
cd "$(dirname "$0")/.."
src=$(pwd)

check=no
if [ "${1:-}" = --check ]; then
    check=yes
    shift
fi
build=${1:-build-package}
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DVIGILD_TESTS=OFF -DVIGILD_WERROR=ON
fi
cmake --build "$build" -j2 --target vigild

version=$(sed -n 's/^project(vigild VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "no project(VERSION) in CMakeLists.txt" >&2; exit 1; }
arch=$(dpkg --print-architecture)
deb="$build/vigild_${version}_${arch}.deb"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
stage="$work/stage"

DESTDIR="$stage" cmake --install "$build" --prefix /usr --strip >/dev/null
DESTDIR="$stage" cmake --install "$build" --prefix /usr --component conffiles >/dev/null
gzip -9n "$stage/usr/share/man/man8/vigild.8"
# The scan directory and the dump directory; postinst gives them to the group.
install -d -m 0750 "$stage/var/av/scan" "$stage/var/support"

# Depends from the libraries the binary links (dpkg-shlibdeps wants a
# debian/control next to it).
mkdir -p "$work/debian"
printf 'Source: vigild\n\nPackage: vigild\nArchitecture: any\n' > "$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O "$stage/usr/sbin/vigild" 2>/dev/null |
    sed -n 's/^shlibs:Depends=//p')
[ -n "$depends" ] || depends="libc6, libcrypt1, libgcc-s1, libstdc++6"
rm -r "$work/debian"

mkdir -p "$stage/DEBIAN"
sed -e "s/@VERSION@/$version/" -e "s/@ARCH@/$arch/" -e "s/@DEPENDS@/$depends/" \
    -e "s/@SIZE@/$(du -sk "$stage" | cut -f1)/" dist/deb/control.in > "$stage/DEBIAN/control"
(cd "$stage" && find etc -type f | sed 's|^|/|' | sort) > "$stage/DEBIAN/conffiles"
install -m 0755 dist/deb/postinst dist/deb/prerm dist/deb/postrm "$stage/DEBIAN/"

dpkg-deb --root-owner-group -Zxz --build "$stage" "$deb" >/dev/null
echo "$deb"
[ "$check" = yes ] || exit 0

# --- the check ---------------------------------------------------------------
fail() { echo "package check: $*" >&2; exit 1; }
root="$work/root"
dpkg-deb -x "$deb" "$root"
listing=$(dpkg-deb -c "$deb")
for f in ./usr/sbin/vigild ./lib/systemd/system/vigild.service \
         ./usr/share/man/man8/vigild.8.gz ./etc/av/vigild.conf ./etc/av/norvik.conf \
         ./usr/share/doc/vigild/examples/vigild.conf ./usr/share/doc/vigild/examples/norvik.conf \
         ./usr/share/doc/vigild/examples/local_domains ./usr/share/doc/vigild/examples/relay_ips \
         ./usr/share/doc/vigild/examples/auth; do
    echo "$listing" | grep -q " $f\$" || fail "$f not in the package"
done
echo "$listing" | grep -q '^-rwxr-xr-x root/root .* ./usr/sbin/vigild$' ||
    fail "vigild not an executable owned by root"
[ "$(dpkg-deb -f "$deb" Package Version)" = "Package: vigild
Version: $version" ] || fail "control fields"
dpkg-deb -I "$deb" conffiles | grep -qx /etc/av/vigild.conf || fail "conffiles"
for s in postinst prerm postrm; do sh -n "dist/deb/$s" || fail "$s does not parse"; done

unit="$root/lib/systemd/system/vigild.service"
# Paths the unit names: the program, and the directories it may write.
exe=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
[ -x "$root$exe" ] || fail "ExecStart $exe not installed"
for dir in $(sed -n 's/^ReadWritePaths=//p' "$unit"); do
    case "$dir" in -*|/run) continue ;; esac  # optional, or made at boot
    [ -d "$root$dir" ] || fail "ReadWritePaths $dir not in the package"
done
# Paths the man page gives for what the package installs.
man="$root/usr/share/man/man8/vigild.8.gz"
mandoc -T lint -W style "$man" || fail "the man page does not render cleanly"
for f in /usr/sbin/vigild /etc/av/norvik.conf /etc/av/vigild.conf \
         /lib/systemd/system/vigild.service /usr/share/doc/vigild/examples; do
    zcat "$man" | grep -q "^\.I $f\$" || fail "$f not among the man page's FILES"
    [ -e "$root$f" ] || fail "$f named by the man page is not installed"
done

# The installed program runs: -h is no option, so it prints its usage, exit 1.
status=0
"$root$exe" -h 2> "$work/usage" || status=$?
[ "$status" = 1 ] && grep -q '^usage: vigild \[-dfke\]' "$work/usage" ||
    fail "vigild -h: status $status, $(cat "$work/usage")"

# systemd checks the unit offline, with ExecStart pointing into the root and
# the man page found there (its Documentation= is checked with man).
mkdir "$work/unit"
sed "s|^ExecStart=$exe|ExecStart=$root$exe|" "$unit" > "$work/unit/vigild.service"
# It only warns about unknown keys and bad values, so any output fails too.
MANPATH="$root/usr/share/man" systemd-analyze verify "$work/unit/vigild.service" \
    > "$work/verify" 2>&1 && [ ! -s "$work/verify" ] ||
    fail "systemd-analyze verify: $(cat "$work/verify")"
# Exposure on systemd's scale of 0 to 100 (shown as 0.0 to 10.0).
systemd-analyze security --offline=true --threshold=30 "$work/unit/vigild.service" \
    > "$work/security" || fail "systemd-analyze security: $(tail -1 "$work/security")"
tail -1 "$work/security"
echo "package check: $deb passed"
