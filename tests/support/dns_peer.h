// DNS peers for the server-location tests, all confined to a private network
// namespace: dnsmasq for the truth, a scripted responder for the faults, and a
// builder of DNS messages.
#ifndef TAV_TEST_DNS_PEER_H
#define TAV_TEST_DNS_PEER_H

#include <sys/types.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavtest {

// Moves this process into its own network, mount and host-name namespaces
// (loopback up, nothing else reachable) and bind-mounts `resolv_conf` (a file the caller
// owns) over /etc/resolv.conf.  Once per process; "" or the reason it failed.
std::string enter_private_network(const std::string &resolv_conf);

// dnsmasq on 127.0.0.1:53 with the given configuration lines.
class Dnsmasq {
 public:
  ~Dnsmasq() { stop(); }
  bool start(const std::string &dir, const std::string &config, std::string *error);
  void stop();

 private:
  pid_t pid_ = -1;
};

namespace dns {
std::string u16(unsigned v);
std::string name(const std::string &dotted);  // as labels, no compression
std::string header(unsigned id, unsigned flags, unsigned qd, unsigned an, unsigned ns = 0, unsigned ar = 0);
std::string record(const std::string &owner_wire, unsigned type, const std::string &rdata);
std::string srv(unsigned prio, unsigned weight, unsigned port, const std::string &target);
std::string txt(const std::vector<std::string> &strings);
// A whole answer to (qname, qtype) with `an` records (ANCOUNT as given).
std::string answer(unsigned id, unsigned flags, const std::string &qname, unsigned qtype, unsigned an,
                   const std::string &records);
}  // namespace dns

// A scripted responder on UDP and TCP port 53 of `address`: each query is
// handed to the script, whose replies are sent back in order (none: silence).
// With a pace, each UDP reply and each byte over TCP waits that long first.
class ScriptedDns {
 public:
  struct Query {
    bool tcp;
    unsigned id;
    std::string name;
    unsigned type;
  };
  using Script = std::function<std::vector<std::string>(const Query &)>;
  // A UDP reply beginning with this is sent (without it) from another port.
  static constexpr const char *kSpoofed = "spoofed:";

  ScriptedDns(const std::string &address, Script script, int pace_ms = 0);
  ~ScriptedDns();
  bool ok() const { return udp_ >= 0 && tcp_ >= 0; }
  std::vector<Query> queries() const;

 private:
  void serve();
  void answer_tcp(int fd);
  bool paced() const;  // false: stopped meanwhile
  int udp_ = -1, tcp_ = -1, stop_[2] = {-1, -1}, pace_ms_;
  Script script_;
  mutable std::mutex mu_;
  std::vector<Query> queries_;
  std::thread thread_;
};

}  // namespace tavtest

#endif
