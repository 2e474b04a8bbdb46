// Constructors and parsers for particular controls and extended-operation
// values.  Lists, encoding and decoding of controls are in ldap-int.h.
#ifndef TAV_LDAP_CONTROLS_H
#define TAV_LDAP_CONTROLS_H

#include "ldap-int.h"

extern "C" {
TAV_INTERNAL int ldap_create_proxyauth_control(LDAP *ld, const char *dn, int critical, LDAPControl **out);
TAV_INTERNAL int ldap_proxy_dn_prefix(char **out, const char *dn);
TAV_INTERNAL int ldap_add_proxyauth_control_to_list(LDAPControl ***list, const char *dn);
TAV_INTERNAL int ldap_create_page_control(LDAP *ld, unsigned int pagesize, const struct berval *cookie, char critical,
                                          LDAPControl **out);
TAV_INTERNAL int ldap_parse_page_control(LDAP *ld, LDAPControl **ctrls, unsigned int *size, struct berval **cookie);
TAV_INTERNAL int ldap_create_sort_control(LDAP *ld, LDAPsortkey **keys, char critical, LDAPControl **out);
TAV_INTERNAL int ldap_parse_sort_control(LDAP *ld, LDAPControl **ctrls, unsigned long *result, char **attribute);
TAV_INTERNAL int ldap_parse_entrychange_control(LDAP *ld, LDAPControl **ctrls, int *changetype, char **prevdn,
                                                int *chgnumpresent, long *chgnum);
TAV_INTERNAL int ldap_create_persistentsearch_control(LDAP *ld, int changetypes, int changesonly, int return_echg_ctls,
                                                      char critical, LDAPControl **out);
TAV_INTERNAL int ldap_create_account_status_request(const char *dn, struct berval **out);
TAV_INTERNAL int ldap_create_chaining_audit_control(char **list, const char *value, int critical, LDAPControl **out);
TAV_INTERNAL int ldap_create_group_control_from_list(char **groups, int normalized, LDAPControl **out);
TAV_INTERNAL int ldap_create_group_control(const struct berval *value, LDAPControl **out);
TAV_INTERNAL int ldap_create_oid25_control(LDAPControl **out);
TAV_INTERNAL int ldap_create_oid26_control(LDAPControl **out);
TAV_INTERNAL int ldap_create_oid33_control(int critical, LDAPControl **out);
TAV_INTERNAL int ldap_create_transaction_control(const struct berval *txnid, LDAPControl **out);
TAV_INTERNAL int ldap_create_end_transaction_request(const struct berval *txnid, int commit, struct berval **out);
TAV_INTERNAL int ldap_create_prepare_tranaction_request(const struct berval *txnid, struct berval **out);
TAV_INTERNAL int ldap_create_group_eval_request(const char *dn, char **groups, struct berval **out);
TAV_INTERNAL int ldap_create_limit_num_values_control(LDAP *ld, int per_attribute, int total, int flag, int critical,
                                                      LDAPControl **out);
TAV_INTERNAL int ldap_parse_limit_num_values_response(LDAP *ld, LDAPControl **ctrls, char **dn,
                                                      LDAPLimitNumValues ***attributes);
TAV_INTERNAL void ldap_free_limit_num_values(LDAPLimitNumValues **list);
TAV_INTERNAL int ldap_create_effective_pwdpolicy_request(const char *dn, struct berval **out);
TAV_INTERNAL int ldap_parse_effective_pwdpolicy_response(const char *oid, const struct berval *value,
                                                         LDAPPolicyItem ***items, char ***trailing);
TAV_INTERNAL void ldap_free_effective_pwdpolicy(LDAPPolicyItem **items, char **trailing);
TAV_INTERNAL int ldap_create_assertion_control(LDAP *ld, const char *filter, int critical, LDAPControl **out);
TAV_INTERNAL int ldap_create_vlv_control(LDAP *ld, LDAPVLVInfo *info, LDAPControl **out);
TAV_INTERNAL int ldap_parse_vlv_control(LDAP *ld, LDAPControl **ctrls, unsigned long *target_pos,
                                        unsigned long *list_count, struct berval **context);
}

#endif
