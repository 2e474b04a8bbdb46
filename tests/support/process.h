// Running helper programs from tests and reading what they wrote.
#ifndef TAV_TEST_PROCESS_H
#define TAV_TEST_PROCESS_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace tavtest {

struct ProcessResult {
  int exit_code = -1;  // -1 when it did not exit normally
  std::string out;
  std::string err;
};

// Runs argv[0] with the arguments, with `env` added to (or, for an empty
// value, removed from) the current environment; feeds `input` on stdin.
ProcessResult run_process(const std::vector<std::string> &argv,
                          const std::vector<std::pair<std::string, std::string>> &env = {},
                          const std::string &input = "");

// Starts argv[0] in the background, its stdout and stderr written to `log`
// and its stdin read from `in` when given; it dies with the test process.
pid_t spawn(const std::vector<std::string> &argv, const std::string &log, int in = -1);
// SIGTERM, SIGKILL after ten seconds, and waits for it; leaves pid at -1.
void terminate(pid_t &pid);

// A temporary directory removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Bytes the allocator has handed out and not got back (the sanitizers' count
// in their builds): a test sees a block released.
size_t heap_in_use();

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
std::vector<std::string> split_lines(const std::string &text);

}  // namespace tavtest

#endif
