// with_slapd [--tls] [--sasl] -- COMMAND [ARGS...]
// Starts a private slapd with the sample data, runs the command with the
// server's address in the environment, then stops the server and removes its
// files.  Exits with the command's status.  With --tls the server also listens
// for ldaps, with certificates it makes (TAVLDAP_TEST_LDAPS_PORT, TAVLDAP_TEST_TLS_DIR).
// With --sasl it checks Cyrus SASL mechanisms against the entries' passwords
// (uid=userN answers to the SASL user name userN, password passN).
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sasl_plugins.h"
#include "slapd_server.h"

int main(int argc, char **argv) {
  tavtest::SlapdOptions opts;
  int i = 1;
  for (; i < argc && strcmp(argv[i], "--") != 0; ++i) {
    if (strcmp(argv[i], "--tls") == 0) opts.tls = true;
    if (strcmp(argv[i], "--sasl") == 0) opts.global_config = tavtest::sasl_slapd_options().global_config;
  }
  if (i + 1 >= argc) {
    fprintf(stderr, "usage: with_slapd [--tls] [--sasl] -- COMMAND [ARGS...]\n");
    return 2;
  }
  tavtest::SlapdServer slapd(opts);
  std::string error;
  if (!slapd.start(&error)) {
    fprintf(stderr, "with_slapd: %s\n", error.c_str());
    return 1;
  }
  setenv("TAVLDAP_TEST_URL", slapd.url().c_str(), 1);
  setenv("TAVLDAP_TEST_HOST", "127.0.0.1", 1);
  setenv("TAVLDAP_TEST_PORT", std::to_string(slapd.port()).c_str(), 1);
  setenv("TAVLDAP_TEST_LDAPI", slapd.ldapi_path().c_str(), 1);
  setenv("TAVLDAP_TEST_BINDDN", tavtest::SlapdServer::kRootDn, 1);
  setenv("TAVLDAP_TEST_BINDPW", tavtest::SlapdServer::kRootPw, 1);
  setenv("TAVLDAP_TEST_BASE", tavtest::SlapdServer::kSuffix, 1);
  if (opts.tls) {
    setenv("TAVLDAP_TEST_LDAPS_PORT", std::to_string(slapd.tls_port()).c_str(), 1);
    setenv("TAVLDAP_TEST_TLS_DIR", slapd.tls_file("").c_str(), 1);
  }
  pid_t pid = fork();
  if (pid == 0) {
    execvp(argv[i + 1], argv + i + 1);
    perror(argv[i + 1]);
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  slapd.stop();
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
