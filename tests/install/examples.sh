#!/usr/bin/env bash
# examples.sh DIR...
# Runs the examples built in each DIR against the private slapd that
# `with_slapd --tls --sasl` started (TAVLDAP_TEST_* in the environment), and
# checks what each prints.  TAVKEYDB names the installed key-database tool.
# Whatever else an example needs (the toolkit, the code-set tables,
# krvldap.conf) comes from the caller's environment or the built-in defaults.
set -euo pipefail
people="ou=People,$TAVLDAP_TEST_BASE"
tls="$TAVLDAP_TEST_TLS_DIR"

# A client key database as a user makes one: the server's CA, the client's
# certificate and key, the password in a stash file.
keys=$(mktemp -d)
trap 'rm -rf "$keys"' EXIT
kdb="$keys/client.kdb"
"$TAVKEYDB" create "$kdb" -pw "pw-$RANDOM-$RANDOM" -stash >/dev/null
"$TAVKEYDB" add-ca "$kdb" -stashed -label ca -cert "$tls/ca.pem" >/dev/null
"$TAVKEYDB" import "$kdb" -stashed -label client -cert "$tls/client.pem" -key "$tls/client.key" >/dev/null

failures=0
# expect DIR EXAMPLE PATTERN ARGS...: the example exits 0 and prints a line
# matching PATTERN (an extended regular expression).
expect() {
  local dir=$1 example=$2 pattern=$3 out rc=0
  shift 3
  out=$("$dir/$example" "$@" 2>&1) || rc=$?
  if [ "$rc" -ne 0 ] || ! grep -qE "$pattern" <<<"$out"; then
    echo "FAILED: $dir/$example (exit $rc), expected /$pattern/ in:"
    sed 's/^/    /' <<<"$out"
    failures=$((failures + 1))
  else
    echo "ok: $example: $(grep -E "$pattern" <<<"$out" | head -1)"
  fi
}

for dir in "$@"; do
  echo "-- $dir"
  expect "$dir" search_dlopen '^dn: uid=user1,ou=People,dc=example,dc=com$' \
    "$TAVLDAP_TEST_URL" "$people" '(uid=user1)'
  expect "$dir" paged_search '^8 entries in 3 pages$' "$TAVLDAP_TEST_URL" "$TAVLDAP_TEST_BASE" 3
  expect "$dir" persistent_search '^the server ended the search: Success \(0\)$' "$TAVLDAP_TEST_URL" "$people" 5
  expect "$dir" ldaps_search '^5 entries$' 127.0.0.1 "$TAVLDAP_TEST_LDAPS_PORT" "$kdb" client "$people"
  expect "$dir" starttls_compare "^uid=user1,$people mail user1@example.com: true\$" "$TAVLDAP_TEST_URL" "$kdb" \
    "uid=user1,$people" pass1 "uid=user1,$people" mail user1@example.com
  expect "$dir" scram_bind '^modify uid=user2,.* as that identity: Success \(0\)$' \
    "$TAVLDAP_TEST_URL" user2 pass2 "uid=user2,$people"
  expect "$dir" latin1_xlate 'found by a Latin-1 filter: yes; surname read back in Latin-1: yes' \
    "$TAVLDAP_TEST_URL" "$TAVLDAP_TEST_BINDDN" "$TAVLDAP_TEST_BINDPW" "$people"
done
exit $((failures > 0))
