// A scripted fake LDAP server on loopback, for what real servers will not do:
// split PDUs at any byte, stall, close mid-PDU, send garbage or unknown IDs.
//
// Build a script, start(), point the client at port(); the script runs on
// its own thread against the first connection accepted.  Each send step is
// one write with Nagle off, so steps separated by a pause arrive as separate
// reads.  Everything the client sends is recorded.
#ifndef TAV_TEST_FAKE_SERVER_H
#define TAV_TEST_FAKE_SERVER_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavtest {

class FakeServer {
 public:
  FakeServer();   // listens on 127.0.0.1, port chosen by the system
  ~FakeServer();  // closes everything and joins the thread
  FakeServer(const FakeServer &) = delete;
  FakeServer &operator=(const FakeServer &) = delete;

  // Script steps, run in order.
  FakeServer &send(const std::string &bytes);
  // Bytes computed when the step runs (for replies that need what arrived earlier).
  FakeServer &send_lazy(std::function<std::string()> make);
  // The bytes in pieces of `piece` octets with `pause_ms` between them.
  FakeServer &send_split(const std::string &bytes, size_t piece, int pause_ms);
  FakeServer &pause(int ms);
  // Wait until `n` more bytes have arrived (or timeout_ms passes); they are
  // consumed, so a later on_request starts after them.
  FakeServer &expect_bytes(size_t n, int timeout_ms = 5000);
  // Wait until one whole BER element more has arrived, then run `reply`
  // (which may queue nothing) with that element's bytes.
  FakeServer &on_request(std::function<std::string(const std::string &request)> reply,
                         int timeout_ms = 5000);
  // Stop reading from the client (so its writes eventually block).
  FakeServer &stop_reading(int ms);
  FakeServer &close();  // close the connection (also implied at the end)
  // Keep the connection open until the client closes it.
  FakeServer &hold_until_closed(int timeout_ms = 10000);

  // Before start(): a small receive buffer makes a client's large writes
  // block sooner once the script stops reading.
  void set_receive_buffer(int bytes) { rcvbuf_ = bytes; }

  void start();
  int port() const { return port_; }
  std::string host_port() const;
  // Everything received so far.
  std::string received() const;
  // Waits for the script to finish; false on timeout.
  bool wait_done(int timeout_ms = 10000);
  // Sizes of the individual reads the server made (how the client's writes arrived).
  std::vector<size_t> read_sizes() const;

 private:
  struct Step;
  void run();
  bool read_some(int timeout_ms);

  std::vector<Step *> steps_;
  int listen_fd_ = -1;
  int conn_fd_ = -1;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::string received_;
  std::vector<size_t> read_sizes_;
  size_t consumed_ = 0;  // bytes of received_ handed to on_request steps
  int rcvbuf_ = 0;
  bool done_ = false;
  std::atomic<bool> quit_{false};
};

// Length of the first complete BER element in `bytes`, or 0 if incomplete.
size_t ber_element_length(const std::string &bytes);

}  // namespace tavtest

#endif
