#!/usr/bin/env bash
# Runs inside with_slapd, which exports TAVLDAP_TEST_URL, TAVLDAP_TEST_HOST,
# TAVLDAP_TEST_PORT, TAVLDAP_TEST_BINDDN, TAVLDAP_TEST_BINDPW and
# TAVLDAP_TEST_BASE for the private server it started (with sample data), and
# with --tls TAVLDAP_TEST_LDAPS_PORT and TAVLDAP_TEST_TLS_DIR (its certificates).
# A short scripted session with tavldap: add, search, modify, rename, search
# again, delete; each step shows its command and its exit status.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
client="${TAVLDAP_CLIENT:-$root/build/bin/tavldap}"
base="$TAVLDAP_TEST_BASE"
people="ou=People,$base"
conn=(-H "$TAVLDAP_TEST_URL" -D "$TAVLDAP_TEST_BINDDN" -w "$TAVLDAP_TEST_BINDPW")

step() {
  echo
  echo "== $1"
}
# Runs the client, showing the command (password masked) and its exit status.
run() {
  local shown=("$@") i
  for i in "${!shown[@]}"; do
    if [[ "${shown[$i]}" == "-w" ]]; then shown[$((i + 1))]="***"; fi
  done
  printf '$ tavldap'
  for i in "${shown[@]}"; do
    if [[ "$i" =~ ^[][A-Za-z0-9_./:=,@+*-]+$ ]]; then printf ' %s' "$i"; else printf " '%s'" "$i"; fi
  done
  echo
  local rc=0
  "$client" "$@" || rc=$?
  echo "(exit status $rc)"
}

echo "== private slapd listening at $TAVLDAP_TEST_URL"
step "the library, loaded with dlopen"
"$client" info | sed -n 1,3p

step "add: a new person, with a photo whose bytes include zeros (base64 in LDIF)"
run add "${conn[@]}" <<EOF
dn: cn=Demo Person,$people
objectClass: inetOrgPerson
cn: Demo Person
sn: Person
mail: demo@example.com
jpegPhoto:: /9j/AAEAAgAD/9k=
description: added by the tavldap demo
EOF

step "search: the new entry as LDIF (the photo comes back in base64)"
run search "${conn[@]}" -b "$people" -s one "(cn=Demo*)"

step "modify: add a phone number, replace the mail, remove the description"
run modify "${conn[@]}" <<EOF
dn: cn=Demo Person,$people
changetype: modify
add: telephoneNumber
telephoneNumber: +1 555 0100
-
replace: mail
mail: demo.person@example.com
-
delete: description
-
EOF

step "modrdn: rename to cn=Renamed Person, deleting the old RDN value"
run modrdn "${conn[@]}" <<EOF
dn: cn=Demo Person,$people
changetype: modrdn
newrdn: cn=Renamed Person
deleteoldrdn: 1
EOF

step "search again: the renamed entry with its changes"
run search "${conn[@]}" -b "$people" -s one "(sn=Person)" cn mail telephoneNumber description

step "delete"
run delete "${conn[@]}" "cn=Renamed Person,$people"

step "search once more: nothing left"
run search "${conn[@]}" -b "$people" -s one "(sn=Person)"

step "errors come back as LDAP result codes: deleting it again, then malformed LDIF"
run delete "${conn[@]}" "cn=Renamed Person,$people"
run add "${conn[@]}" <<EOF
dn: cn=Broken,$people
changetype: rename
EOF

if [ -n "${TAVLDAP_TEST_LDAPS_PORT:-}" ]; then
  # The SSL entry points called directly, as a program does: a key database, the environment, a session.
  step "ldaps: a key database made with tavkeydb, a session through the library's SSL entry points"
  tls="$TAVLDAP_TEST_TLS_DIR"
  keys=$(mktemp -d)
  trap 'rm -rf "$keys"' EXIT
  keydb="$root/build/bin/tavkeydb"
  kdb="$keys/client.kdb"
  echo "\$ tavkeydb create client.kdb -pw *** -stash"
  "$keydb" create "$kdb" -pw "demo-$RANDOM-$RANDOM" -stash
  echo "\$ tavkeydb add-ca client.kdb -stashed -label ca -cert ca.pem"
  "$keydb" add-ca "$kdb" -stashed -label ca -cert "$tls/ca.pem"
  echo "\$ tavkeydb import client.kdb -stashed -label demo -cert client.pem -key client.key"
  "$keydb" import "$kdb" -stashed -label demo -cert "$tls/client.pem" -key "$tls/client.key"
  echo "\$ tavkeydb list client.kdb -stashed"
  "$keydb" list "$kdb" -stashed
  echo "\$ ldaps_demo 127.0.0.1 $TAVLDAP_TEST_LDAPS_PORT client.kdb demo $people"
  rc=0
  TAVLIB_LOCAL_INSTALL_MODE=1 "$root/build/bin/ldaps_demo" 127.0.0.1 "$TAVLDAP_TEST_LDAPS_PORT" "$kdb" demo \
    "$people" || rc=$?
  echo "(exit status $rc)"
fi
