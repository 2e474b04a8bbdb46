// The client configuration file, the plug-in registry and parameter blocks.
// The configuration list and the registry live for the process and are
// guarded by the configuration lock.
#ifndef TAV_LDAP_PLUGIN_H
#define TAV_LDAP_PLUGIN_H

#include <cstdio>

#include "ldap-ssl.h"
#include "tav-visibility.h"
#include "tavldap_plugin.h"

// Longest configuration line, without its terminator.
#define LDAP_CONF_LINE_MAX 511
// Most words a plug-in's arguments are split into.
#define LDAP_PLUGIN_MAX_ARGS 64

// The words of a configuration line; also the key of a look-up (kind, type,
// name).  The strings point into the entry's line.
typedef struct ldap_conf_fields {
  char *kind;
  char *type;
  char *name;
  char *path;
  char *init_function;  // null: "ldap_plugin_init"
  char *args;
} ldap_conf_fields;

typedef struct ldap_conf_entry {
  struct ldap_conf_entry *next;
  struct ldap_conf_entry *prev;
  ldap_conf_fields *fields;  // &words
  ldap_conf_fields words;
  char line[LDAP_CONF_LINE_MAX + 1];
} ldap_conf_entry;

typedef struct ldap_conf_list {
  ldap_conf_entry *tail;
  ldap_conf_entry *head;
} ldap_conf_list;

typedef struct ldap_plugin_entry {
  struct ldap_plugin_entry *next;
  struct ldap_plugin_entry *prev;
  char *type;
  char *name;
  char *path;
  char *init_function;
  char *args;
  ldap_plugin_bind_fn bind_fn;
  ldap_plugin_init_fn init_fn;
  ldap_dl *library;  // the library init_fn came from
} ldap_plugin_entry;

struct ldap_pblock_pair {
  int id;
  void *value;
  struct ldap_pblock_pair *next;
};
// Plug-ins find the function table first in every block.
struct ldap_pblock {
  const struct tavldap_plugin_api *api;
  struct ldap_pblock_pair *head;
  struct ldap_pblock_pair *tail;
};

extern "C" {
// Guarded by the configuration lock.
TAV_INTERNAL extern ldap_conf_list ldap_conf_list_global;

TAV_INTERNAL char *ldap_locate_conf_file(void);
TAV_INTERNAL FILE *ldap_open_conf_file(void);
TAV_INTERNAL int ldap_read_conf_file(ldap_conf_list *list);
TAV_INTERNAL int ldap_process_conf_data(FILE *stream, ldap_conf_list *list);
TAV_INTERNAL int ldap_conf_parse_line(ldap_conf_entry *entry);
TAV_INTERNAL ldap_conf_entry *ldap_conf_find(ldap_conf_list *list, const ldap_conf_fields *key);
TAV_INTERNAL int ldap_conf_eval(const ldap_conf_entry *entry, const ldap_conf_fields *key);
// Frees the entries of a list and empties it.
TAV_INTERNAL void ldap_conf_list_free(ldap_conf_list *list);
// Test hook: forgets the process's configuration so the next reader reads
// the file again (the registry stays).
TAV_INTERNAL void ldap_conf_forget(void);

TAV_INTERNAL int ldap_plugin_load_and_init(ldap_plugin_info *info, int reg);
TAV_INTERNAL int ldap_load_plugin(const char *path);
TAV_INTERNAL ldap_plugin_entry *ldap_plugin_find(const ldap_plugin_info *key);
TAV_INTERNAL int ldap_plugin_is_loaded(const ldap_plugin_info *key);
TAV_INTERNAL int ldap_gpt_eval(const ldap_plugin_entry *entry, const ldap_plugin_info *key);
TAV_INTERNAL int ldap_plugin_add(ldap_plugin_entry *entry);
// The registered SASL plug-in of `mech`, loaded from the configuration when
// it is not registered yet: 0 with *entry, 12 (none configured), or the code
// of the configuration read or the load.
TAV_INTERNAL int ldap_plugin_for_sasl(const char *mech, ldap_plugin_entry **entry);

TAV_INTERNAL LDAP_PBLOCK *ldap_pblock_new(void);
TAV_INTERNAL int ldap_pblock_set(LDAP_PBLOCK *pb, int id, void *value);
TAV_INTERNAL int ldap_pblock_get(LDAP_PBLOCK *pb, int id, void **value);
TAV_INTERNAL void ldap_pblock_free(LDAP_PBLOCK *pb);
// The function table at the head of every block.
TAV_INTERNAL extern const struct tavldap_plugin_api ldap_plugin_api;
}

#endif
