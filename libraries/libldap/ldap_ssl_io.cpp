// The toolkit's I/O callbacks: blocking-style reads and writes during the
// handshake within a time budget (and the call's deadline), plain reads and
// writes afterwards, and the hooks the stream layer reads through.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "fber-stream.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"


namespace {

constexpr int kHandshakeIo = TAV_SOC_HANDSHAKE_IO;
constexpr int kNormalIo = TAV_SOC_NORMAL_IO;

// The stream layer reaches the toolkit through these; a Sockbuf only has a
// cell once the toolkit is loaded, and a loaded toolkit stays loaded.
int stream_read(void *cell, char *buf, int count, int *got) {
  return tav_fn.secure_soc_read(*static_cast<tav_handle *>(cell), buf, count, got);
}
int stream_write(void *cell, const char *buf, int count, int *written) {
  return tav_fn.secure_soc_write(*static_cast<tav_handle *>(cell), buf, count, written);
}
struct StreamHooks {
  StreamHooks() {
    fber_ssl_read_hook = stream_read;
    fber_ssl_write_hook = stream_write;
    fber_ssl_strerror_hook = tav_error_text;
  }
} stream_hooks;

// Decimal value of the callback user string; -1 when it holds none.
int user_command(const char *user) {
  char text[8];
  memcpy(text, user, 7);
  text[7] = '\0';
  char *end = nullptr;
  long v = strtol(text, &end, 10);
  return end != text ? (int)v : -1;
}

bool handshake_mode(const char *user) { return user == nullptr || user_command(user) == kHandshakeIo; }

// The handshake's budget is kept on the monotonic clock: a step of the
// wall clock neither stretches nor cuts it.
void monotonic_now(struct timeval *out) {
  const int64_t now = ldap_monotonic_ns();
  out->tv_sec = (time_t)(now / 1000000000);
  out->tv_usec = (suseconds_t)(now % 1000000000 / 1000);
}

// now - then, normalised; false when now is earlier.
bool elapsed_since(const struct timeval *now, const struct timeval *then, struct timeval *out) {
  long sec = now->tv_sec - then->tv_sec;
  long usec = now->tv_usec - then->tv_usec;
  if (usec < 0) {
    usec += 1000000;
    --sec;
  }
  if (sec < 0) return false;
  out->tv_sec = sec;
  out->tv_usec = usec;
  return true;
}

// Waits for the socket in handshake mode: 1 ready; 0 budget used up (traced,
// errno EIO); 2 the wait timed out after `*waited`; -1 select failed.
int handshake_wait(int fd, bool for_write, struct timeval *budget, struct timeval *last, const char *who,
                   struct timeval *waited) {
  struct timeval now;
  monotonic_now(&now);
  if (ldap_ssl_budget_spend(budget, last, &now)) {
    LDAP_LOG(LDAP_LOG_ERROR, "%s: SSL handshake timed out after: %ld.%06ld sec\n", who,
             (long)LDAP_SSL_HANDSHAKE_BUDGET_SEC, (long)LDAP_SSL_HANDSHAKE_BUDGET_USEC);
    errno = EIO;
    return 0;
  }
  // The whole handshake ends with the call (and the network time-out), not
  // only each callback with its budget.
  struct timeval call_left;
  const bool call_bounded = ldap_deadline_left_tv(ldap_call_deadline(), &call_left) != nullptr;
  if (call_bounded && call_left.tv_sec == 0 && call_left.tv_usec == 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "%s: SSL handshake ended by the call's time-out\n", who);
    errno = EIO;
    return 0;
  }
  if (fd < 0 || fd >= FD_SETSIZE) {
    errno = EBADF;
    return -1;
  }
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  *waited = call_bounded && timercmp(&call_left, budget, <) ? call_left : *budget;
  struct timeval wait = *waited;
  int rc = for_write ? select(fd + 1, nullptr, &set, nullptr, &wait) : select(fd + 1, &set, nullptr, nullptr, &wait);
  if (rc < 0) return -1;
  if (rc == 0) {
    errno = EIO;
    return 2;
  }
  return 1;
}

}  // namespace

extern "C" {

int ldap_ssl_budget_spend(struct timeval *budget, struct timeval *last, const struct timeval *now) {
  struct timeval elapsed;
  if (!elapsed_since(now, last, &elapsed)) return 1;
  *last = *now;
  if (timercmp(&elapsed, budget, >)) return 1;
  timersub(budget, &elapsed, budget);
  return 0;
}

int ssl_set_socket_options(int fd, int command, char *user) {
  if (user != nullptr) {
    if (user_command(user) == command) return 0;
    char text[16];
    int n = snprintf(text, sizeof text, "%d", command);
    if (n < 0 || n > 7) return -1;
    memcpy(user, text, (size_t)n + 1);
  }
  if (command != kHandshakeIo && command != kNormalIo) return -1;
  int flags = fcntl(fd, F_GETFL);
  return fcntl(fd, F_SETFL, flags == -1 ? O_NONBLOCK : flags | O_NONBLOCK);
}

int ssl_read(int fd, void *buffer, int length, char *user) {
  LDAP_LOG(LDAP_LOG_NET, "ssl_read: -----> Entering ssl_read\n");
  if (!handshake_mode(user)) {
    LDAP_LOG(LDAP_LOG_NET, "ssl_read: <----- Leaving ssl_read\n");
    return (int)read(fd, buffer, (size_t)(length > 0 ? length : 0));
  }
  LDAP_LOG(LDAP_LOG_NET, "ssl_read: SSL handshake num_bytes=%d\n", length);
  struct timeval budget = {LDAP_SSL_HANDSHAKE_BUDGET_SEC, LDAP_SSL_HANDSHAKE_BUDGET_USEC};
  struct timeval last;
  monotonic_now(&last);
  char *at = static_cast<char *>(buffer);
  int done = 0;
  while (done < length) {
    ssize_t n = read(fd, at + done, (size_t)(length - done));
    if (n == 0) {
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: <----- Leaving ssl_read rc=%d\n", 0);
      return 0;
    }
    if (n > 0) {
      done += (int)n;
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_read: in SSL handshake errno=%d EWOULDBLOCK=%d EAGAIN=%d\n", errno,
               EWOULDBLOCK, EAGAIN);
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: rc=%d\n", -1);
      return -1;
    }
    struct timeval waited;
    int w = handshake_wait(fd, false, &budget, &last, "ssl_read", &waited);
    if (w < 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ssl_read: Error select failed with INVALID_SOCKET: errno = %d \n", errno);
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: rc=%d\n", -1);
      return -1;
    }
    if (w == 0) {
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: rc=%d\n", -1);
      errno = EIO;
      return -1;
    }
    if (w == 2) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_read: select timed out after: %ld.%06ld sec\n", (long)waited.tv_sec,
               (long)waited.tv_usec);
      errno = EIO;
      return -1;
    }
    LDAP_LOG(LDAP_LOG_NET, "ssl_read: select returned rc=%d\n", w);
  }
  LDAP_LOG(LDAP_LOG_NET, "ssl_read: <----- Leaving ssl_read rc=%d\n", length);
  return length;
}

int ssl_write(int fd, const void *buffer, int length, char *user) {
  // send without SIGPIPE: the toolkit's close alert may go to a server that has already gone.
  if (!handshake_mode(user)) return (int)send(fd, buffer, (size_t)(length > 0 ? length : 0), MSG_NOSIGNAL);
  LDAP_LOG(LDAP_LOG_NET, "ssl_write: SSL handshake num_bytes=%d\n", length);
  struct timeval budget = {LDAP_SSL_HANDSHAKE_BUDGET_SEC, LDAP_SSL_HANDSHAKE_BUDGET_USEC};
  struct timeval last;
  monotonic_now(&last);
  const char *at = static_cast<const char *>(buffer);
  int done = 0;
  while (done < length) {
    ssize_t n = send(fd, at + done, (size_t)(length - done), MSG_NOSIGNAL);
    if (n >= 0) {
      done += (int)n;
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_write: in SSL handshake errno=%d EWOULDBLOCK=%d EAGAIN=%d\n", errno,
               EWOULDBLOCK, EAGAIN);
      LDAP_LOG(LDAP_LOG_NET, "ssl_write: rc=%d\n", -1);
      return -1;
    }
    struct timeval waited;
    int w = handshake_wait(fd, true, &budget, &last, "ssl_write", &waited);
    if (w < 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_write: select failed: %d \n", errno);
      return -1;
    }
    if (w == 0) return -1;
    if (w == 2) {
      LDAP_LOG(LDAP_LOG_ERROR, "ssl_write: select timed out after: %ld.%06ld sec\n", (long)waited.tv_sec,
               (long)waited.tv_usec);
      errno = EIO;
      return -1;
    }
    LDAP_LOG(LDAP_LOG_NET, "ssl_write: select rc=%d\n", w);
  }
  LDAP_LOG(LDAP_LOG_NET, "ssl_write: <----- Leaving ssl_write rc=%d\n", length);
  return length;
}
}
