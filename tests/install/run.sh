#!/usr/bin/env bash
# run.sh BUILD_DIR
# The library as a user receives it, from the install rules of BUILD_DIR:
#  1. `cmake --install` into a temporary prefix; the files a user needs are there
#     and the installed client runs;
#  2. every function tavldap_full.h declares links from the installed archive,
#     from C and from C++;
#  3. the installed examples build against the installed files only, with
#     pkg-config (their Makefile) and with find_package (their CMakeLists.txt);
#  4. both builds run against private servers: slapd with TLS and a client
#     certificate and with SASL SCRAM (with_slapd), and for server location
#     dnsmasq in private namespaces; the prefix is found through the
#     environment (TISDIR, KRVLDAP_CONF, TAVLIB_LOCAL_INSTALL_MODE);
#  5. the Debian package (cpack) holds the system layout and installs with
#     apt-get into an overlay of this machine's root in private mount and
#     network namespaces (nothing of the machine is written, nothing leaves
#     it), where `tavldap --help` runs and the examples, built there with
#     pkg-config, run on the built-in defaults alone.
# Runs as root (namespaces, the overlay).  Prints each stage's time.
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
with_slapd="$build/bin/with_slapd"
[ "$(id -u)" -eq 0 ] || {
  echo "run.sh needs root (private namespaces, an overlay mount)"
  exit 1
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
status=0
start=$SECONDS
stage() { echo "== [$((SECONDS - start))s] $*"; }
fail() {
  echo "FAILED: $*"
  status=1
}

stage "cmake --install into a temporary prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/tavldap bin/tavkeydb lib/libtav8ldap_64.so lib/libtav8ldap_64_full.a lib/libtavsasl.so \
  lib/64/libtav7ssl_64.so include/tavldap.h include/tavldap_types.h include/tavldap_full.h include/tavldap_compat.h \
  include/tavldap_plugin.h include/tav8ldap_64_compat/ldap.h include/tav8ldap_64_compat/lber.h \
  lib/pkgconfig/tav8ldap_64.pc lib/pkgconfig/tav8ldap_64_full.pc lib/pkgconfig/tav8ldap_64_compat.pc \
  lib/cmake/Tav8Ldap/Tav8LdapConfig.cmake lib/cmake/Tav8Ldap/Tav8LdapConfigVersion.cmake share/man/man1/tavldap.1 \
  share/tav8ldap_64/codeset/aliases share/tav8ldap_64/codeset/ISO88591 share/tav8ldap_64/etc/krvldap.conf \
  share/doc/libtav8ldap_64/docs/guide.md \
  share/doc/libtav8ldap_64/examples/Makefile share/doc/libtav8ldap_64/examples/CMakeLists.txt; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
grep -qx "plugin sasl SCRAM-SHA-256 $prefix/lib/libtavsasl.so" "$prefix/share/tav8ldap_64/etc/krvldap.conf" ||
  fail "krvldap.conf does not name the installed plug-in"
grep -q '^usage: tavldap' <<<"$("$prefix/bin/tavldap" --help)" || fail "tavldap --help"
grep -qx "loaded from: $prefix/lib/libtav8ldap_64.so" <<<"$("$prefix/bin/tavldap" info)" ||
  fail "the installed tavldap does not load the installed library"
warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$prefix/share/man/man1/tavldap.1" 2>&1 >/dev/null || true)
[ -z "$warnings" ] || fail "man page: $warnings"

stage "every function of tavldap_full.h links from the installed archive"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# Function declarations start in the first column; records and comments do not.
names=$(sed -nE '/^(typedef|#|\/\*| )/d; s/^[^(]*[ *]([a-z_][a-z0-9_]*)\(.*/\1/p' "$prefix/include/tavldap_full.h")
count=$(wc -w <<<"$names")
[ "$count" -ge 140 ] || fail "only $count functions found in tavldap_full.h"
{
  echo '#include <stdio.h>'
  echo '#include "tavldap_full.h"'
  echo 'typedef void (*any_fn)(void);'
  echo 'static any_fn const all[] = {'
  for n in $names; do echo "  (any_fn)$n,"; done
  echo '};'
  echo 'int main(void) { printf("%d\n", (int)(sizeof all / sizeof all[0])); return 0; }'
} >"$work/all.c"
cp "$work/all.c" "$work/all.cpp"
# shellcheck disable=SC2046
cc -std=c99 -pedantic -Wall -Wextra -Werror $(pkg-config --cflags tav8ldap_64_full) -o "$work/all_c" "$work/all.c" \
  $(pkg-config --libs tav8ldap_64_full) || fail "linking every function from C"
# shellcheck disable=SC2046
c++ -std=c++17 -Wall -Wextra -Werror $(pkg-config --cflags tav8ldap_64_full) -o "$work/all_cpp" "$work/all.cpp" \
  $(pkg-config --libs tav8ldap_64_full) || fail "linking every function from C++"
[ "$("$work/all_c")" = "$count" ] || fail "the C program does not hold $count functions"
echo "ok: $count functions"

stage "the examples, with pkg-config and with find_package"
cp -r "$prefix/share/doc/libtav8ldap_64/examples" "$work/make"
make -s -C "$work/make" CFLAGS="-std=c99 -O2 -Wall -Wextra -Werror" >/dev/null || fail "examples: make"
cmake -S "$prefix/share/doc/libtav8ldap_64/examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >/dev/null || fail "examples: cmake"
cmake --build "$work/cmake" >/dev/null || fail "examples: cmake --build"

stage "the examples against private servers, the prefix named by the environment"
TISDIR="$prefix/share/tav8ldap_64" KRVLDAP_CONF="$prefix/share/tav8ldap_64/etc" TAVLIB_LOCAL_INSTALL_MODE=1 \
  LD_LIBRARY_PATH="$prefix/lib/64" TAVKEYDB="$prefix/bin/tavkeydb" \
  "$with_slapd" --tls --sasl -- bash "$here/examples.sh" "$work/make" "$work/cmake" || fail "examples"
unshare --net --mount --propagation private -- bash "$here/locate.sh" "$with_slapd" "$work" "$work/make" "$work/cmake" ||
  fail "locate_servers"

stage "programs written for the common C API: built for OpenLDAP and for us, the same output"
mkdir "$work/common_api"
for src in "$here"/common_api/*.c; do
  name=$(basename "$src" .c)
  cc -std=c99 -Wall -Wextra -pedantic -Werror -o "$work/common_api/ol_$name" "$src" -lldap -llber ||
    fail "$name with OpenLDAP"
  # Only the include lines change.
  sed -e 's|^#include <ldap.h>$|#include <tavldap_full.h>|' -e '/^#include <lber.h>$/d' "$src" \
    >"$work/common_api/$name.c"
  # shellcheck disable=SC2046
  cc -std=c99 -Wall -Wextra -pedantic -Werror $(pkg-config --cflags tav8ldap_64_full) -o "$work/common_api/tav_$name" \
    "$work/common_api/$name.c" $(pkg-config --libs tav8ldap_64_full) || fail "$name with tavldap_full.h"
  # And unchanged, through the <ldap.h> of the compat module.
  # shellcheck disable=SC2046
  cc -std=c99 -Wall -Wextra -pedantic -Werror $(pkg-config --cflags tav8ldap_64_compat) \
    -o "$work/common_api/cmp_$name" "$src" $(pkg-config --libs tav8ldap_64_compat) ||
    fail "$name unchanged with tav8ldap_64_compat"
done
"$with_slapd" -- bash "$here/common_api/compare.sh" "$work/common_api" || fail "common C API programs"

stage "the Debian package"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log"
  fail "cpack"
}
deb=$(echo "$work"/deb/*.deb)
contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for f in ./usr/bin/tavldap ./usr/bin/tavkeydb ./usr/lib/libtav8ldap_64.so ./usr/lib/libtav8ldap_64_full.a \
  ./usr/lib/libtavsasl.so ./usr/lib/64/libtav7ssl_64.so ./usr/include/tavldap_full.h \
  ./usr/lib/pkgconfig/tav8ldap_64.pc ./usr/lib/cmake/Tav8Ldap/Tav8LdapConfig.cmake \
  ./opt/KRV/ldap/V6.2/codeset/ISO88591 ./opt/KRV/ldap/V6.2/etc/krvldap.conf ./usr/share/man/man1/tavldap.1; do
  grep -qx -- "$f" <<<"$contents" || fail "not in the package: $f"
done
dpkg-deb -I "$deb" conffiles | grep -qx /opt/KRV/ldap/V6.2/etc/krvldap.conf || fail "krvldap.conf is not a conffile"
unshare --mount --net --propagation private -- bash "$here/package.sh" "$deb" "$work" "$with_slapd" ||
  fail "the installed package"

stage "done"
exit $status
