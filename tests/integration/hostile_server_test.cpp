// A scripted server that answers with broken, lying or mismatched replies: no
// reply may crash the client or pass for success, and each one gives the
// request it answers a decoding error (84).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ber_build.h"
#include "fake_server.h"
#include "ldap-engine.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-update.h"
#include "ldap-utils.h"
#include "ldap_requests.h"

using tavtest::FakeServer;
using tavtest::tlv;

namespace {

const auto hex = tavtest::unhex;

const std::string kId1 = hex("02 01 01");
const std::string kEmptyStrings = hex("04 00 04 00");
// An LDAPResult of `type` with the given encoded resultCode.
std::string result(unsigned type, const std::string &code = hex("0a 01 00")) { return tlv(type, code + kEmptyStrings); }
std::string reply(const std::string &op, const std::string &id = kId1, unsigned envelope = ldap_proto::kSequence) {
  return tlv(envelope, id + op);
}
const std::string kEntry = reply(tlv(ldap_proto::kSearchEntry, tlv(ldap_proto::kOctetString, "cn=x") + hex("30 00")));

enum class Op { kBind, kSaslBind, kSearch, kAdd, kDelete, kExtended };

// Calls `op` on a session; the code it returns.
int call(Op op, LDAP *ld) {
  static char *values[] = {const_cast<char *>("x"), nullptr};
  static LDAPMod cn = {LDAP_MOD_ADD, const_cast<char *>("cn"), {values}};
  static LDAPMod *mods[] = {&cn, nullptr};
  switch (op) {
    case Op::kBind:
      return ldap_simple_bind_s(ld, "cn=x", "secret");
    case Op::kSaslBind:
      return ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr);
    case Op::kSearch: {
      struct timeval wait = {10, 0};
      LDAPMessage *res = nullptr;
      const int rc = ldap_search_st(ld, "cn=x", 2, "(objectClass=*)", nullptr, 0, &wait, &res);
      ldap_msgfree(res);
      return rc;
    }
    case Op::kAdd:
      return ldap_add_s(ld, "cn=x", mods);
    case Op::kDelete:
      return ldap_delete_s(ld, "cn=x");
    case Op::kExtended: {  // an extended request the library has no call for, sent raw
      const int id = tavtest::send_raw_op(
          ld, ldap_proto::kExtendedRequest,
          tlv(ldap_proto::kExtendedRequest, tlv(ldap_proto::kRequestName, "1.3.6.1.4.1.4203.1.11.3")));
      LDAPMessage *res = nullptr;
      if (id < 0 || ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) == -1) return ldap_get_errno(ld);
      return ldap_result2error(ld, res, 1);
    }
  }
  return -1;
}

// Runs `op` as the first request of a new session (message ID 1) against a
// server that answers it with `bytes`; the code the call returns.
int run(Op op, const std::string &bytes) {
  FakeServer fake;
  std::atomic<int> seen_id{0};
  fake.on_request([&](const std::string &request) {
        seen_id = tavtest::request_msgid(request);
        return bytes;
      })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  const int rc = call(op, ld);
  EXPECT_EQ(ldap_get_errno(ld), rc) << "the error record disagrees with the code returned";
  ldap_unbind(ld);
  EXPECT_TRUE(fake.wait_done());
  EXPECT_EQ(seen_id.load(), 1) << "the scripted reply answers message ID 1";
  return rc;
}

struct Case {
  const char *name;
  Op op;
  std::string bytes;
  int code;
};

TEST(HostileServer, EveryBrokenOrMismatchedReplyIsADecodingError) {
  const int kDecoding = LDAP_DECODING_ERROR;
  const Case cases[] = {
      // Well-formed replies keep their codes, so 84 below is not all the client can say.
      {"bind answered 49", Op::kBind, reply(result(ldap_proto::kBindResponse, hex("0a 01 31"))),
       LDAP_INVALID_CREDENTIALS},
      {"search answered with an entry and done", Op::kSearch, kEntry + reply(result(ldap_proto::kSearchDone)),
       LDAP_SUCCESS},
      {"search answered 122 (assertion failed)", Op::kSearch, reply(result(ldap_proto::kSearchDone, hex("0a 01 7a"))),
       122},
      {"add answered 68", Op::kAdd, reply(result(ldap_proto::kAddResponse, hex("0a 01 44"))), LDAP_ALREADY_EXISTS},

      // Operation tag 0, missing, cut short, or in high-tag form.
      {"bind, protocolOp 0", Op::kBind, hex("30 05 02 01 01 00 00"), kDecoding},
      {"search, protocolOp 0", Op::kSearch, hex("30 05 02 01 01 00 00"), kDecoding},
      {"add, protocolOp 0", Op::kAdd, hex("30 05 02 01 01 00 00"), kDecoding},
      {"search, entry then protocolOp 0", Op::kSearch, kEntry + hex("30 05 02 01 01 00 00"), kDecoding},
      {"bind, unknown protocolOp 0x7e", Op::kBind, reply(result(0x7e)), kDecoding},
      {"bind, no protocolOp", Op::kBind, hex("30 03 02 01 01"), kDecoding},
      {"delete, no protocolOp", Op::kDelete, hex("30 03 02 01 01"), kDecoding},
      {"bind, length octet missing", Op::kBind, hex("30 05 02 01 01 61 81"), kDecoding},
      {"bind, operation longer than the message", Op::kBind, hex("30 05 02 01 01 61 05"), kDecoding},
      {"bind, high-tag form", Op::kBind, hex("30 05 02 01 01 1F 00"), kDecoding},
      {"sasl bind, high-tag form", Op::kSaslBind, hex("30 05 02 01 01 1F 00"), kDecoding},

      // Message IDs that are not a non-negative INTEGER fitting 32 bits.
      {"bind, 5-byte message ID", Op::kBind, reply(result(ldap_proto::kBindResponse), hex("02 05 01 00 00 00 01")),
       kDecoding},
      {"bind, 8-byte message ID", Op::kBind,
       reply(result(ldap_proto::kBindResponse), hex("02 08 01 00 00 00 00 00 00 01")), kDecoding},
      {"search, 5-byte message ID", Op::kSearch, reply(result(ldap_proto::kSearchDone), hex("02 05 01 00 00 00 01")),
       kDecoding},
      {"bind, negative message ID", Op::kBind, reply(result(ldap_proto::kBindResponse), hex("02 04 ff ff ff ff")),
       kDecoding},
      {"bind, OCTET STRING message ID", Op::kBind, reply(result(ldap_proto::kBindResponse), hex("04 01 01")),
       kDecoding},
      {"bind, SET envelope", Op::kBind, reply(result(ldap_proto::kBindResponse), kId1, ldap_proto::kSet), kDecoding},

      // Result codes that do not fit, are negative, are the client's own, or are not ENUMERATED.
      {"bind, resultCode 2^32", Op::kBind, reply(result(ldap_proto::kBindResponse, hex("0a 05 01 00 00 00 00"))),
       kDecoding},
      {"sasl bind, resultCode 2^32", Op::kSaslBind,
       reply(result(ldap_proto::kBindResponse, hex("0a 05 01 00 00 00 00"))), kDecoding},
      {"bind, resultCode -1", Op::kBind, reply(result(ldap_proto::kBindResponse, hex("0a 01 ff"))), kDecoding},
      {"add, resultCode -2^31", Op::kAdd, reply(result(ldap_proto::kAddResponse, hex("0a 04 80 00 00 00"))), kDecoding},
      {"bind, resultCode 81", Op::kBind, reply(result(ldap_proto::kBindResponse, hex("0a 01 51"))), kDecoding},
      {"sasl bind, resultCode 81", Op::kSaslBind, reply(result(ldap_proto::kBindResponse, hex("0a 01 51"))), kDecoding},
      {"search, resultCode 85", Op::kSearch, reply(result(ldap_proto::kSearchDone, hex("0a 01 55"))), kDecoding},
      {"add, resultCode 90", Op::kAdd, reply(result(ldap_proto::kAddResponse, hex("0a 01 5a"))), kDecoding},
      {"delete, resultCode 129", Op::kDelete, reply(result(ldap_proto::kDeleteResponse, hex("0a 02 00 81"))),
       kDecoding},
      {"bind, resultCode as OCTET STRING", Op::kBind, reply(result(ldap_proto::kBindResponse, hex("04 01 00"))),
       kDecoding},

      // Replies of another operation.
      {"search answered by a BindResponse", Op::kSearch, reply(result(ldap_proto::kBindResponse)), kDecoding},
      {"search answered by an ExtendedResponse", Op::kSearch, reply(result(ldap_proto::kExtendedResponse)), kDecoding},
      {"search, entry then a BindResponse", Op::kSearch, kEntry + reply(result(ldap_proto::kBindResponse)), kDecoding},
      {"add answered by an entry and done", Op::kAdd, kEntry + reply(result(ldap_proto::kSearchDone)), kDecoding},
      {"add answered by a DelResponse", Op::kAdd, reply(result(ldap_proto::kDeleteResponse)), kDecoding},
      {"bind answered by a SearchResultDone", Op::kBind, reply(result(ldap_proto::kSearchDone)), kDecoding},
      {"sasl bind answered by a SearchResultDone", Op::kSaslBind, reply(result(ldap_proto::kSearchDone)), kDecoding},
      {"delete answered by an ExtendedResponse", Op::kDelete, reply(result(ldap_proto::kExtendedResponse)), kDecoding},
  };
  for (const Case &c : cases) EXPECT_EQ(run(c.op, c.bytes), c.code) << c.name;
}

// With no readable message ID the reply may have been meant for any request,
// so every outstanding one fails; the connection itself goes on.
TEST(HostileServer, ReplyWithoutReadableIdFailsEveryOutstandingRequest) {
  FakeServer fake;
  fake.on_request([](const std::string &) { return std::string(); })
      .on_request([](const std::string &) { return reply(result(ldap_proto::kSearchDone), hex("04 01 01")); })
      .on_request([](const std::string &) { return reply(result(ldap_proto::kDeleteResponse), hex("02 01 03")); })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  const int a = ldap_search(ld, "cn=a", 0, "(objectClass=*)", nullptr, 0);
  const int b = ldap_search(ld, "cn=b", 0, "(objectClass=*)", nullptr, 0);
  ASSERT_EQ(a, 1);
  ASSERT_EQ(b, 2);
  for (int id : {b, a}) {
    LDAPMessage *res = nullptr;
    struct timeval wait = {10, 0};
    EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, &wait, &res), ldap_proto::kSearchDone) << id;
    EXPECT_EQ(ldap_result2error(ld, res, 1), LDAP_DECODING_ERROR) << id;
  }
  EXPECT_EQ(ldap_delete_s(ld, "cn=x"), LDAP_SUCCESS);
  ldap_unbind(ld);
}

// The valid SearchResultDone that follows the broken reply is read while the
// delete waits; it must not join the chain the caller already holds.
TEST(HostileServer, ReplyAfterTheFinalAnswerChangesNothing) {
  FakeServer fake;
  fake.on_request(
          [](const std::string &) { return hex("30 05 02 01 01 00 00") + reply(result(ldap_proto::kSearchDone)); })
      .on_request([](const std::string &) { return reply(result(ldap_proto::kDeleteResponse), hex("02 01 02")); })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  LDAPMessage *res = nullptr;
  struct timeval wait = {10, 0};
  EXPECT_EQ(ldap_search_st(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0, &wait, &res), LDAP_DECODING_ERROR);
  EXPECT_EQ(ldap_delete_s(ld, "cn=x"), LDAP_SUCCESS);
  EXPECT_EQ(ldap_count_messages(ld, res), 1);
  EXPECT_EQ(ldap_result2error(ld, res, 1), LDAP_DECODING_ERROR);
  ldap_unbind(ld);
}

std::string unsolicited(const std::string &text, const std::string &oid) {
  return reply(
      tlv(ldap_proto::kExtendedResponse, hex("0a 01 34") + tlv(ldap_proto::kOctetString, "") +
                                             tlv(ldap_proto::kOctetString, text) + tlv(ldap_proto::kResponseName, oid)),
      hex("02 01 00"));
}

// The server's notice of disconnection (the socket stays open) ends every
// wait on the connection at once with 81 and the server's text.
TEST(HostileServer, NoticeOfDisconnectionEndsEveryWaitWithTheServersText) {
  FakeServer fake;
  fake.on_request([](const std::string &) { return std::string(); })
      .on_request([](const std::string &) { return unsolicited("going down", "1.3.6.1.4.1.1466.20036"); })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  const int a = ldap_search(ld, "cn=a", 0, "(objectClass=*)", nullptr, 0);
  const int b = ldap_search(ld, "cn=b", 0, "(objectClass=*)", nullptr, 0);
  for (int id : {a, b}) {
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), -1) << id;
    char *text = nullptr;
    EXPECT_EQ(ldap_get_error_info(ld, nullptr, &text), LDAP_SERVER_DOWN);
    EXPECT_STREQ(text, "going down");
    ldap_memfree(text);
  }
  EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), LDAP_SERVER_DOWN);
  ldap_unbind(ld);
}

// A server sending its answer a byte at a time cannot stretch a call past its
// time-out (each wait for a byte used to restart the whole time-out).
TEST(HostileServer, ATimeOutBoundsTheWholeCallAgainstATrickle) {
  FakeServer fake;
  fake.on_request([](const std::string &) { return std::string(); })
      .trickle(tavtest::search_done(1), 300)
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  struct timeval one = {1, 0};
  LDAPMessage *res = nullptr;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ldap_search_st(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0, &one, &res), LDAP_TIMEOUT);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(seconds, 2.5);  // the whole answer takes about 4 s to trickle in
  EXPECT_EQ(res, nullptr);
  ldap_unbind(ld);
}

// A server that stops reading cannot hold a call past its time-out while the
// request is being written either; the half-written connection is given up.
TEST(HostileServer, ATimeOutBoundsTheWriteToAServerThatStopsReading) {
  setenv("LDAP_LIB_WRITE_TIMEOUT", "20", 1);  // without the deadline the write waits this long
  ldap_reset_write_timeout();
  FakeServer fake;
  fake.set_receive_buffer(4096);
  fake.gate().hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  const std::string filter = "(cn=" + std::string(32 << 20, 'a') + ")";
  struct timeval one = {1, 0};
  LDAPMessage *res = nullptr;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ldap_search_st(ld, "cn=x", 0, filter.c_str(), nullptr, 0, &one, &res), LDAP_TIMEOUT);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(seconds, 5.0);
  EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), LDAP_SERVER_DOWN);
  fake.open_gate();
  ldap_unbind(ld);
  unsetenv("LDAP_LIB_WRITE_TIMEOUT");
  ldap_reset_write_timeout();
}

// A call whose time runs out before a byte of its request could be written
// (the send buffer is full) fails with 85 and leaves the connection usable.
TEST(HostileServer, ATimeOutBeforeAnyByteIsWrittenLeavesTheConnectionOpen) {
  FakeServer fake;
  fake.set_receive_buffer(4096);
  fake.on_request([](const std::string &) { return reply(result(ldap_proto::kBindResponse)); })
      .gate()
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  ASSERT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
  const std::string filler(65536, '\0');  // the socket is non-blocking: fill it until it refuses
  while (write(ld->ld_defconn->lc_sb.sb_sd, filler.data(), filler.size()) > 0) {
  }
  struct timeval one = {1, 0};
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_st(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0, &one, &res), LDAP_TIMEOUT);
  EXPECT_EQ(conn_closed(ld->ld_defconn), 0);
  fake.open_gate();
  ldap_unbind(ld);
}

// Threads waiting on a silent server sleep: one blocks in select, the other
// on the table's condition variable (they polled every 100 us before).
TEST(HostileServer, WaitingOnASilentServerCostsNoCpu) {
  FakeServer fake;
  fake.on_request([](const std::string &) { return std::string(); })
      .on_request([](const std::string &) { return std::string(); })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  const int ids[2] = {ldap_search(ld, "cn=a", 0, "(objectClass=*)", nullptr, 0),
                      ldap_search(ld, "cn=b", 0, "(objectClass=*)", nullptr, 0)};
  double cpu_ms[2] = {0, 0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i)
    waiters.emplace_back([&, i] {
      auto thread_cpu_ms = [] {
        struct rusage ru;
        getrusage(RUSAGE_THREAD, &ru);
        return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3 + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e3;
      };
      const double before = thread_cpu_ms();
      struct timeval second = {1, 0};
      LDAPMessage *res = nullptr;
      EXPECT_EQ(ldap_result(ld, ids[i], LDAP_MSG_ALL, &second, &res), 0);
      cpu_ms[i] = thread_cpu_ms() - before;
    });
  for (auto &w : waiters) w.join();
  for (double ms : cpu_ms) EXPECT_LT(ms, 20.0) << "CPU of a thread waiting one second";
  ldap_unbind(ld);
}

// A server closing at any byte of any answer, the notice of disconnection
// included: every waiter gets 81, nothing
// leaks (LeakSanitizer), nothing hangs.
TEST(HostileServer, AServerClosingAtAnyByteGives81) {
  const std::string reference = tavtest::search_reference(1, "ldap://127.0.0.1:1/o=x");
  const std::pair<Op, std::string> answers[] = {
      {Op::kBind, reply(result(ldap_proto::kBindResponse))},
      {Op::kSaslBind, reply(result(ldap_proto::kBindResponse))},
      {Op::kSearch, kEntry + reference + reply(result(ldap_proto::kSearchDone))},
      {Op::kAdd, reply(result(ldap_proto::kAddResponse))},
      {Op::kDelete, reply(result(ldap_proto::kDeleteResponse))},
      {Op::kExtended, reply(tlv(ldap_proto::kExtendedResponse,
                                hex("0a 01 00") + kEmptyStrings + tlv(ldap_proto::kResponseValue, "dn:cn=x")))},
      {Op::kSearch, unsolicited("bye", "1.3.6.1.4.1.1466.20036")}};
  for (const auto &answer : answers)
    for (size_t cut = 0; cut < answer.second.size(); ++cut) {
      const Op op = answer.first;
      const std::string &whole = answer.second;
      SCOPED_TRACE(testing::Message() << static_cast<int>(op) << " cut at " << cut);
      FakeServer fake;
      fake.on_request([&](const std::string &) { return whole.substr(0, cut); }).close();
      LDAP *ld = ldap_init("127.0.0.1", fake.start());
      ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
      const int rc = call(op, ld);
      EXPECT_EQ(rc, LDAP_SERVER_DOWN);
      ldap_unbind(ld);
    }
}

// A server that closes as soon as it has accepted: the first request draws
// its reset, and writing the second must end the call with 81, never the
// program with SIGPIPE.
TEST(HostileServer, WritingToAServerThatHasGoneGives81NotSigpipe) {
  signal(SIGPIPE, SIG_DFL);
  FakeServer fake;
  fake.close();
  LDAP *ld = ldap_open("127.0.0.1", fake.start());
  ASSERT_NE(ld, nullptr);
  ASSERT_TRUE(fake.wait_done());  // closed: the client's socket has its end
  ASSERT_GT(ldap_search(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0), 0);
  pollfd reset{ld->ld_defconn->lc_sb.sb_sd, 0, 0};
  ASSERT_EQ(poll(&reset, 1, 10000), 1);  // the server's reset is in
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_s(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0, &res), LDAP_SERVER_DOWN);
  ldap_msgfree(res);
  ldap_unbind(ld);
}

// Other unsolicited messages do not pile up in the row nobody reads.
TEST(HostileServer, UnsolicitedMessagesAreKeptOnlyAFew) {
  std::string flood;
  for (int i = 0; i < 1000; ++i) flood += unsolicited("hello", "1.2.3");
  FakeServer fake;
  fake.on_request([&](const std::string &) { return flood + reply(result(ldap_proto::kBindResponse)); })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
  int kept = 0;
  for (LDAPMessage *m = ld->ld_defconn->lc_msgtable->rows[0].head; m != nullptr; m = m->lm_chain) ++kept;
  EXPECT_LE(kept, 16);
  EXPECT_GT(kept, 0);  // the newest stay for a reader of any message
  ldap_unbind(ld);
}

// IntermediateResponses belong to their request without ending it: handed
// out one at a time, left out of whole results, and only the newest few kept
// while nobody reads them (search 2's reader sorts search 1's flood).
TEST(HostileServer, IntermediateResponsesAreHandedOutAloneAndNeverFinal) {
  auto answer = [](int id, int intermediates) {
    std::string a = tavtest::search_entry(id, "cn=a");
    for (int i = 0; i < intermediates; ++i)
      a += tavtest::message(id, tlv(ldap_proto::kIntermediateResponse, tlv(ldap_proto::kIntermediateName, "1.2.3")));
    return a + tavtest::search_entry(id, "cn=b") + tavtest::search_done(id);
  };
  FakeServer fake;
  fake.on_request([](const std::string &) { return std::string(); })
      .on_request([&](const std::string &) { return answer(1, 1000) + answer(2, 1); })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  ASSERT_EQ(ldap_search(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0), 1);
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_s(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0, &res), 0);
  EXPECT_EQ(ldap_count_entries(ld, res), 2);
  EXPECT_EQ(ldap_count_messages(ld, res), 3);
  ldap_msgfree(res);
  std::vector<int> types, expected(18, LDAP_RES_INTERMEDIATE);
  expected.front() = expected[17] = LDAP_RES_SEARCH_ENTRY;
  expected.push_back(LDAP_RES_SEARCH_RESULT);
  for (LDAPMessage *m = nullptr; ldap_result(ld, 1, LDAP_MSG_ONE, nullptr, &m) > 0; ldap_msgfree(m))
    types.push_back(ldap_msgtype(m));
  EXPECT_EQ(types, expected);
  ldap_unbind(ld);
}

TEST(HostileServer, EveryAllocationFailureOnAReplyWithoutIdEndsInADocumentedCode) {
  const std::set<int> documented = {LDAP_DECODING_ERROR, LDAP_NO_MEMORY, LDAP_SERVER_DOWN, LDAP_LOCAL_ERROR};
  for (long n = 1; n < 200; ++n) {
    FakeServer fake;
    fake.on_request([](const std::string &) { return reply(result(ldap_proto::kBindResponse), hex("04 01 01")); })
        .hold_until_closed();
    LDAP *ld = ldap_init("127.0.0.1", fake.start());
    olx_fail_alloc_at(n);
    const int rc = ldap_simple_bind_s(ld, "cn=x", "secret");
    const long used = olx_fail_alloc_at(0);
    ldap_unbind(ld);
    EXPECT_TRUE(documented.count(rc)) << "allocation " << n << " gave " << rc;
    if (used < n) {
      EXPECT_EQ(rc, LDAP_DECODING_ERROR) << "no allocation failed";
      return;
    }
  }
  ADD_FAILURE() << "the sweep did not reach the end of the bind";
}

}  // namespace
