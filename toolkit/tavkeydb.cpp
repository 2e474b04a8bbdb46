// tavkeydb: sets up a key database and its stash file from PEM files, so SSL
// can be configured without other tools.
//
//   tavkeydb create  KDB -pw PASSWORD [-stash]
//   tavkeydb stash   KDB -pw PASSWORD
//   tavkeydb add-ca  KDB (-pw PASSWORD | -stashed) -label LABEL -cert CA.pem
//   tavkeydb import  KDB (-pw PASSWORD | -stashed) -label LABEL -cert CERT.pem -key KEY.pem [-key-pw PW]
//   tavkeydb list    KDB (-pw PASSWORD | -stashed)
#include <openssl/pem.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "keydb.h"
#include "tav_toolkit.h"

namespace {

int usage() {
  fprintf(stderr,
          "usage: tavkeydb create KDB -pw PASSWORD [-stash]\n"
          "       tavkeydb stash KDB -pw PASSWORD\n"
          "       tavkeydb add-ca KDB (-pw PASSWORD | -stashed) -label LABEL -cert CA.pem\n"
          "       tavkeydb import KDB (-pw PASSWORD | -stashed) -label LABEL -cert CERT.pem -key KEY.pem"
          " [-key-pw PW]\n"
          "       tavkeydb list KDB (-pw PASSWORD | -stashed)\n");
  return 2;
}

// The stash file sits beside the key database: its extension becomes "sth".
std::string stash_name(const std::string &kdb) {
  size_t slash = kdb.rfind('/');
  size_t dot = kdb.rfind('.');
  std::string stem = dot != std::string::npos && (slash == std::string::npos || dot > slash) ? kdb.substr(0, dot) : kdb;
  return stem + ".sth";
}

int fail(const char *what, int code) {
  fprintf(stderr, "tavkeydb: %s: %s (%d)\n", what, tav_strerror(code), code);
  return 1;
}

X509 *read_cert(const std::string &path) {
  FILE *f = fopen(path.c_str(), "r");
  if (f == nullptr) return nullptr;
  X509 *x = PEM_read_X509(f, nullptr, nullptr, nullptr);
  fclose(f);
  return x;
}

EVP_PKEY *read_key(const std::string &path, const std::string &pw) {
  FILE *f = fopen(path.c_str(), "r");
  if (f == nullptr) return nullptr;
  EVP_PKEY *k = PEM_read_PrivateKey(f, nullptr, nullptr, const_cast<char *>(pw.c_str()));
  fclose(f);
  return k;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) return usage();
  std::string cmd = argv[1], kdb = argv[2];
  std::map<std::string, std::string> opt;
  for (int i = 3; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "-stash" || a == "-stashed") {
      opt[a] = "1";
    } else if (i + 1 < argc && (a == "-pw" || a == "-label" || a == "-cert" || a == "-key" || a == "-key-pw")) {
      opt[a] = argv[++i];
    } else {
      return usage();
    }
  }
  std::string pw = opt["-pw"];
  if (opt.count("-stashed")) {
    if (int rc = tavtk::stash_load(stash_name(kdb), &pw); rc != 0) return fail("reading the stash file", rc);
  }
  if (pw.empty()) return usage();

  if (cmd == "create" || cmd == "stash") {
    if (cmd == "create") {
      tavtk::KeyDb empty;
      if (int rc = tavtk::keydb_save(kdb, pw, empty); rc != 0) return fail("writing the key database", rc);
    } else if (tavtk::KeyDb db; int rc = tavtk::keydb_load(kdb, pw, &db)) {
      return fail("opening the key database", rc);
    }
    if (cmd == "stash" || opt.count("-stash")) {
      if (int rc = tavtk::stash_save(stash_name(kdb), pw); rc != 0) return fail("writing the stash file", rc);
    }
    return 0;
  }

  tavtk::KeyDb db;
  if (int rc = tavtk::keydb_load(kdb, pw, &db); rc != 0) return fail("opening the key database", rc);
  if (cmd == "list") {
    for (const tavtk::KeyEntry &e : db.entries) {
      char *subject = X509_NAME_oneline(X509_get_subject_name(e.cert), nullptr, 0);
      printf("%s\t%s\t%s\n", e.label.empty() ? "-" : e.label.c_str(), e.key != nullptr ? "personal" : "trusted",
             subject != nullptr ? subject : "");
      OPENSSL_free(subject);
    }
    return 0;
  }
  if (cmd != "add-ca" && cmd != "import") return usage();
  std::string label = opt["-label"];
  if (label.empty() || opt["-cert"].empty() || (cmd == "import" && opt["-key"].empty())) return usage();
  if (db.find(label) != nullptr) return fail(label.c_str(), TAV_KEYFILE_DUPLICATE_LABEL);
  tavtk::KeyEntry e;
  e.label = label;
  e.cert = read_cert(opt["-cert"]);
  if (e.cert == nullptr) return fail(opt["-cert"].c_str(), TAV_KEYFILE_INVALID_FORMAT);
  if (cmd == "import") {
    e.key = read_key(opt["-key"], opt["-key-pw"]);
    if (e.key == nullptr || X509_check_private_key(e.cert, e.key) != 1) {
      X509_free(e.cert);
      EVP_PKEY_free(e.key);
      return fail(opt["-key"].c_str(), TAV_ERROR_NO_PRIVATE_KEY);
    }
  }
  db.entries.push_back(e);
  if (int rc = tavtk::keydb_save(kdb, pw, db); rc != 0) return fail("writing the key database", rc);
  return 0;
}
