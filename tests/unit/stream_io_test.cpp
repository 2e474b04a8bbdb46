// Reading and writing whole BER elements on non-blocking sockets, against the
// scripted fake server: elements split at awkward places, refused lengths,
// a peer that closes mid-element, and large writes that meet a full socket.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "fake_server.h"
#include "fber-stream.h"
#include "ldap-debug.h"

using tavtest::FakeServer;

namespace {

// A connected non-blocking socket to the fake server.
Sockbuf connect_to(const FakeServer &fake) {
  Sockbuf sb{};
  sb.sb_sd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(fake.port());
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(sb.sb_sd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  fcntl(sb.sb_sd, F_SETFL, fcntl(sb.sb_sd, F_GETFL) | O_NONBLOCK);
  return sb;
}

// Reads one element, waiting for readability between partial reads; records
// how many calls returned "not complete".
struct ReadResult {
  ber_tag_t tag = LBER_ERROR;
  int partial_calls = 0;
  std::string contents;
};

ReadResult read_element(Sockbuf &sb, BerElement *ber, uint32_t *state) {
  ReadResult r;
  for (;;) {
    struct timeval tv = {5, 0};
    if (fber_select(&sb, &tv) <= 0) return r;
    r.tag = fber_get_next_nb(&sb, ber, state);
    if (r.tag != 11) break;
    ++r.partial_calls;
  }
  if (r.tag != LBER_ERROR) r.contents.assign(ber->ber_buf, ber->ber_end - ber->ber_buf);
  return r;
}

struct Reader {
  explicit Reader(FakeServer &fake) {
    fake.start();
    sb = connect_to(fake);
    ber = fber_alloc_with_options(1, 0, 3);
  }
  ~Reader() {
    fber_free(ber);
    close(sb.sb_sd);
  }
  Sockbuf sb{};
  BerElement *ber = nullptr;
  uint32_t state = 0;
};

const std::string kElement("\x30\x05\x02\x01\x01\x42\x00", 7);

}  // namespace

TEST(StreamRead, TagArrivingAloneIsKeptUntilTheRestComes) {
  FakeServer fake;
  fake.send(kElement.substr(0, 1)).pause(150).send(kElement.substr(1)).hold_until_closed(3000);
  Reader r(fake);
  struct timeval tv = {5, 0};
  ASSERT_GT(fber_select(&r.sb, &tv), 0);
  EXPECT_EQ(fber_get_next_nb(&r.sb, r.ber, &r.state), 11u);
  EXPECT_EQ(r.ber->ber_tag, 0x30u);
  EXPECT_EQ(r.state, 0u);
  auto got = read_element(r.sb, r.ber, &r.state);
  EXPECT_EQ(got.tag, 0x30u);
  EXPECT_EQ(got.contents, kElement.substr(2));  // contents only: tag and length stay in the element
  EXPECT_EQ(r.state, 0u);
}

TEST(StreamRead, EveryPossibleSplitGivesTheSameElement) {
  // A response with a long-form length, split once at each byte.
  std::string contents = "\x02\x01\x07" + std::string("\x65\x07\x0a\x01\x00\x04\x00\x04\x00", 9);
  std::string element = std::string("\x30\x82\x00", 3) + static_cast<char>(contents.size()) + contents;
  for (size_t cut = 1; cut < element.size(); ++cut) {
    FakeServer fake;
    fake.send(element.substr(0, cut)).pause(30).send(element.substr(cut)).hold_until_closed(3000);
    Reader r(fake);
    auto got = read_element(r.sb, r.ber, &r.state);
    EXPECT_EQ(got.tag, 0x30u) << "cut at " << cut;
    EXPECT_EQ(got.contents, contents) << "cut at " << cut;
    EXPECT_EQ(r.ber->ber_len, contents.size());
  }
}

TEST(StreamRead, LongFormLengthSplitAcrossReads) {
  std::string element = std::string("\x30\x84\x00\x00\x01\x00", 6) + std::string(256, 'x');
  FakeServer fake;
  fake.send(element.substr(0, 4)).pause(150).send(element.substr(4)).hold_until_closed(3000);
  Reader r(fake);
  struct timeval tv = {5, 0};
  ASSERT_GT(fber_select(&r.sb, &tv), 0);
  usleep(20000);
  EXPECT_EQ(fber_get_next_nb(&r.sb, r.ber, &r.state), 11u);
  EXPECT_EQ(r.state, 2u);
  EXPECT_EQ(r.ber->ber_lenread, 2);
  auto got = read_element(r.sb, r.ber, &r.state);
  EXPECT_EQ(got.tag, 0x30u);
  EXPECT_EQ(r.ber->ber_len, 256u);
}

TEST(StreamRead, RefusedHeaders) {
  struct Case {
    const char *what;
    std::string bytes;
  } cases[] = {
      {"nine length octets", std::string("\x30\x89\x01\x01\x01\x01\x01\x01\x01\x01\x01", 11)},
      {"length 0x7FFFFFFF", std::string("\x30\x84\x7f\xff\xff\xff", 6)},
      {"empty contents", std::string("\x30\x00", 2)},
      {"indefinite length", std::string("\x30\x80\x02\x01\x01\x00\x00", 7)},
      {"high tag number 0x1F", std::string("\x1f\x01\x00", 3)},
      {"high tag number 0xFF", std::string("\xff\x01\x00", 3)},
  };
  for (const auto &c : cases) {
    FakeServer fake;
    fake.send(c.bytes).hold_until_closed(3000);
    Reader r(fake);
    EXPECT_EQ(read_element(r.sb, r.ber, &r.state).tag, LBER_ERROR) << c.what;
  }
}

TEST(StreamRead, PeerClosingInsideTheContentsFailsTheRead) {
  FakeServer fake;
  fake.send(kElement.substr(0, 4)).pause(50).close();
  Reader r(fake);
  EXPECT_EQ(read_element(r.sb, r.ber, &r.state).tag, LBER_ERROR);
}

TEST(StreamWrite, LargeElementGoesOutInPiecesAndResumesAfterWouldBlock) {
  FakeServer fake;
  fake.set_receive_buffer(4096);
  const size_t total = 100000;
  fake.stop_reading(300).expect_bytes(total, 10000).close();
  fake.start();
  Sockbuf sb = connect_to(fake);
  int small = 4096;
  setsockopt(sb.sb_sd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

  BerElement *ber = fber_alloc_t(0);
  std::string payload(total, '\0');
  for (size_t i = 0; i < total; ++i) payload[i] = static_cast<char>('a' + i % 26);
  ASSERT_EQ(fber_write(ber, payload.data(), total), (int)total);

  ldap_set_debug_level(0x10);
  testing::internal::CaptureStderr();
  int rc, would_block = 0;
  while ((rc = fber_flush_nb(&sb, ber)) == -11) {
    ++would_block;
    fd_set w;
    FD_ZERO(&w);
    FD_SET(sb.sb_sd, &w);
    struct timeval tv = {5, 0};
    ASSERT_GT(select(sb.sb_sd + 1, nullptr, &w, nullptr, &tv), 0);
  }
  std::string trace = testing::internal::GetCapturedStderr();
  ldap_set_debug_level(0);
  EXPECT_EQ(rc, 0);
  EXPECT_GT(would_block, 0);
  EXPECT_TRUE(std::regex_search(trace, std::regex("fber_flush_nb: 100000 bytes to sd=\\d+\n"))) << trace.substr(0, 300);
  EXPECT_TRUE(std::regex_search(trace, std::regex("fber_flush_nb: \\d+ bytes to sd=\\d+ \\(re-flush\\)\n")));
  ASSERT_TRUE(fake.wait_done(15000));
  EXPECT_EQ(fake.received(), payload);  // every byte once, in order
  for (size_t n : fake.read_sizes()) EXPECT_LE(n, 65535u);
  fber_free(ber);
  close(sb.sb_sd);
}

TEST(StreamWrite, PlainWritesAreCutAt65535Bytes) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  int big = 1 << 20;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  Sockbuf sb{fds[0], nullptr};
  std::string bytes(100000, 'q');
  EXPECT_EQ(BerWrite(&sb, bytes.data(), (long)bytes.size()), 65535);
  EXPECT_EQ(BerWrite(&sb, bytes.data(), 0), 0);
  close(fds[0]);
  close(fds[1]);
}
