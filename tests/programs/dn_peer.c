/* OpenLDAP's side of the DN comparison: reads one DN per line from standard
 * input and prints, for each, the results of libldap's ldap_explode_dn (with
 * and without types), ldap_explode_rdn (likewise) and ldap_dn2ufn, one line
 * each: "NULL", "ABORT" (libldap's own assertions stop some inputs, so every
 * call runs in a child process), or "OK" and each string as " :" and its bytes
 * in hex.  Links libldap, so it lives apart from everything that links ours. */
#define LDAP_DEPRECATED 1
#include <ldap.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static void put_string(const char *s) {
  fputs(" :", stdout);
  for (; *s != '\0'; ++s) printf("%02X", (unsigned char)*s);
}

static void put_list(char **list) {
  if (list == NULL) {
    fputs("NULL", stdout);
    return;
  }
  fputs("OK", stdout);
  for (char **p = list; *p != NULL; ++p) put_string(*p);
  ldap_value_free(list);
}

static void call(int which, const char *dn) {
  if (which < 2) {
    put_list(ldap_explode_dn(dn, which));
  } else if (which < 4) {
    put_list(ldap_explode_rdn(dn, which - 2));
  } else {
    char *ufn = ldap_dn2ufn(dn);
    fputs(ufn != NULL ? "OK" : "NULL", stdout);
    if (ufn != NULL) put_string(ufn);
    ldap_memfree(ufn);
  }
}

int main(void) {
  char *line = NULL;
  size_t cap = 0;
  ssize_t len;
  while ((len = getline(&line, &cap, stdin)) > 0) {
    if (line[len - 1] == '\n') line[len - 1] = '\0';
    for (int which = 0; which < 5; ++which) {
      fflush(stdout);
      pid_t pid = fork();
      if (pid < 0) return 2;
      if (pid == 0) {
        call(which, line);
        fflush(stdout);
        _exit(0);
      }
      int status = 0;
      if (waitpid(pid, &status, 0) != pid) return 2;
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fputs("ABORT", stdout);
      fputc('\n', stdout);
    }
  }
  free(line);
  return 0;
}
