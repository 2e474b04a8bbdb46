// The message-ID table on its own: identifiers, growth, the cursor, waiting
// for a free identifier, row ownership, sorting responses into rows, and
// freeing chains.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ldap-engine.h"

namespace {

class Table : public ::testing::Test {
 protected:
  void SetUp() override {
    // No connection is opened: nothing here touches the network.
    ld = ldap_init("127.0.0.1", 9);
    ASSERT_NE(ld, nullptr);
    conn = get_default_connection(ld);
    ASSERT_NE(conn, nullptr);
    table = conn->lc_msgtable;
    ASSERT_NE(table, nullptr);
  }
  void TearDown() override { ldap_unbind(ld); }

  // A request stored in its row, as an operation would leave it.
  int outstanding(int type = 0x63) {
    int id = ldap_msg_table_get_next_msgid(table);
    LDAPMessage *req = ldap_msg_new(conn);
    req->lm_msgid = id;
    req->lm_msgtype = type;
    table->rows[id].request = req;
    return id;
  }
  LDAPMessage *response(int id, int type) {
    LDAPMessage *m = ldap_msg_new(conn);
    m->lm_msgid = id;
    m->lm_msgtype = type;
    return m;
  }
  // Sorts responses into rows as a reader would.
  void arrive(std::initializer_list<LDAPMessage *> msgs) {
    for (LDAPMessage *m : msgs) put_msg_in_queue(table, m);
    ASSERT_EQ(pthread_mutex_lock(&table->table_mutex), 0);
    flush_queue(table);
    pthread_mutex_unlock(&table->table_mutex);
  }
  LDAPMessage *next_for(int id) {
    LDAPMessage *m = nullptr;
    struct timeval zero = {0, 0};
    EXPECT_GT(ldap_msg_table_get_message(ld, table, &id, &zero, &m), 0);
    return m;
  }

  LDAP *ld = nullptr;
  LDAPConn *conn = nullptr;
  ldap_msg_table *table = nullptr;
};

TEST_F(Table, IdentifiersCountUpAndTheTableGrowsBy256) {
  EXPECT_EQ(table->size, 256u);
  for (int want = 1; want <= 255; ++want) ASSERT_EQ(ldap_msg_table_get_next_msgid(table), want);
  EXPECT_EQ(table->size, 256u);
  EXPECT_EQ(table->free_count, 1);  // row 0 only
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 256);
  EXPECT_EQ(table->size, 512u);
  EXPECT_EQ(table->free_count, 256);
}

TEST_F(Table, CursorMovesOnAndWrapsToReleasedIdentifiers) {
  for (int i = 1; i <= 10; ++i) ldap_msg_table_get_next_msgid(table);
  ldap_msg_table_release_msgid(table, 3);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 11);  // not 3: the cursor goes on
  for (int i = 12; i <= 255; ++i) ASSERT_EQ(ldap_msg_table_get_next_msgid(table), i);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 3);  // wrapped past the end
  // The only free identifier sits just before the cursor.
  ldap_msg_table_release_msgid(table, 2);
  ldap_msg_table_release_msgid(table, 254);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 254);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), 2);
}

TEST_F(Table, FullTableBlocksUntilAnIdentifierIsReleased) {
  for (int i = 1; i <= 65535; ++i) ASSERT_EQ(ldap_msg_table_get_next_msgid(table), i);
  EXPECT_EQ(table->size, 65536u);
  std::atomic<int> got{0};
  std::thread waiter([&] { got = ldap_msg_table_get_next_msgid(table); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(got.load(), 0) << "handed out an identifier from a full table";
  ldap_msg_table_release_msgid(table, 777);
  waiter.join();
  EXPECT_EQ(got.load(), 777);
}

TEST_F(Table, RowIsServedOnlyToTheThreadThatOwnsIt) {
  int id = outstanding();
  int mine = id;
  ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &mine, LDAP_MSG_ONE), 0);
  int code = 0;
  std::thread other([&] {
    int theirs = id;
    EXPECT_NE(verify_msgid_n_acquire_row(ld, table, &theirs, LDAP_MSG_ONE), 0);
    code = ldap_get_errno(ld);
  });
  other.join();
  EXPECT_EQ(code, LDAP_LOCAL_ERROR);
  // The owner may come back as often as it likes.
  EXPECT_EQ(verify_msgid_n_acquire_row(ld, table, &mine, LDAP_MSG_ALL), 0);
  // Identifiers out of range or without request are parameter errors.
  int bad = (int)table->size;
  EXPECT_EQ(verify_msgid_n_acquire_row(ld, table, &bad, LDAP_MSG_ONE), LDAP_PARAM_ERROR);
  int unused = id + 1;
  EXPECT_NE(verify_msgid_n_acquire_row(ld, table, &unused, LDAP_MSG_ONE), 0);
  int zero = 0;
  EXPECT_NE(verify_msgid_n_acquire_row(ld, table, &zero, LDAP_MSG_ALL), 0);
  EXPECT_EQ(verify_msgid_n_acquire_row(ld, table, &zero, LDAP_MSG_ONE), 0);
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
  for (int i = 0; i < 3; ++i) {
    std::thread t([&] {
      int id = LDAP_RES_ANY;
      ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &id, LDAP_MSG_ONE), 0);
      chosen.push_back(id);
    });
    t.join();
  }
  EXPECT_EQ(chosen, (std::vector<int>{a, b, c}));
  // A thread that already serves a row keeps getting it.
  int again = LDAP_RES_ANY;
  ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &again, LDAP_MSG_ONE), 0);
  EXPECT_EQ(again, 0);
}

TEST_F(Table, ResponsesAreSortedIntoRowsOrDropped) {
  int id = outstanding();
  LDAPMessage *entry = response(id, 0x64), *done = response(id, 0x65);
  LDAPMessage *orphan = response(id + 1, 0x65);
  EXPECT_EQ(put_msg_in_table(table, orphan), LDAP_OTHER) << "no request under that ID";
  free_msg(orphan, 0);
  LDAPMessage *too_big = response((int)table->size, 0x65);
  EXPECT_EQ(put_msg_in_table(table, too_big), LDAP_OTHER);
  LDAPMessage *negative = response(-4, 0x65);
  EXPECT_EQ(put_msg_in_table(table, negative), LDAP_OTHER);
  free_msg(too_big, 0);
  free_msg(negative, 0);
  arrive({entry, response(0, 0x78), done, response(id + 2, 0x64)});  // the last one is dropped by the flush
  EXPECT_EQ(table->rows[id].head, entry);
  EXPECT_EQ(table->rows[id].tail, done);
  EXPECT_TRUE(table->rows[id].flags & LDAP_ROW_COMPLETE);
  // ID 0 collects unsolicited notifications and never completes.
  ASSERT_NE(table->rows[0].head, nullptr);
  EXPECT_EQ(table->rows[0].flags & LDAP_ROW_COMPLETE, 0u);
}

TEST_F(Table, RowGivenUpOnIsReleasedWhenItsResultArrives) {
  int id = outstanding();
  arrive({response(id, 0x64)});
  table->rows[id].flags |= LDAP_ROW_RELEASE_WHEN_DONE;
  int free_before = table->free_count;
  arrive({response(id, 0x64), response(id, 0x65)});
  EXPECT_EQ(table->rows[id].flags, 0u);
  EXPECT_EQ(table->rows[id].head, nullptr);
  EXPECT_EQ(table->free_count, free_before + 1);
}

TEST_F(Table, FreeingMessagesHandedOutAloneReleasesTheRowAtTheEnd) {
  int id = outstanding();
  arrive({response(id, 0x64), response(id, 0x73), response(id, 0x65)});
  int owner = id;
  ASSERT_EQ(verify_msgid_n_acquire_row(ld, table, &owner, LDAP_MSG_ONE), 0);
  LDAPMessage *m[3];
  for (auto &msg : m) {
    msg = next_for(id);
    msg->lm_flags |= LDAP_MSG_HANDED_ALONE;
  }
  EXPECT_EQ(ldap_next_message(ld, m[0]), nullptr);  // a message handed out alone is a chain of one
  EXPECT_EQ(ldap_count_messages(ld, m[0]), 1);
  EXPECT_EQ(ldap_msgfree(m[0]), 0x64);
  EXPECT_EQ(table->rows[id].head, m[1]);
  EXPECT_TRUE(table->rows[id].flags & LDAP_ROW_IN_USE);
  EXPECT_EQ(ldap_msgfree(m[2]), 0x65);  // out of order: still not the last one in the row
  EXPECT_TRUE(table->rows[id].flags & LDAP_ROW_IN_USE);
  EXPECT_EQ(ldap_msgfree(m[1]), 0x73);
  EXPECT_EQ(table->rows[id].flags, 0u) << "row not released after its last message";
}

TEST_F(Table, FreeingAWholeChainReleasesTheRow) {
  int id = outstanding();
  arrive({response(id, 0x64), response(id, 0x73), response(id, 0x65)});
  LDAPMessage *chain = table->rows[id].head;
  table->rows[id].next_unread = nullptr;  // as after LDAP_MSG_ALL delivered it
  EXPECT_EQ(ldap_count_messages(ld, chain), 3);
  EXPECT_EQ(ldap_msgid(chain), id);
  EXPECT_EQ(ldap_msgfree(chain), 0x65);
  EXPECT_EQ(table->rows[id].flags, 0u);
  EXPECT_EQ(ldap_msgfree(nullptr), 0);
  EXPECT_EQ(ldap_msg_table_get_next_msgid(table), id + 1);
}

TEST(Messages, FinalResponseTypes) {
  LDAPMessage m{};
  for (int type = 0x40; type < 0x90; ++type) {
    m.lm_msgtype = type;
    bool final = type == 0x61 || type == 0x65 || type == 0x67 || type == 0x69 || type == 0x6B || type == 0x6D ||
                 type == 0x6F || type == 0x78;
    EXPECT_EQ(is_last_msg(&m), final ? 1 : 0) << std::hex << type;
  }
}

TEST(Messages, WriteTimeOutFromTheEnvironment) {
  struct Case {
    const char *value;
    int seconds;
  } cases[] = {{nullptr, -1}, {"0", -1}, {"-5", -1}, {"abc", -1}, {"5", 5}, {"12x", 12}};
  for (const auto &c : cases) {
    if (c.value)
      setenv("LDAP_LIB_WRITE_TIMEOUT", c.value, 1);
    else
      unsetenv("LDAP_LIB_WRITE_TIMEOUT");
    ldap_reset_write_timeout();
    EXPECT_EQ(ldap_get_write_timeout(), c.seconds) << (c.value ? c.value : "(unset)");
  }
  setenv("LDAP_LIB_WRITE_TIMEOUT", "9", 1);
  EXPECT_EQ(ldap_get_write_timeout(), 12) << "read once per process";
  unsetenv("LDAP_LIB_WRITE_TIMEOUT");
  ldap_reset_write_timeout();
}

}  // namespace
