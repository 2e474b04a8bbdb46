// LDAPMessage records and the chains they form inside message-ID table rows.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"

namespace {
// A record's type until its protocolOp is known: the envelope's.
constexpr int kUntyped = (int)ldap_proto::kSequence;

// What follows the record of a compact message, before its contents.  A
// kept result is mostly these, so every byte counts: the tag is one octet
// (the reader refuses longer ones), and the message's copies of the
// translation settings are one octet each (0 or 1, 2 or 3), read through
// setting_cells.
struct CompactTail {
  uint32_t len;
  uint32_t start;  // offset of the first unread byte
  uint8_t tag;
  uint8_t noxlate;
  uint8_t version;
};
constexpr size_t kTailAt = (sizeof(LDAPMessage) + alignof(CompactTail) - 1) & ~(alignof(CompactTail) - 1);
// The contents start right after the last field, not after the padding.
constexpr size_t kTailBytes = offsetof(CompactTail, version) + 1;

// An element's settings are read through pointers to 32-bit cells; a compact
// message's point here (never written through: a view is only read).
struct SettingCells {
  int32_t value[256];
  constexpr SettingCells() : value() {
    for (int i = 0; i < 256; ++i) value[i] = i;
  }
};
SettingCells setting_cells;  // constant-initialised

CompactTail *tail_of(const LDAPMessage *msg) {
  return reinterpret_cast<CompactTail *>(reinterpret_cast<char *>(const_cast<LDAPMessage *>(msg)) + kTailAt);
}
char *contents_of(const LDAPMessage *msg) { return reinterpret_cast<char *>(tail_of(msg)) + kTailBytes; }

bool owns(const LDAPMessage *from, const LDAPMessage *target) {
  for (const LDAPMessage *m = from; m != nullptr; m = m->lm_chain)
    if (m == target) return true;
  return false;
}
}  // namespace

extern "C" {

LDAPMessage *ldap_msg_new(LDAPConn *conn) {
  auto *msg = static_cast<LDAPMessage *>(olx_calloc(1, sizeof(LDAPMessage)));
  if (msg == nullptr) return nullptr;
  msg->lm_msgtype = kUntyped;
  msg->lm_conn = conn;
  return msg;
}

LDAPMessage *ldap_msg_new_reading(LDAP *ld, LDAPConn *conn) {
  constexpr size_t at = (sizeof(LDAPMessage) + alignof(BerElement) - 1) & ~(alignof(BerElement) - 1);
  auto *msg = static_cast<LDAPMessage *>(olx_calloc(1, at + fber_reading_size()));
  if (msg == nullptr) return nullptr;
  msg->lm_msgtype = kUntyped;
  msg->lm_conn = conn;
  msg->lm_flags = LDAP_MSG_ONE_BLOCK;
  msg->lm_ber = fber_init_reading_at(reinterpret_cast<char *>(msg) + at, ld->ld_xlate, ld->ld_version);
  return msg;
}

LDAPMessage *ldap_msg_new_compact(LDAP *ld, LDAPConn *conn, unsigned tag, const char *contents, ber_len_t len) {
  auto *msg = static_cast<LDAPMessage *>(olx_malloc(kTailAt + kTailBytes + len + 1));
  if (msg == nullptr) return nullptr;
  memset(msg, 0, sizeof *msg);
  msg->lm_msgtype = kUntyped;
  msg->lm_conn = conn;
  msg->lm_flags = LDAP_MSG_COMPACT;
  // Field by field: the padding after the last one is where the contents go.
  CompactTail *tail = tail_of(msg);
  tail->len = (uint32_t)len;
  tail->start = 0;
  tail->tag = (uint8_t)tag;
  tail->noxlate = (uint8_t)ld->ld_xlate;  // options keep both within 0..3
  tail->version = (uint8_t)ld->ld_version;
  char *bytes = contents_of(msg);
  memcpy(bytes, contents, len);
  bytes[len] = '\0';
  return msg;
}

BerElement *ldap_msg_ber(const LDAPMessage *msg, BerElement *view) {
  if (!(msg->lm_flags & LDAP_MSG_COMPACT)) return msg->lm_ber;
  CompactTail *tail = tail_of(msg);
  memset(view, 0, sizeof *view);
  view->ber_buf = contents_of(msg);
  view->ber_ptr = view->ber_buf + tail->start;
  view->ber_end = view->ber_buf + tail->len;
  view->ber_tag = tail->tag;
  view->ber_len = tail->len;
  view->ber_options = FBER_MARK;
  view->ber_noxlate = &setting_cells.value[tail->noxlate];
  view->ber_version = &setting_cells.value[tail->version];
  return view;
}

void ldap_msg_set_start(LDAPMessage *msg, const char *at) {
  if (msg->lm_flags & LDAP_MSG_COMPACT) tail_of(msg)->start = (uint32_t)(at - contents_of(msg));
}

void free_msg(LDAPMessage *msg, int all) {
  LDAP_LOG(LDAP_LOG_TRACE, "free_msg: msg(%p), all(%d)\n", (void *)msg, all);
  while (msg != nullptr) {
    LDAPMessage *next = msg->lm_chain;
    if (msg->lm_flags & LDAP_MSG_ONE_BLOCK)
      fber_release(msg->lm_ber);
    else
      fber_free(msg->lm_ber);
    free(msg);
    if (!all) break;
    msg = next;
  }
}

int is_last_msg(LDAPMessage *msg) {
  if (msg == nullptr) return 0;
  int last = ldap_proto::is_final_response(msg->lm_msgtype);
  LDAP_LOG(LDAP_LOG_TRACE,
           last ? "is_last_msg: returning TRUE, msgid=%d\n" : "is_last_msg: returning FALSE, msgid=%d\n",
           msg->lm_msgid);
  return last;
}

int ldap_msgfree_direct(LDAPMessage *msg) {
  if (msg == nullptr || msg->lm_conn == nullptr) return 0;
  ldap_msg_table *table = msg->lm_conn->lc_msgtable;
  if (table == nullptr) return 0;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return 0;
  const bool alone = (msg->lm_flags & LDAP_MSG_HANDED_ALONE) != 0;
  // The type of the last message freed: the message itself, or its chain's end.
  int type = msg->lm_msgtype;
  if (!alone)
    for (const LDAPMessage *m = msg; m != nullptr; m = m->lm_chain) type = m->lm_msgtype;
  const int id = msg->lm_msgid;
  if (id >= 0 && (uint32_t)id < table->size) {
    ldap_msg_row *row = &table->rows[id];
    if (row->head == msg) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_msgfree_direct: removing head message\n");
      if (alone) {
        row->head = msg->lm_chain;
        if (row->head != nullptr)
          row->head->lm_prev = nullptr;
        else
          row->tail = nullptr;
        if (row->next_unread == msg) row->next_unread = msg->lm_chain;
        msg->lm_chain = msg->lm_prev = nullptr;
      } else {
        if (row->tail != nullptr) type = row->tail->lm_msgtype;
        row->head = row->tail = row->next_unread = nullptr;
      }
    } else if (owns(row->head, msg)) {
      LDAPMessage *prev = msg->lm_prev;
      if (alone) {
        if (prev != nullptr) prev->lm_chain = msg->lm_chain;
        if (msg->lm_chain != nullptr) msg->lm_chain->lm_prev = prev;
        if (row->tail == msg) row->tail = prev;
        if (row->next_unread == msg) row->next_unread = msg->lm_chain;
        msg->lm_chain = msg->lm_prev = nullptr;
      } else {
        if (row->tail != nullptr) type = row->tail->lm_msgtype;
        // Whatever was still unread goes with the cut-off tail of the chain.
        if (owns(msg, row->next_unread)) row->next_unread = nullptr;
        row->tail = prev;
        if (prev != nullptr) prev->lm_chain = nullptr;
        msg->lm_prev = nullptr;
      }
    }
    // A message no longer in its row (row released meanwhile) is simply freed.
    if ((row->flags & LDAP_ROW_COMPLETE) && row->head == nullptr) ldap_msg_table_release_msgid_direct(table, id);
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  free_msg(msg, 1);
  return type;
}

int ldap_msgfree(LDAPMessage *msg) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msgfree entered, msg=%p\n", (void *)msg);
  if (msg == nullptr) return 0;
  if (msg->lm_conn == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msgfree: server pointer NULL\n");
    return 0;
  }
  LDAP *ld = msg->lm_conn->lc_ld;
  if (ld == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_msgfree: ld pointer NULL\n");
    return 0;
  }
  OperationScope bracket(ld);
  if (bracket.refused()) return 0;
  int type = ldap_msgfree_direct(msg);
  return type;
}

LDAPMessage *ldap_first_message_direct(LDAP *, LDAPMessage *res) { return res; }

LDAPMessage *ldap_first_message(LDAP *ld, LDAPMessage *res) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_first_message: ld(%p) res(%p)\n", (void *)ld, (void *)res);
  OperationScope bracket(ld);
  if (bracket.refused()) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  LDAPMessage *first = ldap_first_message_direct(ld, res);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_first_message: returning (%p)\n", (void *)first);
  return first;
}

LDAPMessage *ldap_next_message_direct(LDAP *, LDAPMessage *msg) {
  if (msg == nullptr || (msg->lm_flags & LDAP_MSG_HANDED_ALONE)) return nullptr;
  return msg->lm_chain;
}

LDAPMessage *ldap_next_message(LDAP *ld, LDAPMessage *msg) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_message: ld(%p) msg(%p)\n", (void *)ld, (void *)msg);
  OperationScope bracket(ld);
  if (bracket.refused()) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  LDAPMessage *next = ldap_next_message_direct(ld, msg);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_message: returning (%p)\n", (void *)msg);
  return next;
}

int ldap_count_messages_direct(LDAP *, LDAPMessage *res) {
  if (res == nullptr) return 0;
  if (res->lm_flags & LDAP_MSG_HANDED_ALONE) return 1;
  int n = 0;
  for (LDAPMessage *m = res; m != nullptr; m = m->lm_chain) ++n;
  return n;
}

int ldap_count_messages(LDAP *ld, LDAPMessage *res) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_messages: ld(%p) res(%p)\n", (void *)ld, (void *)res);
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  int n = ldap_count_messages_direct(ld, res);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_messages: returning (%d)\n", n);
  return n;
}

int ldap_msgid(LDAPMessage *msg) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_msgid: msg(%p)\n", (void *)msg);
  return msg ? msg->lm_msgid : -1;
}

int ldap_msgtype(LDAPMessage *msg) { return msg ? msg->lm_msgtype : 0; }

void ldap_msg_release_msgid(LDAPMessage *request) {
  if (request == nullptr || request->lm_conn == nullptr || request->lm_conn->lc_msgtable == nullptr) return;
  ldap_msg_table_release_msgid(request->lm_conn->lc_msgtable, request->lm_msgid);
}
}
