#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, if any
# is missing.  Safe to run again.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev binutils llvm
  libgtest-dev libgmock-dev libbenchmark-dev
  slapd ldap-utils libldap-dev
  libssl-dev openssl
  libsasl2-dev libsasl2-modules libsasl2-modules-gssapi-mit krb5-kdc krb5-admin-server
  dnsmasq-base iproute2 util-linux
  python3
  pkgconf dpkg-dev man-db
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
