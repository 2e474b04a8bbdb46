// Reading and writing whole BER elements on non-blocking sockets.  The peer is
// the other end of a socket pair, written by the test itself, so "nothing more
// has arrived yet" is a fact rather than a matter of timing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>

#include "ber_build.h"
#include "fber-stream.h"
#include "ldap-debug.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"
#include "trace_watch.h"

using namespace tavtest;

namespace {

// The library's end (non-blocking) and the peer's end of a socket pair.
struct Pair {
  Pair() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    sb.sb_sd = fds[0];
  }
  ~Pair() {
    fber_sockbuf_release(&sb);
    close(fds[0]);
    if (fds[1] >= 0) close(fds[1]);
  }
  void peer_writes(const std::string &b) { ASSERT_EQ(write(fds[1], b.data(), b.size()), (ssize_t)b.size()); }
  std::string peer_reads() {
    std::string got;
    char buf[65536];
    for (ssize_t n; (n = recv(fds[1], buf, sizeof buf, MSG_DONTWAIT)) > 0;) got.append(buf, n);
    return got;
  }
  ber_tag_t next() { return fber_get_next_nb(&sb, ber.get(), &state); }
  int fds[2] = {-1, -1};
  Sockbuf sb{};
  Ber ber{fber_alloc_with_options(1, 0, 3)};
  uint32_t state = 0;
};

const std::string kResponse = unhex("30 82 00 0C 02 01 07 65 07 0A 01 00 04 00 04 00");

// The bytes of every hexadecimal dump in a trace, one string per dump.
std::vector<std::string> dumps(const std::string &trace) {
  std::vector<std::string> out;
  std::regex line(R"(\|([0-9A-F]{4})\|([0-9A-F ]{35})\|)");
  for (std::sregex_iterator m(trace.begin(), trace.end(), line), end; m != end; ++m) {
    if ((*m)[1] == "0000") out.emplace_back();
    if (!out.empty()) out.back() += unhex((*m)[2]);
  }
  return out;
}

}  // namespace

TEST(StreamRead, ElementSplitAtEveryByteIsKeptUntilComplete) {
  for (size_t cut = 1; cut < kResponse.size(); ++cut) {
    SCOPED_TRACE(cut);
    Pair p;
    p.peer_writes(kResponse.substr(0, cut));
    ASSERT_EQ(p.next(), 11u) << "reported complete with part of it";
    EXPECT_TRUE(cut != 1 || p.ber->ber_tag == 0x30u);                     // the tag alone is kept
    EXPECT_TRUE(cut != 3 || (p.state == 2u && p.ber->ber_lenread == 1));  // and a partial length
    p.peer_writes(kResponse.substr(cut));
    ASSERT_EQ(p.next(), 0x30u);
    EXPECT_EQ(std::string(p.ber->ber_buf, p.ber->ber_end), kResponse.substr(4));  // contents only
    EXPECT_EQ(p.ber->ber_len, 12u);
    EXPECT_EQ(p.state, 0u);
  }
}

TEST(StreamRead, RefusedHeadersAndAPeerClosingMidElement) {
  for (const char *bad :
       {"30 89 01 01 01 01 01 01 01 01 01", "30 00", "30 80 02 01 01 00 00", "1F 01 00", "FF 01 00"}) {
    Pair p;
    p.peer_writes(unhex(bad));
    EXPECT_EQ(p.next(), LBER_ERROR) << bad;
  }
  Pair p;
  p.peer_writes(kResponse.substr(0, 6));
  EXPECT_EQ(p.next(), 11u);
  close(p.fds[1]);
  p.fds[1] = -1;
  EXPECT_EQ(p.next(), LBER_ERROR);
}

// A length of 2^31-1 or more is refused as soon as it is read: nothing is
// allocated for it and no more bytes are waited for.
TEST(StreamRead, LengthsOfTwoGigabytesAndMoreAreRefusedBeforeAnyAllocation) {
  for (const char *header :
       {"30 84 7F FF FF FF", "30 84 FF FF FF FF", "30 85 01 00 00 00 00", "30 88 00 00 01 00 00 00 00 00"}) {
    Pair p;
    // A whole element first, so the connection's read-ahead buffer exists.
    p.peer_writes(kResponse + unhex(header) + "\x02\x01");
    Ber first(fber_alloc_with_options(1, 0, 3));
    uint32_t first_state = 0;
    ASSERT_EQ(fber_get_next_nb(&p.sb, first.get(), &first_state), 0x30u);
    olx_fail_alloc_at(1L << 40);  // count allocations, fail none
    EXPECT_EQ(p.next(), LBER_ERROR) << header;
    EXPECT_EQ(olx_fail_alloc_at(0), 0) << header << ": allocated for the announced length";
  }
  Pair p;  // the largest accepted length is read on, with room only for what came
  p.peer_writes(unhex("30 84 7F FF FF FE 02"));
  EXPECT_EQ(p.next(), 11u);
  EXPECT_EQ(p.ber->ber_len, 0x7FFFFFFEu);
  EXPECT_LE(p.ber->ber_rwptr - p.ber->ber_buf, 65536) << "space held for an announced length";
}

TEST(StreamRead, ContentsLargerThanTheFirstBufferArriveWhole) {
  Pair p;
  std::string value(200000, 'v');
  for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<char>('a' + i % 23);
  const std::string element = unhex("30 84 00 03 0D 46 04 84 00 03 0D 40") + value;
  ASSERT_EQ(element.size(), 200012u);
  std::thread writer([&] { p.peer_writes(element); });
  ber_tag_t tag;
  while ((tag = p.next()) == 11u) {
    struct timeval forever_ish = {10, 0};
    ASSERT_EQ(fber_select(&p.sb, &forever_ish), 1);
  }
  writer.join();
  ASSERT_EQ(tag, 0x30u);
  EXPECT_EQ(std::string(p.ber->ber_buf, p.ber->ber_len), element.substr(6));
}

TEST(StreamWrite, LargeElementGoesOutInPiecesAndResumesAfterWouldBlock) {
  Pair p;
  int small = 4096;
  setsockopt(p.fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string payload(100000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>('a' + i % 26);
  Ber ber(fber_alloc_t(0));
  ASSERT_EQ(fber_write(ber.get(), payload.data(), payload.size()), 100000);
  int rc, would_block = 0;
  std::string got;
  const std::string trace = tavtest::traced(0x10, [&] {
    while ((rc = fber_flush_nb(&p.sb, ber.get())) == -11) {
      ++would_block;
      got += p.peer_reads();  // the peer takes what is there; the next flush goes on
    }
  });
  EXPECT_EQ(rc, 0);
  EXPECT_GT(would_block, 0);
  EXPECT_TRUE(std::regex_search(trace, std::regex("fber_flush_nb: 100000 bytes to sd=\\d+\n")));
  EXPECT_TRUE(std::regex_search(trace, std::regex("fber_flush_nb: \\d+ bytes to sd=\\d+ \\(re-flush\\)\n")));
  EXPECT_EQ(got + p.peer_reads(), payload);  // every byte once, in order
  // One plain write takes at most 65535 bytes.
  int big = 1 << 20;
  setsockopt(p.fds[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
  EXPECT_EQ(BerWrite(&p.sb, payload.data(), (long)payload.size()), 65535);
  EXPECT_EQ(BerWrite(&p.sb, payload.data(), 0), 0);
}

// Elements written and read are dumped to the BER trace: the bind requests a
// client writes and the entries it reads never show a password.
TEST(StreamTrace, DumpsNeverShowPasswords) {
  const std::string pw = "Zq7-Kv3-Wp8-Hx-Lm4";
  const std::pair<std::string, bool> pdus[] = {
      // the PDU and whether the client reads it
      {seq4(ldap_proto::kSequence, integer(1) + seq4(ldap_proto::kBindRequest, integer(3) + str("cn=admin,o=x") +
                                                                                   tlv(ldap_proto::kSimpleAuth, pw))),
       false},
      {seq4(ldap_proto::kSequence,
            integer(2) + seq4(ldap_proto::kBindRequest,
                              integer(3) + str("") + seq4(ldap_proto::kSaslAuth, str("PLAIN") + str(pw)))),
       false},
      {tlv(ldap_proto::kSequence,
           integer(3) + tlv(ldap_proto::kSearchEntry,
                            str("cn=u") +
                                tlv(ldap_proto::kSequence,
                                    tlv(ldap_proto::kSequence, str("userPassword") + tlv(ldap_proto::kSet, str(pw)))))),
       true}};
  const std::string trace = tavtest::traced(0xFFFF, [&] {
    for (const auto &[pdu, read_back] : pdus) {
      Pair p;
      Ber out(fber_alloc_t(0));
      fber_write(out.get(), pdu.data(), pdu.size());
      EXPECT_EQ(fber_flush_nb(&p.sb, out.get()), 0);
      if (read_back) {
        p.peer_writes(p.peer_reads());  // back to the library's end
        EXPECT_EQ(p.next(), 0x30u);
      }
    }
  });
  auto all = dumps(trace);
  ASSERT_EQ(all.size(), 4u) << trace;
  for (const auto &d : all) {
    EXPECT_TRUE(d.find("cn=admin,o=x") != std::string::npos || d.find("PLAIN") != std::string::npos ||
                d.find("userPassword") != std::string::npos)
        << "not the dump of a test PDU: " << hex(d);
    for (size_t i = 0; i + 4 <= pw.size(); ++i) EXPECT_EQ(d.find(pw.substr(i, 4)), std::string::npos) << hex(d);
  }
  EXPECT_EQ(trace.find(pw.substr(0, 4)), std::string::npos);
}
