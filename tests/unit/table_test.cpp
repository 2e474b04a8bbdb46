// The message-ID table on its own: identifiers, growth, the cursor, waiting
// for a free identifier, row ownership, sorting responses into rows, and
// freeing chains.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ldap-engine.h"
#include "ldap-protocol.h"
#include "trace_watch.h"

namespace {

class Table : public ::testing::Test {
 protected:
  void SetUp() override {
    ld = ldap_init("127.0.0.1", 9);  // nothing here touches the network
    ASSERT_NE(ld, nullptr);
    conn = get_default_connection(ld);
    table = conn->lc_msgtable;
  }
  void TearDown() override { ldap_unbind(ld); }

  // A request stored in its row, as an operation would leave it.
  int outstanding() {
    int id = ldap_msg_table_get_next_msgid(table);
    table->rows[id].request = message(id, ldap_proto::kSearchRequest);
    return id;
  }
  LDAPMessage *message(int id, int type) {
    LDAPMessage *m = ldap_msg_new(conn);
    m->lm_msgid = id;
    m->lm_msgtype = type;
    return m;
  }
  // Sorts responses into rows as a reader would.
  void arrive(std::initializer_list<std::pair<int, int>> msgs) {
    for (auto [id, type] : msgs) put_msg_in_queue(table, message(id, type));
    ASSERT_EQ(pthread_mutex_lock(&table->table_mutex), 0);
    flush_queue(table);
    pthread_mutex_unlock(&table->table_mutex);
  }
  int acquire(int id, int all) { return verify_msgid_n_acquire_row(ld, table, &id, all); }

  LDAP *ld = nullptr;
  LDAPConn *conn = nullptr;
  ldap_msg_table *table = nullptr;
};

TEST_F(Table, IdentifiersCountUpWrapToReleasedOnesAndGrowBy256) {
  EXPECT_EQ(table->size, 256u);
  for (int want = 1; want <= 10; ++want) ASSERT_EQ(ldap_msg_table_get_next_msgid(table), want);
  ldap_msg_table_release_msgid(table, 3);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 11);  // not 3: the cursor goes on
  for (int i = 12; i <= 255; ++i) ASSERT_EQ(ldap_msg_table_get_next_msgid(table), i);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 3);  // wrapped past the end
  ldap_msg_table_release_msgid(table, 2);              // free just before the cursor
  ldap_msg_table_release_msgid(table, 254);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 254);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 2);
  EXPECT_EQ(table->free_count, 1);  // row 0 only
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 256);
  EXPECT_EQ(std::make_pair(table->size, table->free_count), std::make_pair(512u, 256));
}

TEST_F(Table, FullTableWaitsUntilAnIdentifierIsReleased) {
  for (int i = 1; i <= 65535; ++i) ASSERT_EQ(ldap_msg_table_get_next_msgid(table), i);
  EXPECT_EQ(table->size, 65536u);
  std::atomic<int> got{0};
  std::thread waiter;
  {
    // The waiter traces its wait under the table lock and releases the lock
    // only inside the wait, so the release below comes after it.
    tavtest::TraceWatch trace(0x1);
    waiter = std::thread([&] { got = ldap_msg_table_get_next_msgid(table); });
    ASSERT_TRUE(trace.wait_for("waiting to get any free msg. No msgid available")) << "never waited";
  }
  EXPECT_EQ(got.load(), 0) << "handed out an identifier from a full table";
  ldap_msg_table_release_msgid(table, 777);
  waiter.join();
  EXPECT_EQ(got.load(), 777);
}

TEST_F(Table, RowIsServedOnlyToTheThreadThatOwnsIt) {
  int id = outstanding();
  ASSERT_EQ(acquire(id, LDAP_MSG_ONE), 0);
  std::thread([&] {
    EXPECT_NE(acquire(id, LDAP_MSG_ONE), 0);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_LOCAL_ERROR);
  }).join();
  EXPECT_EQ(acquire(id, LDAP_MSG_ALL), 0);  // the owner may come back
  EXPECT_EQ(acquire((int)table->size, LDAP_MSG_ONE), LDAP_PARAM_ERROR);
  EXPECT_NE(acquire(id + 1, LDAP_MSG_ONE), 0);  // no request under it
  EXPECT_NE(acquire(0, LDAP_MSG_ALL), 0);       // row 0 never completes
  EXPECT_EQ(acquire(0, LDAP_MSG_ONE), 0);
}

TEST_F(Table, AnyMessageWaitersAreSpreadOverOutstandingRequests) {
  int any = LDAP_RES_ANY;
  EXPECT_NE(verify_msgid_n_acquire_row(ld, table, &any, LDAP_MSG_ALL), 0);  // nothing outstanding
  EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
  any = LDAP_RES_ANY;
  ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &any, LDAP_MSG_ONE), 0);
  EXPECT_EQ(any, 0);  // the unsolicited row
  int a = outstanding(), b = outstanding(), c = outstanding();
  std::vector<int> chosen;
  for (int i = 0; i < 3; ++i)
    std::thread([&] {
      int id = LDAP_RES_ANY;
      ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ONE), 0);
      chosen.push_back(id);
    }).join();
  EXPECT_EQ(chosen, (std::vector<int>{a, b, c}));
  any = LDAP_RES_ANY;  // a thread that already serves a row keeps getting it
  ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &any, LDAP_MSG_ONE), 0);
  EXPECT_EQ(any, 0);
}

TEST_F(Table, ResponsesAreSortedIntoRowsOrDroppedAndGivenUpRowsReleased) {
  int id = outstanding();
  for (int bad : {id + 1, (int)table->size, -4}) {  // no request, beyond the table, negative
    LDAPMessage *m = message(bad, ldap_proto::kSearchDone);
    EXPECT_EQ(put_msg_in_table(table, m), LDAP_OTHER) << bad;
    free_msg(m, 0);
  }
  arrive({{id, ldap_proto::kSearchEntry},
          {0, ldap_proto::kExtendedResponse},
          {id, ldap_proto::kSearchDone},
          {id + 2, ldap_proto::kSearchEntry}});  // the last one is dropped
  ASSERT_NE(table->rows[id].head, nullptr);
  EXPECT_EQ(table->rows[id].head->lm_msgtype, ldap_proto::kSearchEntry);
  EXPECT_EQ(table->rows[id].tail->lm_msgtype, ldap_proto::kSearchDone);
  EXPECT_TRUE(table->rows[id].flags & LDAP_ROW_COMPLETE);
  ASSERT_NE(table->rows[0].head, nullptr);  // unsolicited notifications, never complete
  EXPECT_EQ(table->rows[0].flags & LDAP_ROW_COMPLETE, 0u);

  int given_up = outstanding();
  arrive({{given_up, ldap_proto::kSearchEntry}});
  table->rows[given_up].flags |= LDAP_ROW_RELEASE_WHEN_DONE;
  int free_before = table->free_count;
  arrive({{given_up, ldap_proto::kSearchEntry}, {given_up, ldap_proto::kSearchDone}});
  EXPECT_EQ(table->rows[given_up].flags, 0u);
  EXPECT_EQ(table->rows[given_up].head, nullptr);
  EXPECT_EQ(table->free_count, free_before + 1);
}

TEST_F(Table, FreeingMessagesReleasesTheRowWithTheLastOne) {
  int id = outstanding();
  arrive({{id, ldap_proto::kSearchEntry}, {id, ldap_proto::kSearchReference}, {id, ldap_proto::kSearchDone}});
  ASSERT_EQ(acquire(id, LDAP_MSG_ONE), 0);
  LDAPMessage *m[3];
  for (auto &msg : m) {
    struct timeval zero = {0, 0};
    int want = id;
    ASSERT_GT(ldap_msg_table_get_message(ld, table, &want, &zero, &msg), 0);
    msg->lm_flags |= LDAP_MSG_HANDED_ALONE;
  }
  EXPECT_EQ(ldap_next_message(ld, m[0]), nullptr);  // handed out alone: a chain of one
  EXPECT_EQ(ldap_count_messages(ld, m[0]), 1);
  EXPECT_EQ(ldap_msgfree(m[0]), ldap_proto::kSearchEntry);
  EXPECT_EQ(table->rows[id].head, m[1]);
  EXPECT_EQ(ldap_msgfree(m[2]), ldap_proto::kSearchDone);  // out of order: still not the last one
  EXPECT_TRUE(table->rows[id].flags & LDAP_ROW_IN_USE);
  EXPECT_EQ(ldap_msgfree(m[1]), ldap_proto::kSearchReference);
  EXPECT_EQ(table->rows[id].flags, 0u) << "row not released after its last message";

  int whole = outstanding();
  arrive({{whole, ldap_proto::kSearchEntry}, {whole, ldap_proto::kSearchReference}, {whole, ldap_proto::kSearchDone}});
  LDAPMessage *chain = table->rows[whole].head;
  table->rows[whole].next_unread = nullptr;  // as after LDAP_MSG_ALL delivered it
  EXPECT_EQ(ldap_count_messages(ld, chain), 3);
  EXPECT_EQ(ldap_msgid(chain), whole);
  EXPECT_EQ(ldap_msgfree(chain), ldap_proto::kSearchDone);
  EXPECT_EQ(table->rows[whole].flags, 0u);
  EXPECT_EQ(ldap_msgfree(nullptr), 0);
}

TEST(Messages, FinalResponseTypesAndTheWriteTimeOutSetting) {
  LDAPMessage m{};
  for (int type = 0x40; type < 0x90; ++type) {
    m.lm_msgtype = type;
    bool final = type == ldap_proto::kBindResponse || type == ldap_proto::kSearchDone ||
                 type == ldap_proto::kModifyResponse || type == ldap_proto::kAddResponse ||
                 type == ldap_proto::kDeleteResponse || type == ldap_proto::kModDNResponse ||
                 type == ldap_proto::kCompareResponse || type == ldap_proto::kExtendedResponse;
    EXPECT_EQ(is_last_msg(&m), final ? 1 : 0) << std::hex << type;
  }
  const std::pair<const char *, int> env[] = {{nullptr, -1}, {"0", -1}, {"-5", -1}, {"abc", -1}, {"5", 5}, {"12x", 12}};
  for (const auto &[value, seconds] : env) {
    value ? setenv("LDAP_LIB_WRITE_TIMEOUT", value, 1) : unsetenv("LDAP_LIB_WRITE_TIMEOUT");
    ldap_reset_write_timeout();
    EXPECT_EQ(ldap_get_write_timeout(), seconds) << (value ? value : "(unset)");
  }
  setenv("LDAP_LIB_WRITE_TIMEOUT", "9", 1);
  EXPECT_EQ(ldap_get_write_timeout(), 12) << "read once per process";
  unsetenv("LDAP_LIB_WRITE_TIMEOUT");
  ldap_reset_write_timeout();
}

}  // namespace
