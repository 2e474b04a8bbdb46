#!/usr/bin/env bash
# package.sh DEB WORKDIR WITH_SLAPD
# Runs inside private mount and network namespaces (unshare --mount --net, as
# root).  Mounts an overlay of this machine's root, so that what an
# installation writes lands in WORKDIR and vanishes with it, and installs the
# Debian package there with apt-get as a user would.  Inside: tavldap --help,
# and the examples built with pkg-config from the installed files and run
# against private servers with nothing in the environment pointing at the
# library: the toolkit, the code-set tables and krvldap.conf must be where the
# built-in defaults look.
set -euo pipefail
deb=$1 work=$2 with_slapd=$3
here=$(cd "$(dirname "$0")" && pwd)
root="$work/root"
mkdir -p "$work/upper" "$work/overlay-work" "$root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/overlay-work" "$root"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
ip link set lo up
cp "$deb" "$root/tmp/package.deb"
# Each variable the examples could be pointed with is cleared.
exec env -u TISDIR -u KRVLDAP_CONF -u TAVLIB_LOCAL_INSTALL_MODE -u LD_LIBRARY_PATH -u PKG_CONFIG_PATH \
  -u OLX_LDAP_HOME -u BINDIR DEBIAN_FRONTEND=noninteractive \
  chroot "$root" /bin/bash -euo pipefail -c '
    with_slapd=$1 here=$2
    # The manual-page index is not this test'"'"'s business (and slow).
    rm -f /var/lib/man-db/auto-update
    apt-get install -y -q /tmp/package.deb >/tmp/apt.log 2>&1 || { cat /tmp/apt.log; exit 1; }
    echo "ok: apt-get install ./$(basename /tmp/package.deb)"
    check() {  # check WHAT PATTERN COMMAND...: the command succeeds and prints a line matching PATTERN
      local what=$1 pattern=$2 out
      shift 2
      out=$("$@") && grep -qE "$pattern" <<<"$out" || { echo "FAILED: $what:"; echo "$out"; exit 1; }
      echo "ok: $what"
    }
    check "tavldap --help" "^usage: tavldap" tavldap --help
    check "tavldap loads /usr/lib/libtav8ldap_64.so" "^loaded from: /usr/lib/libtav8ldap_64.so$" tavldap info
    cp -r /usr/share/doc/libtav8ldap_64/examples /tmp/examples
    make -s -C /tmp/examples CFLAGS="-std=c99 -O2 -Wall -Wextra -Werror" >/dev/null
    TAVKEYDB=/usr/bin/tavkeydb "$with_slapd" --tls --sasl -- bash "$here/examples.sh" /tmp/examples
  ' package "$with_slapd" "$here"
