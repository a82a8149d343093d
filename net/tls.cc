#include "include/tarncluster_util.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

#include "foundation/deadline.h"
#include "foundation/owners.h"
#include "foundation/report.h"
#include "net/openssl_compat.h"

static_assert(sizeof(Tls_Session) == 32 && offsetof(Tls_Session, ctx) == 24);

namespace tarn {
namespace {

constexpr Tls_Session no_session = {-1, nullptr, nullptr, nullptr};

using Context = std::unique_ptr<SSL_CTX, Give_Back<SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Give_Back<SSL_free>>;

// Reports and cleaning up leave errno as the failed call set it: the line that follows shows it.
class Kept_Errno {
 public:
  Kept_Errno() = default;
  Kept_Errno(const Kept_Errno &) = delete;
  Kept_Errno &operator=(const Kept_Errno &) = delete;
  ~Kept_Errno() { errno = value_; }
  int value() const { return value_; }

 private:
  int value_ = errno;
};

// A session that breaks sets no errno when the trouble is in what the peer sent.
int failure_of(int error) {
  return error != 0 ? -error : -EPROTO;
}

// ---------------------------------------------------------------------------------------------------------- context

// Without a password there is none; OpenSSL would ask for one at the terminal.
int give_password(char *buffer, int size, int, void *password) {
  if (password == nullptr) return 0;
  const size_t length = strlen(static_cast<const char *>(password));
  if (size < 0 || length + 1 > static_cast<size_t>(size)) return 0;
  memcpy(buffer, password, length + 1);
  return static_cast<int>(length);
}

// A failure that set no errno is let through: callers' files that hold a key only are taken that way.
int load_chain(SSL_CTX *context, const char *certificate) {
  errno = 0;
  if (SSL_CTX_use_certificate_chain_file(context, certificate) == 1 || errno == 0) return 0;
  const Kept_Errno error;
  TARN_ERROR_AS("CTX_Initialize", "Can't read certificate file! (%d)", -error.value());
  return -error.value();
}

// The password is forgotten as soon as the key is there.
int load_key(SSL_CTX *context, const char *certificate, const char *password) {
  SSL_CTX_set_default_passwd_cb_userdata(context, const_cast<char *>(password));
  const bool loaded = SSL_CTX_use_PrivateKey_file(context, certificate, SSL_FILETYPE_PEM) == 1;
  SSL_CTX_set_default_passwd_cb_userdata(context, nullptr);
  if (loaded) return 0;
  const Kept_Errno error;
  TARN_ERROR_AS("CTX_Initialize", "Can't read key file!");
  return -ENOENT;
}

int load_authorities(SSL_CTX *context, const char *ca_list) {
  if (SSL_CTX_load_verify_locations(context, ca_list, nullptr) == 1) return 0;
  const Kept_Errno error;
  TARN_ERROR_AS("CTX_Initialize", "Can't read CA list!");
  return -ENOENT;
}

// -------------------------------------------------------------------------------------------------------- handshake

// One side of a handshake, under the name of the exported function that was called.
struct Side {
  const char *function;
  const char *word;
  int (*handshake)(SSL *);
};

struct Credentials {
  const char *certificate;
  const char *password;
  const char *ca_list;
  bool complete() const { return certificate != nullptr && password != nullptr && ca_list != nullptr; }
};

// The session takes the BIO, which leaves the socket open when it goes.
Session make_session(SSL_CTX *context, int fd, BIO **bio) {
  Session session(SSL_new(context));
  if (session == nullptr) return nullptr;
  *bio = BIO_new_socket(fd, BIO_NOCLOSE);
  if (*bio == nullptr) return nullptr;
  SSL_set_bio(session.get(), *bio, *bio);
  return session;
}

int shake_hands(const Side &side, SSL *session) {
  ERR_clear_error();
  errno = 0;
  const int result = side.handshake(session);
  if (result >= 1) return 0;
  const int error = errno;
  TARN_ERROR_AS(side.function, "SSL %s error! (%d, %d)", side.word, result, error);
  SSL_shutdown(session);
  ERR_clear_error();  // the next session must not find these
  return failure_of(error);
}

int start_session(const Side &side, const Credentials &credentials, Tls_Session *record) {
  SSL_CTX *made = nullptr;
  int status = CTX_Initialize(credentials.certificate, credentials.password, credentials.ca_list, &made);
  Context context(made);
  if (status != 0) {
    const int error = errno;
    TARN_ERROR_AS(side.function, "Can't Initialize_CTX error! (%d, %d)", status, error);
    return status;
  }
  BIO *bio = nullptr;
  Session session = make_session(context.get(), record->fd, &bio);
  if (session == nullptr) {
    ERR_clear_error();
    return -ENOMEM;
  }
  status = shake_hands(side, session.get());
  if (status != 0) return status;
  *record = {.fd = record->fd, .bio = bio, .ssl = session.release(), .ctx = context.release()};
  return 0;
}

// ------------------------------------------------------------------------------------------------ sending, receiving

bool is_plain(const Tls_Session *session) {
  return session->ctx == nullptr;
}

// What a count below 0 says lies before the buffer is received into here.
constexpr int64_t scratch_size = 4096;

// The next bytes of a message of which count bytes are there, no further than its end.
int receive_next(Tls_Session *session, char *buffer, int64_t count, int64_t length) {
  if (count >= 0) return SSL_Recv(session, buffer + count, static_cast<int>(length - count), 0);
  char scratch[scratch_size];
  return SSL_Recv(session, scratch, static_cast<int>(std::min(-count, scratch_size)), 0);
}

int receive_exactly(const char *function, Tls_Session *session, char *buffer, int length, int timeout_ms, int *count) {
  const uint64_t start = Rough_Tick();
  while (*count < length) {
    const int result = receive_next(session, buffer, *count, length);
    const int error = errno;
    if (result < 0 && error != EAGAIN) {
      const int failure = failure_of(error);
      TARN_ERROR_AS(function, "Can't receive error (%d, %d)!", failure, error);
      return failure;
    }
    if (result <= 0) {
      const uint64_t elapsed = Rough_Tick_Diff(start);
      if (is_past(elapsed, timeout_ms)) {
        TARN_ERROR_AS(function, "%s() timeout! Want %d bytes, got %d bytes! (%d, %lld)", function, length, *count,
                      error, static_cast<long long>(elapsed));
        errno = ETIME;
        return -ETIME;
      }
    }
    // The -1 of a time-out is counted too: the members on the other side send for it.
    if (result >= 0 || *count > INT_MIN) *count += result;
  }
  return *count;
}

}  // namespace
}  // namespace tarn

int CTX_Initialize(const char *certificate, const char *password, const char *ca_list, SSL_CTX **ctx) {
  if (ctx == nullptr) return -EINVAL;
  *ctx = nullptr;
  if (certificate == nullptr || password == nullptr || ca_list == nullptr) return -EINVAL;

  ERR_clear_error();
  if (!tarn::initialise_openssl()) return -ENOMEM;
  tarn::Context context(SSL_CTX_new(tarn::any_version()));
  if (context == nullptr) {
    ERR_clear_error();
    return -ENOMEM;
  }
  tarn::take_silent_end_as_end(context.get());
  SSL_CTX_set_default_passwd_cb(context.get(), tarn::give_password);

  int status = tarn::load_chain(context.get(), certificate);
  if (status == 0) status = tarn::load_key(context.get(), certificate, password);
  if (status == 0) status = tarn::load_authorities(context.get(), ca_list);
  const tarn::Kept_Errno error;
  ERR_clear_error();  // a load that was let through leaves its errors, too
  if (status == 0) *ctx = context.release();
  return status;
}

void CTX_Destroy(SSL_CTX *ctx) {
  SSL_CTX_free(ctx);
}

int SSL_Connect_Socket(const char *certificate, const char *password, const char *ca_list, Tls_Session *session) {
  const tarn::Credentials credentials = {certificate, password, ca_list};
  if (!credentials.complete() || session == nullptr || session->fd < 0) return -EINVAL;
  return tarn::start_session({__func__, "connect", SSL_connect}, credentials, session);
}

int SSL_Accept_Socket(const char *certificate, const char *password, const char *ca_list, Tls_Session *session) {
  const tarn::Credentials credentials = {certificate, password, ca_list};
  if (!credentials.complete() || session == nullptr || session->fd < 0) return -EINVAL;
  return tarn::start_session({__func__, "accept", SSL_accept}, credentials, session);
}

int SSL_Socket_Connect(const char *host, int port, int timeout_ms, const char *certificate, const char *password,
                       const char *ca_list, Tls_Session *session) {
  if (session == nullptr) return -EINVAL;
  // Never a socket without a context: that would be a record that speaks in the clear.
  *session = tarn::no_session;
  const tarn::Credentials credentials = {certificate, password, ca_list};
  if (host == nullptr || port < 0 || !credentials.complete()) return -EINVAL;

  int fd = -1;
  int status = TCP_Socket_Connect(nullptr, host, port, timeout_ms, &fd);
  tarn::Descriptor socket(fd);
  if (status != 0) {
    TARN_ERROR("Can't connect socket error! (%d)", status);
    return status;
  }
  Tls_Session made = {fd, nullptr, nullptr, nullptr};
  status = tarn::start_session({__func__, "connect", SSL_connect}, credentials, &made);
  if (status != 0) return status;
  socket.release();
  *session = made;
  return 0;
}

void SSL_Socket_Destroy(Tls_Session *session, int no_shutdown) {
  if (session == nullptr) return;
  ERR_clear_error();
  if (session->ssl != nullptr && no_shutdown == 0) SSL_shutdown(session->ssl);
  SSL_free(session->ssl);
  CTX_Destroy(session->ctx);
  ERR_clear_error();
  if (session->fd != -1) close(session->fd);
  *session = tarn::no_session;
}

int SSL_Recv(Tls_Session *session, void *buffer, int length, int flags) {
  if (session == nullptr || buffer == nullptr || length < 0) return -EINVAL;
  errno = 0;  // what was before is no reason of a failure, nor of an end
  if (tarn::is_plain(session)) {
    return static_cast<int>(recv(session->fd, buffer, static_cast<size_t>(length), flags));
  }
  ERR_clear_error();
  return (flags & MSG_PEEK) != 0 ? SSL_peek(session->ssl, buffer, length) : SSL_read(session->ssl, buffer, length);
}

int SSL_Send(Tls_Session *session, const void *buffer, int length, int flags) {
  if (session == nullptr || buffer == nullptr || length < 0) return -EINVAL;
  errno = 0;
  if (tarn::is_plain(session)) {
    return static_cast<int>(send(session->fd, buffer, static_cast<size_t>(length), flags));
  }
  ERR_clear_error();
  return SSL_write(session->ssl, buffer, length);
}

int Exactly_SSL_Peek(Tls_Session *session, void *buffer, int length, int timeout_ms) {
  if (session == nullptr || buffer == nullptr) return -EINVAL;
  if (length < 1) return 0;
  const uint64_t start = Rough_Tick();
  for (;;) {
    const int result = SSL_Recv(session, buffer, length, MSG_PEEK);
    const int error = errno;
    if (result == length) return length;
    if (result < 0) {
      const int failure = tarn::failure_of(error);
      TARN_ERROR("Can't receive error (%d, %d)!", failure, error);
      return failure;
    }
    if (tarn::is_past(Rough_Tick_Diff(start), timeout_ms)) {
      TARN_ERROR("Exactly_Peek() timeout! Want %d bytes, got %d bytes!", length, result);
      errno = ETIME;
      return -ETIME;
    }
  }
}

int Exactly_SSL_Recv(Tls_Session *session, void *buffer, int length, int timeout_ms) {
  if (session == nullptr || buffer == nullptr) return -EINVAL;
  int count = 0;
  if (length < 1) return 0;
  return tarn::receive_exactly(__func__, session, static_cast<char *>(buffer), length, timeout_ms, &count);
}

int Exactly_SSL_Recv_Ex(Tls_Session *session, void *buffer, int length, int timeout_ms, int *received) {
  if (session == nullptr || buffer == nullptr || received == nullptr) return -EINVAL;
  *received = 0;
  if (length < 1) return 0;
  return tarn::receive_exactly(__func__, session, static_cast<char *>(buffer), length, timeout_ms, received);
}

int Exactly_SSL_Send(Tls_Session *session, const void *buffer, size_t length, int flags) {
  if (session == nullptr || buffer == nullptr || length > INT_MAX) return -EINVAL;
  int sent = 0;
  while (sent < static_cast<int>(length)) {
    const int rest = static_cast<int>(length) - sent;
    const int result = SSL_Send(session, static_cast<const char *>(buffer) + sent, rest, flags);
    const int error = errno;
    if (result <= 0) {
      // Nothing sent of something is a peer that left; a time-out of the socket is told from other trouble.
      const int failure = result == 0 ? -EPIPE : error == EAGAIN ? -ETIME : tarn::failure_of(error);
      TARN_ERROR("Can't send error! (%d, %d)", failure, error);
      return failure;
    }
    if (result < rest) TARN_DEBUG("Not exactly send: %d, %d! Send again!", rest, result);
    sent += result;
  }
  return sent;
}
