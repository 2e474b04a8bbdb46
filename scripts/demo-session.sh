#!/usr/bin/env bash
# Runs inside with_slapd, which exports TAVLDAP_TEST_URL, TAVLDAP_TEST_HOST,
# TAVLDAP_TEST_PORT, TAVLDAP_TEST_BINDDN and TAVLDAP_TEST_BINDPW for the
# private server it started.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
client="$root/build/bin/tavldap"
echo "== private slapd listening at $TAVLDAP_TEST_URL"
echo "== tavldap info (the library, loaded with dlopen)"
"$client" info
echo "== tavldap session (tav_ldap_init to the private slapd, then tav_ldap_unbind)"
"$client" session "$TAVLDAP_TEST_URL"
