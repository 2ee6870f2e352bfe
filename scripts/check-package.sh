#!/usr/bin/env bash
# Builds the Debian package from a clean shared release build (the `package` preset), unpacks it
# into a scratch root and checks it: its metadata and dependencies, every file it must hold and
# nothing of the build tree, qeldns and qel-httpdns-server start from the root with the packaged
# library, and examples/minimal builds against the root with find_package.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "check-package: $*" >&2; exit 1; }

build=build/package
rm -rf "$build"
cmake --preset package -DQEL_WERROR=ON >/dev/null
cmake --build --preset package -j2 --target package >"$work/build.log" 2>&1 ||
    { cat "$work/build.log" >&2; fail "the package build failed"; }
debs=("$build"/qel-httpdns-sdk_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "expected one package in $build"
deb=${debs[0]}

for field in Package Version Architecture Maintainer Description; do
    [ -n "$(dpkg-deb -f "$deb" "$field")" ] || fail "the control file has no $field"
done
depends=$(dpkg-deb -f "$deb" Depends)
for library in libcurl4 libssl3 libsqlite3-0 libc-ares2 libmicrohttpd12; do
    grep -q "$library" <<<"$depends" || fail "Depends lacks $library: $depends"
done

root=$work/root
dpkg-deb -x "$deb" "$root"
libdir=$(dirname "$(find "$root" -name libQelHttpDnsSDK.so.1)")
[ -d "$libdir" ] || fail "libQelHttpDnsSDK.so.1 is not in the package"
for file in usr/bin/qeldns usr/bin/qel-httpdns-server usr/share/man/man1/qeldns.1 \
            usr/share/man/man1/qel-httpdns-server.1 usr/sbin/qel-httpdnsd \
            usr/share/man/man8/qel-httpdnsd.8 usr/lib/systemd/system/qel-httpdnsd.service \
            etc/qel-httpdns/qel-httpdnsd.conf \
            usr/include/QelHttpDnsSDK/QelHttpDnsSDK.h; do
    [ -e "$root/$file" ] || fail "$file is not in the package"
done
for file in libQelHttpDnsSDK.so libnss_qelhttpdns.so.2 pkgconfig/QelHttpDnsSDK.pc \
            cmake/QelHttpDnsSDK/QelHttpDnsSDKConfig.cmake; do
    [ -e "$libdir/$file" ] || fail "${libdir#"$root"/}/$file is not in the package"
done
programs=$(ls "$root/usr/bin" | tr '\n' ' ')
[ "$programs" = "qel-httpdns-server qeldns " ] || fail "unexpected programs: $programs"
"$root/usr/sbin/qel-httpdnsd" --help >/dev/null 2>&1 || true  # checked below with the library

# Every man page renders without a warning (preconv reads their UTF-8).
for page in man1/qeldns.1 man1/qel-httpdns-server.1 man8/qel-httpdnsd.8 man8/nss-qelhttpdns.8; do
    warnings=$(groff -k -man -Tutf8 -ww -z "$root/usr/share/man/$page" 2>&1)
    [ -z "$warnings" ] || fail "man page $page: $warnings"
done
grep -qx /etc/qel-httpdns/qel-httpdnsd.conf <<<"$(dpkg-deb -I "$deb" conffiles)" ||
    fail "the daemon's configuration is not a conffile"

# The maintainer scripts put the module before "dns" once, and take it off again.
mkdir -p "$work/nss/etc"
for hosts in "files dns" "files mdns4_minimal [NOTFOUND=return] dns myhostname" "files"; do
    printf 'passwd: files\nhosts: %s\n' "$hosts" >"$work/nss/etc/nsswitch.conf"
    dpkg-deb -e "$deb" "$work/control"
    for step in "postinst configure" "postinst configure" "postrm remove"; do
        DPKG_ROOT=$work/nss sh "$work/control/${step%% *}" "${step#* }"
        line=$(sed -n 's/^hosts: //p' "$work/nss/etc/nsswitch.conf")
        case "$step" in
            postinst*) [ "$line" = "$(printf '%s' "$hosts" | sed -E 's/(^| )dns( |$)/\1qelhttpdns dns\2/;t;s/$/ qelhttpdns/')" ] ||
                fail "$step on \"$hosts\" left \"$line\"" ;;
            postrm*) [ "$line" = "$hosts" ] || fail "$step on \"$hosts\" left \"$line\"" ;;
        esac
    done
    rm -rf "$work/control"
done

# The packaged programs run with the packaged library (no RPATH points back to the build tree).
# Outputs are read whole before grep -q looks at them: under pipefail, a writer that outlives
# grep's early exit dies of SIGPIPE and fails the check at random.
export LD_LIBRARY_PATH=$libdir
grep -q "$libdir/libQelHttpDnsSDK.so.1" <<<"$(ldd "$root/usr/bin/qeldns")" ||
    fail "qeldns does not load the packaged library"
grep -q '^usage: qeldns' <<<"$("$root/usr/bin/qeldns" --help)" || fail "qeldns --help failed"
grep -q '^Usage: qel-httpdns-server' <<<"$("$root/usr/bin/qel-httpdns-server" --help)" ||
    fail "qel-httpdns-server --help failed"
grep -q '^Usage: qel-httpdnsd' <<<"$("$root/usr/sbin/qel-httpdnsd" --help)" ||
    fail "qel-httpdnsd --help failed"

# An application builds against the unpacked root alone; without arguments it prints its usage.
cmake -S examples/minimal -B "$work/minimal" -DCMAKE_PREFIX_PATH="$root/usr" \
      -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
cmake --build "$work/minimal" -j2 >/dev/null
status=0
"$work/minimal/minimal" >/dev/null 2>&1 || status=$?
[ "$status" -eq 2 ] || fail "the example built against the package did not start (exit $status)"
echo "check-package: $deb: $(dpkg-deb -c "$deb" | grep -vc '/$') files, installs and runs"
