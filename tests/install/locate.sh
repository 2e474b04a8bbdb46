#!/usr/bin/env bash
# locate.sh WITH_SLAPD WORKDIR DIR...
# Runs inside private network and mount namespaces (unshare --net --mount, as
# root): loopback up, a resolv.conf of our own naming 127.0.0.1, a private
# slapd, and dnsmasq answering for example.com with the slapd's SRV record.
# Then each DIR's locate_servers must find the server by DNS and read from it.
set -euo pipefail
if [ "${1:-}" = "--inside" ]; then
  # Second stage, inside with_slapd: the server's port is known now.
  work=$2
  shift 2
  cat >"$work/dnsmasq.conf" <<CONF
local=/example.com/
srv-host=_ldap._tcp.example.com,ldap1.example.com,$TAVLDAP_TEST_PORT,10,60
txt-record=ldap1.example.com,"service:ldap://ldap1.example.com:$TAVLDAP_TEST_PORT/dc=example,dc=com"
host-record=ldap1.example.com,127.0.0.1
CONF
  # dnsmasq returns once its sockets are bound (its parent waits for the
  # daemon's report), so no wait is needed before the first query.
  dnsmasq --user=root --port=53 --listen-address=127.0.0.1 --bind-interfaces --no-resolv --no-hosts \
    --pid-file="$work/dnsmasq.pid" --conf-file="$work/dnsmasq.conf"
  trap 'kill "$(cat "$work/dnsmasq.pid")"' EXIT
  status=0
  for dir in "$@"; do
    rc=0
    out=$("$dir/locate_servers" example.com "$TAVLDAP_TEST_BASE" 2>&1) || rc=$?
    if [ "$rc" -eq 0 ] &&
      grep -qx "ldap1.example.com:$TAVLDAP_TEST_PORT priority 10 weight 60 suffix dc=example,dc=com" <<<"$out" &&
      grep -qx "read dc=example,dc=com from ldap1.example.com:$TAVLDAP_TEST_PORT" <<<"$out"; then
      echo "ok: locate_servers ($dir)"
    else
      echo "FAILED: $dir/locate_servers (exit $rc):"
      sed 's/^/    /' <<<"$out"
      status=1
    fi
  done
  exit $status
fi
with_slapd=$1 work=$2
shift 2
ip link set lo up
echo "nameserver 127.0.0.1" >"$work/resolv.conf"
mount --bind "$work/resolv.conf" /etc/resolv.conf
exec "$with_slapd" -- bash "$0" --inside "$work" "$@"
