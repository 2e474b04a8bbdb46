// Client key databases for the SSL tests, made with the toolkit's own tool
// (TAV_KEYDB_TOOL for the targets that depend on it, else the build's).  The
// toolkit is loaded from the build by its bare name.
#ifndef TAV_TEST_KEYDB_H
#define TAV_TEST_KEYDB_H

#ifndef TAV_KEYDB_TOOL
#define TAV_KEYDB_TOOL TAV_BUILD_DIR "/bin/tavkeydb"
#endif

#include <cstdlib>
#include <string>
#include <vector>

#include "process.h"

namespace tavtest {

// Runs the tool; "" or what it said when it failed.
inline std::string keydb_tool(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {TAV_KEYDB_TOOL};
  argv.insert(argv.end(), args.begin(), args.end());
  const ProcessResult r = run_process(argv);
  return r.exit_code == 0 ? "" : "tavkeydb " + args[0] + ": " + r.err;
}

// A key database at `kdb` trusting the CA in `ca_pem`, and the toolkit taken
// from the build; "" or the tool's complaint.
inline std::string trusting_keydb(const std::string &kdb, const std::string &pw, const std::string &ca_pem) {
  setenv("TAVLIB_LOCAL_INSTALL_MODE", "1", 1);
  std::string error = keydb_tool({"create", kdb, "-pw", pw});
  return error.empty() ? keydb_tool({"add-ca", kdb, "-pw", pw, "-label", "ca", "-cert", ca_pem}) : error;
}

}  // namespace tavtest

#endif
