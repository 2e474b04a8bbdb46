#!/usr/bin/env bash
# compare.sh DIR: runs each program of this folder as built in DIR: ol_NAME
# with OpenLDAP's libldap, tav_NAME with its include lines replaced by
# tavldap_full.h and cmp_NAME unchanged with the compat module's <ldap.h>,
# against the private slapd of `with_slapd` (TAVLDAP_TEST_* in the
# environment); all must succeed and print the same.
set -euo pipefail
dir=$1
people="ou=People,$TAVLDAP_TEST_BASE"
# OpenLDAP reads no ldap.conf or .ldaprc, so only the arguments count.
export LDAPNOINIT=1
failures=0
pair() {
  local name=$1 ol tav cmp rc1=0 rc2=0 rc3=0
  shift
  ol=$("$dir/ol_$name" "$@" 2>&1) || rc1=$?
  tav=$("$dir/tav_$name" "$@" 2>&1) || rc2=$?
  cmp=$("$dir/cmp_$name" "$@" 2>&1) || rc3=$?
  if [ "$rc1$rc2$rc3" != 000 ] || [ "$ol" != "$tav" ] || [ "$ol" != "$cmp" ] || [ "$(wc -l <<<"$ol")" -lt 3 ]; then
    echo "FAILED: $name (exit $rc1 with libldap, $rc2 with ours, $rc3 unchanged with ours)"
    diff <(echo "$ol") <(echo "$tav") | sed 's/^/    /' || true
    diff <(echo "$ol") <(echo "$cmp") | sed 's/^/    /' || true
    failures=$((failures + 1))
  else
    echo "ok: $name, $(wc -l <<<"$ol") lines alike"
  fi
}
pair search_walk "$TAVLDAP_TEST_URL" "$TAVLDAP_TEST_BINDDN" "$TAVLDAP_TEST_BINDPW" "$people" '(|(uid=user1)(uid=user2))'
pair async_search "$TAVLDAP_TEST_URL" "$TAVLDAP_TEST_BASE" '(objectClass=*)'
pair update "$TAVLDAP_TEST_URL" "$TAVLDAP_TEST_BINDDN" "$TAVLDAP_TEST_BINDPW" "$people"
pair paged "$TAVLDAP_TEST_URL" "$TAVLDAP_TEST_BASE" 3
exit $((failures > 0))
