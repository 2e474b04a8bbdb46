// The library's trace, watched while it is written: standard error goes to a
// pipe read by a thread, so a test can wait until a thread has reached a
// traced point (a hand-shake without sleeping) and read everything traced.
#ifndef TAV_TEST_TRACE_WATCH_H
#define TAV_TEST_TRACE_WATCH_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace tavtest {

// What the library traces under `mask` while `run` runs: standard error is
// captured for the call and the trace turned off after it.
std::string traced(uint32_t mask, const std::function<void()> &run);

class TraceWatch {
 public:
  explicit TraceWatch(uint32_t mask);  // turns the trace on with `mask`
  ~TraceWatch();                       // turns it off and gives standard error back
  TraceWatch(const TraceWatch &) = delete;
  TraceWatch &operator=(const TraceWatch &) = delete;

  // Waits until `text` has been traced; false after timeout_ms.
  bool wait_for(const std::string &text, int timeout_ms = 20000);
  std::string text() const;

 private:
  int saved_fd_ = -1;
  int read_fd_ = -1;
  std::thread reader_;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::string text_;
};

}  // namespace tavtest

#endif
