#include "dns_peer.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "process.h"

namespace tavtest {

std::string enter_private_network(const std::string &resolv_conf) {
  static std::string result = [&]() -> std::string {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) != 0) return std::string("unshare: ") + strerror(errno);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return std::string("making / private: ") + strerror(errno);
    if (mount(resolv_conf.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
      return std::string("bind-mounting resolv.conf: ") + strerror(errno);
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strcpy(ifr.ifr_name, "lo");
    bool up =
        s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags |= IFF_UP, ioctl(s, SIOCSIFFLAGS, &ifr) == 0);
    if (s >= 0) close(s);
    return up ? "" : std::string("bringing lo up: ") + strerror(errno);
  }();
  return result;
}

bool Dnsmasq::start(const std::string &dir, const std::string &config, std::string *error) {
  const std::string conf = dir + "/dnsmasq.conf", log = dir + "/dnsmasq.log";
  std::ofstream(conf) << config;
  pid_ = spawn({"/usr/sbin/dnsmasq", "--keep-in-foreground", "--log-facility=-", "--user=root", "--port=53",
                "--listen-address=127.0.0.1", "--bind-interfaces", "--no-resolv", "--no-hosts",
                "--pid-file=" + dir + "/dnsmasq.pid", "--conf-file=" + conf},
               log);
  // dnsmasq logs "started" once its sockets are bound: the hand-shake.
  for (int i = 0; i < 500 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i) {
    if (read_file(log).find("started") != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  *error = "dnsmasq did not start: " + read_file(log);
  stop();
  return false;
}

void Dnsmasq::stop() { terminate(pid_); }

namespace dns {
std::string u16(unsigned v) { return std::string{char(v >> 8), char(v & 0xff)}; }
std::string name(const std::string &dotted) {
  std::string out;
  size_t b = 0;
  while (b < dotted.size()) {
    size_t e = dotted.find('.', b);
    if (e == std::string::npos) e = dotted.size();
    out += char(e - b) + dotted.substr(b, e - b);
    b = e + 1;
  }
  return out + '\0';
}
std::string header(unsigned id, unsigned flags, unsigned qd, unsigned an, unsigned ns, unsigned ar) {
  return u16(id) + u16(flags) + u16(qd) + u16(an) + u16(ns) + u16(ar);
}
std::string record(const std::string &owner, unsigned type, const std::string &rdata) {
  return owner + u16(type) + u16(1) + u16(0) + u16(300) + u16(rdata.size()) + rdata;
}
std::string srv(unsigned prio, unsigned weight, unsigned port, const std::string &target) {
  return u16(prio) + u16(weight) + u16(port) + name(target);
}
std::string txt(const std::vector<std::string> &strings) {
  std::string out;
  for (const auto &s : strings) out += char(s.size()) + s;
  return out;
}
std::string answer(unsigned id, unsigned flags, const std::string &qname, unsigned qtype, unsigned an,
                   const std::string &records) {
  return header(id, flags, 1, an) + name(qname) + u16(qtype) + u16(1) + records;
}
}  // namespace dns

namespace {
// Query name and type from a message; empty name when it cannot be read.
ScriptedDns::Query decode(const std::string &m, bool tcp) {
  ScriptedDns::Query q{tcp, 0, "", 0};
  if (m.size() < 12) return q;
  q.id = (unsigned char)m[0] << 8 | (unsigned char)m[1];
  size_t p = 12;
  while (p < m.size() && m[p] != 0) {
    size_t n = (unsigned char)m[p];
    if (!q.name.empty()) q.name += '.';
    q.name += m.substr(p + 1, n);
    p += n + 1;
  }
  if (p + 3 <= m.size()) q.type = (unsigned char)m[p + 1] << 8 | (unsigned char)m[p + 2];
  return q;
}

bool read_exact(int fd, char *buf, size_t len) {
  size_t got = 0;
  while (got < len) {
    ssize_t n = read(fd, buf + got, len - got);
    if (n <= 0) return false;
    got += n;
  }
  return true;
}
}  // namespace

ScriptedDns::ScriptedDns(const std::string &address, Script script, int pace_ms)
    : pace_ms_(pace_ms), script_(std::move(script)) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(53);
  inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
  udp_ = socket(AF_INET, SOCK_DGRAM, 0);
  tcp_ = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(tcp_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(udp_, (sockaddr *)&sa, sizeof sa) != 0 || bind(tcp_, (sockaddr *)&sa, sizeof sa) != 0 ||
      listen(tcp_, 8) != 0 || pipe(stop_) != 0) {
    close(udp_);
    close(tcp_);
    udp_ = tcp_ = -1;
    return;
  }
  thread_ = std::thread([this] { serve(); });
}

ScriptedDns::~ScriptedDns() {
  if (thread_.joinable()) {
    if (write(stop_[1], "x", 1) != 1) abort();
    thread_.join();
  }
  for (int fd : {udp_, tcp_, stop_[0], stop_[1]})
    if (fd >= 0) close(fd);
}

std::vector<ScriptedDns::Query> ScriptedDns::queries() const {
  std::lock_guard<std::mutex> lock(mu_);
  return queries_;
}

bool ScriptedDns::paced() const {
  pollfd p = {stop_[0], POLLIN, 0};
  return pace_ms_ == 0 || poll(&p, 1, pace_ms_) == 0;
}

void ScriptedDns::answer_tcp(int fd) {
  char len[2];
  while (read_exact(fd, len, 2)) {
    std::string m((unsigned char)len[0] << 8 | (unsigned char)len[1], '\0');
    if (!read_exact(fd, m.data(), m.size())) break;
    Query q = decode(m, true);
    {
      std::lock_guard<std::mutex> lock(mu_);
      queries_.push_back(q);
    }
    std::vector<std::string> replies = script_(q);
    if (replies.empty()) {  // silence: wait for the client to give up
      pollfd p[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
      poll(p, 2, -1);
      break;
    }
    bool sent = true;
    for (const auto &r : replies) {
      const std::string framed = dns::u16(r.size()) + r;
      for (size_t at = 0, step = pace_ms_ > 0 ? 1 : framed.size(); sent && at < framed.size(); at += step)
        sent = paced() && send(fd, framed.data() + at, step, MSG_NOSIGNAL) == (ssize_t)step;
    }
    if (!sent) break;
  }
  close(fd);
}

void ScriptedDns::serve() {
  for (;;) {
    pollfd p[3] = {{udp_, POLLIN, 0}, {tcp_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(p, 3, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (p[2].revents) return;
    if (p[0].revents & POLLIN) {
      char buf[2048];
      sockaddr_storage from;
      socklen_t flen = sizeof from;
      ssize_t n = recvfrom(udp_, buf, sizeof buf, 0, (sockaddr *)&from, &flen);
      if (n <= 0) continue;
      Query q = decode(std::string(buf, n), false);
      {
        std::lock_guard<std::mutex> lock(mu_);
        queries_.push_back(q);
      }
      for (const auto &r : script_(q)) {
        if (!paced()) break;
        bool spoof = r.rfind(kSpoofed, 0) == 0;
        int fd = spoof ? socket(AF_INET, SOCK_DGRAM, 0) : udp_;
        size_t skip = spoof ? strlen(kSpoofed) : 0;
        sendto(fd, r.data() + skip, r.size() - skip, 0, (sockaddr *)&from, flen);
        if (spoof) close(fd);
      }
    }
    if (p[1].revents & POLLIN) {
      int fd = accept(tcp_, nullptr, nullptr);
      if (fd >= 0) answer_tcp(fd);
    }
  }
}

}  // namespace tavtest
