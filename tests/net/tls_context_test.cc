// Contexts of TLS sessions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/net/tls_peer.h"
#include "tests/support/certificates.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string longest_password(1023, 'p');

// A context that is given back at the end.
class Context {
 public:
  explicit Context(const std::string &certificate, const std::string &password = "",
                   const std::string &ca_list = certificate_file("ca.pem"))
      : status(CTX_Initialize(certificate.c_str(), password.c_str(), ca_list.c_str(), &ctx)) {}
  ~Context() { CTX_Destroy(ctx); }
  Context(const Context &) = delete;
  Context &operator=(const Context &) = delete;

  SSL_CTX *ctx = reinterpret_cast<SSL_CTX *>(1);  // overwritten in any case
  const int status;
};

class Tls_Context : public Tls_Test {
 protected:
  void expect_failure(const std::string &certificate, const std::string &password, const std::string &ca_list,
                      int status, const std::string &text) {
    const Log_Capture log(1);
    const Context context(certificate, password, ca_list);
    EXPECT_EQ(context.status, status);
    EXPECT_EQ(context.ctx, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("CTX_Initialize", text)));
    EXPECT_EQ(ERR_peek_error(), 0U);
  }

  void expect_unusable_key(const std::string &name, const std::string &password = "") {
    expect_failure(certificate_file(name), password, certificate_file("ca.pem"), -ENOENT, "Can't read key file!");
  }

  // A user without rights finds all but this file.
  static int as_nobody_without(const std::string &name, const std::function<void()> &body) {
    chmod(certificate_file("").c_str(), 0755);
    chmod(certificate_file(name).c_str(), 0600);
    return in_child([&] {
      become_nobody();
      body();
    });
  }

  void expect_unusable_ca_list(const std::string &path) {
    expect_failure(certificate_file("plain.pem"), "", path, -ENOENT, "Can't read CA list!");
  }
};

TEST_F(Tls_Context, Is_made_of_a_certificate_its_key_and_authorities_without_a_word) {
  const Log_Capture log;
  const Context context(certificate_file("plain.pem"));
  ASSERT_EQ(context.status, 0);
  EXPECT_NE(SSL_CTX_get0_certificate(context.ctx), nullptr);
  EXPECT_EQ(SSL_CTX_check_private_key(context.ctx), 1);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tls_Context, Refuses_missing_arguments_before_anything_is_read) {
  const Log_Capture log;
  const std::string plain = certificate_file("plain.pem"), ca = certificate_file("ca.pem");
  SSL_CTX *ctx = nullptr;
  EXPECT_EQ(CTX_Initialize(nullptr, "", ca.c_str(), &ctx), -EINVAL);
  EXPECT_EQ(CTX_Initialize(plain.c_str(), nullptr, ca.c_str(), &ctx), -EINVAL);
  EXPECT_EQ(CTX_Initialize(plain.c_str(), "", nullptr, &ctx), -EINVAL);
  EXPECT_EQ(CTX_Initialize(plain.c_str(), "", ca.c_str(), nullptr), -EINVAL);
  EXPECT_EQ(ctx, nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tls_Context, Destroying_none_is_harmless) {
  CTX_Destroy(nullptr);
}

TEST_F(Tls_Context, Each_session_has_its_own) {
  const Context one(certificate_file("plain.pem")), other(certificate_file("plain.pem"));
  EXPECT_NE(one.ctx, other.ctx);
}

TEST_F(Tls_Context, Asks_for_no_verification_of_peers) {
  const Context context(certificate_file("plain.pem"));
  EXPECT_EQ(SSL_CTX_get_verify_mode(context.ctx), SSL_VERIFY_NONE);
}

TEST_F(Tls_Context, Bounds_no_protocol_version_of_its_own) {
  // What openssl.cnf says about versions goes for every context of the machine: compare with a bare one.
  SSL_CTX *bare = SSL_CTX_new(TLS_method());
  const Context context(certificate_file("plain.pem"));
  EXPECT_EQ(SSL_CTX_get_min_proto_version(context.ctx), SSL_CTX_get_min_proto_version(bare));
  EXPECT_EQ(SSL_CTX_get_max_proto_version(context.ctx), SSL_CTX_get_max_proto_version(bare));
  SSL_CTX_free(bare);
}

TEST_F(Tls_Context, Takes_an_encrypted_key_with_its_password) {
  const Log_Capture log;
  EXPECT_EQ(Context(certificate_file("encrypted.pem"), "secret").status, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tls_Context, A_wrong_password_makes_the_key_unreadable) {
  expect_unusable_key("encrypted.pem", "Secret");
  expect_unusable_key("encrypted.pem", "");
}

TEST_F(Tls_Context, A_password_may_have_1023_characters) {
  EXPECT_EQ(Context(certificate_file("longest.pem"), longest_password).status, 0);
}

TEST_F(Tls_Context, A_longer_password_is_none_and_is_not_cut) {
  expect_unusable_key("longest.pem", longest_password + "p");
  expect_unusable_key("longest.pem", longest_password + std::string(5000, 'p'));
}

TEST_F(Tls_Context, The_password_is_not_looked_at_after_the_call) {
  char password[] = "wrong!";
  SSL_CTX *ctx = nullptr;
  ASSERT_EQ(CTX_Initialize(certificate_file("plain.pem").c_str(), password, certificate_file("ca.pem").c_str(), &ctx),
            0);
  strcpy(password, "secret");
  EXPECT_NE(SSL_CTX_use_PrivateKey_file(ctx, certificate_file("encrypted.pem").c_str(), SSL_FILETYPE_PEM), 1);
  ERR_clear_error();
  CTX_Destroy(ctx);
}

TEST_F(Tls_Context, A_certificate_file_that_cannot_be_read_gives_its_errno) {
  expect_failure(certificate_file("missing.pem"), "", certificate_file("ca.pem"), -ENOENT,
                 "Can't read certificate file! (-2)");
  expect_failure(certificate_file("plain.pem") + "/x", "", certificate_file("ca.pem"), -ENOTDIR,
                 "Can't read certificate file! (-20)");
  expect_failure("/tmp", "", certificate_file("ca.pem"), -EISDIR, "Can't read certificate file! (-21)");
}

TEST_F(Tls_Context, A_certificate_file_without_permission_gives_its_errno) {
  EXPECT_EQ(as_nobody_without("chain.pem",
                              [this] {
                                expect_failure(certificate_file("chain.pem"), "", certificate_file("ca.pem"), -EACCES,
                                               "Can't read certificate file! (-13)");
                              }),
            0);
}

TEST_F(Tls_Context, A_stale_errno_does_not_decide_about_a_certificate_file) {
  errno = EPERM;
  expect_unusable_key("garbage.pem");
}

// Callers know a damaged certificate file by the key that is not to be had from it.
TEST_F(Tls_Context, A_damaged_certificate_file_is_let_through_to_the_key) {
  expect_unusable_key("garbage.pem");
  expect_unusable_key("empty.pem");
  expect_unusable_key("torn.pem");
}

TEST_F(Tls_Context, A_certificate_without_a_key_or_with_a_foreign_one_is_refused) {
  expect_unusable_key("certificate_only.pem");
  expect_unusable_key("mismatched.pem");
}

TEST_F(Tls_Context, A_file_with_only_a_key_is_a_context_without_a_certificate) {
  const Log_Capture log;
  const Context context(certificate_file("key_only.pem"));
  ASSERT_EQ(context.status, 0);
  EXPECT_EQ(SSL_CTX_get0_certificate(context.ctx), nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(ERR_peek_error(), 0U);
}

// OpenSSL refuses the certificate without an errno.
TEST_F(Tls_Context, A_certificate_that_is_too_weak_for_this_machine_is_left_out) {
  const Context context(certificate_file("weak.pem"));
  ASSERT_EQ(context.status, 0);
  EXPECT_EQ(SSL_CTX_get0_certificate(context.ctx), nullptr);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(Tls_Context, Authorities_that_cannot_be_read_are_refused) {
  expect_unusable_ca_list(certificate_file("missing.pem"));
  expect_unusable_ca_list(certificate_file("garbage.pem"));
  expect_unusable_ca_list(certificate_file("empty.pem"));
  expect_unusable_ca_list(certificate_file("key_only.pem"));
  expect_unusable_ca_list("/tmp");
}

TEST_F(Tls_Context, Authorities_without_permission_are_refused) {
  EXPECT_EQ(as_nobody_without("other_ca.pem", [this] { expect_unusable_ca_list(certificate_file("other_ca.pem")); }),
            0);
}

TEST_F(Tls_Context, Stale_errors_of_other_code_spoil_nothing) {
  ERR_put_error(ERR_LIB_USER, 0, ERR_R_INTERNAL_ERROR, __FILE__, __LINE__);
  errno = EAGAIN;
  EXPECT_EQ(Context(certificate_file("plain.pem")).status, 0);
  ERR_clear_error();
}

}  // namespace
