// Constructors and parsers for particular controls and extended-operation
// values.  Lists, encoding and decoding of controls are in ldap-int.h.
#ifndef TAV_LDAP_CONTROLS_H
#define TAV_LDAP_CONTROLS_H

#include "ldap-int.h"

#define LDAP_CONTROL_PROXYAUTH "2.16.840.1.113730.3.4.18"
#define LDAP_CONTROL_PAGEDRESULTS "1.2.840.113556.1.4.319"
#define LDAP_CONTROL_SORTREQUEST "1.2.840.113556.1.4.473"
#define LDAP_CONTROL_SORTRESPONSE "1.2.840.113556.1.4.474"
#define LDAP_CONTROL_ENTRYCHANGE "2.16.840.1.113730.3.4.7"
#define LDAP_CONTROL_PERSISTENTSEARCH "2.16.840.1.113730.3.4.3"
#define LDAP_CONTROL_CHAINING_AUDIT "1.3.18.0.2.10.22"
#define LDAP_CONTROL_GROUP "1.3.18.0.2.10.21"
#define LDAP_CONTROL_OID25 "1.3.18.0.2.10.25"
#define LDAP_CONTROL_OID26 "1.3.18.0.2.10.26"
#define LDAP_CONTROL_OID33 "1.3.18.0.2.10.33"
#define LDAP_CONTROL_TRANSACTION "1.3.18.0.2.10.5"
#define LDAP_CONTROL_LIMIT_NUM_VALUES "1.3.18.0.2.10.30"
#define LDAP_CONTROL_ASSERTION "1.3.6.1.1.12"
#define LDAP_CONTROL_VLVREQUEST "2.16.840.1.113730.3.4.9"
#define LDAP_CONTROL_VLVRESPONSE "2.16.840.1.113730.3.4.10"
#define LDAP_CONTROL_PWDPOLICY "1.3.6.1.4.1.42.2.27.8.5.1"
#define LDAP_EXOP_EFFECTIVE_PWDPOLICY_RESPONSE "1.3.18.0.2.12.77"

// One attribute of a limit-number-of-values response: name and two counts.
typedef struct ldap_limit_num_values {
  char *lnv_attribute;
  int lnv_returned;
  int lnv_total;
} LDAPLimitNumValues;

// One named item of an effective-password-policy response with its values.
typedef struct ldap_policy_item {
  char *lpi_name;
  char **lpi_values;
} LDAPPolicyItem;

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
TAV_INTERNAL int ldap_create_persistentsearch_control(LDAP *ld, int changetypes, int changesonly,
                                                      int return_echg_ctls, char critical, LDAPControl **out);
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
