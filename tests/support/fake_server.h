// A scripted fake LDAP server on loopback, for what real servers will not do:
// split responses, stall, close mid-PDU, send garbage or unknown IDs.
//
// Build a script, start(), point the client at port(); the script runs on its
// own thread against the first connection accepted.  Each send step is one
// write with Nagle off.  Everything the client sends is recorded.
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
  ~FakeServer();  // opens the gate, closes everything and joins the thread
  FakeServer(const FakeServer &) = delete;
  FakeServer &operator=(const FakeServer &) = delete;

  // Script steps, run in order.
  FakeServer &send(const std::string &bytes);
  // Bytes computed when the step runs (for replies that need what arrived earlier).
  FakeServer &send_lazy(std::function<std::string()> make);
  // Wait until one whole BER element more has arrived, then send what
  // `reply` makes of it (which may be nothing).  AbandonRequests are passed
  // over, as servers never answer them.
  static bool is_abandon(const std::string &pdu);
  FakeServer &on_request(std::function<std::string(const std::string &request)> reply);
  // Stop here, reading nothing, until the test calls open_gate(): the test's
  // side of a hand-shake ("the client has seen X; go on").
  FakeServer &gate();
  // A slow server: the bytes one at a time, `every_ms` apart (its pace is the
  // scenario, not a hand-shake with the test).
  FakeServer &trickle(const std::string &bytes, int every_ms);
  FakeServer &close();  // close the connection (also implied at the end)
  // Keep reading until the client closes the connection.
  FakeServer &hold_until_closed();

  // Before start(): a small receive buffer makes a client's large writes
  // block sooner once the script stops reading.
  void set_receive_buffer(int bytes) { rcvbuf_ = bytes; }
  int start();  // returns port()
  void open_gate();
  int port() const { return port_; }
  std::string received() const;  // everything received so far
  // Waits for the script to finish; false when it has not after timeout_ms.
  bool wait_done(int timeout_ms = 20000);

 private:
  struct Step {
    enum Kind { kSend, kRequest, kGate, kClose, kHold, kTrickle } kind;
    std::function<std::string(const std::string &)> make;
    int every_ms = 0;
  };
  void run();
  bool read_some(int timeout_ms);
  void send_all(const std::string &bytes);

  std::vector<Step> steps_;
  int listen_fd_ = -1;
  int conn_fd_ = -1;
  int port_ = 0;
  int rcvbuf_ = 0;
  std::thread thread_;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::string received_;
  size_t consumed_ = 0;  // bytes of received_ handed to on_request steps
  bool gate_open_ = false;
  bool done_ = false;
  bool peer_closed_ = false;  // only the script thread uses it
  std::atomic<bool> quit_{false};
};

// Length of the first complete BER element in `bytes`, or 0 if incomplete.
size_t ber_element_length(const std::string &bytes);

}  // namespace tavtest

#endif
