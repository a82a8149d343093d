#include "platform/clusterd/certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <memory>

namespace tarn::platform {

namespace {

template <auto release>
struct Release {
  template <typename T>
  void operator()(T *object) const {
    release(object);
  }
};
using Bio = std::unique_ptr<BIO, Release<BIO_free>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using Store = std::unique_ptr<X509_STORE, Release<X509_STORE_free>>;
using Verification = std::unique_ptr<X509_STORE_CTX, Release<X509_STORE_CTX_free>>;
using Names = std::unique_ptr<GENERAL_NAMES, Release<GENERAL_NAMES_free>>;
using Signing = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;

constexpr unsigned int kExactName = X509_CHECK_FLAG_NO_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT;

// What OpenSSL found wrong is in the answer; the next call must not find it in the queue.
class Clean_Queue {
 public:
  Clean_Queue() { ERR_clear_error(); }
  ~Clean_Queue() { ERR_clear_error(); }
  Clean_Queue(const Clean_Queue &) = delete;
  Clean_Queue &operator=(const Clean_Queue &) = delete;
};

Bio reader_of(const std::string &text) {
  return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// An encrypted key must not make OpenSSL ask at the terminal.
int no_password(char *, int, int, void *) {
  return 0;
}

Certificate certificate_from(const std::string &text) {
  return Certificate(PEM_read_bio_X509(reader_of(text).get(), nullptr, no_password, nullptr));
}

Key key_from(const std::string &text) {
  return Key(PEM_read_bio_PrivateKey(reader_of(text).get(), nullptr, no_password, nullptr));
}

bool is_signed_by(X509 *certificate, const std::string &authority_text) {
  const Certificate authority = certificate_from(authority_text);
  const Store store(X509_STORE_new());
  const Verification verification(X509_STORE_CTX_new());
  return authority && store && verification && X509_STORE_add_cert(store.get(), authority.get()) == 1 &&
         X509_STORE_CTX_init(verification.get(), store.get(), certificate, nullptr) == 1 &&
         X509_verify_cert(verification.get()) == 1;
}

bool bears_name(X509 *certificate, const std::string &name) {
  return X509_check_host(certificate, name.c_str(), name.size(), kExactName, nullptr) == 1;
}

// A member's certificate bears exactly one name.
std::string only_name(X509 *certificate) {
  const Names names(
      static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  if (!names || sk_GENERAL_NAME_num(names.get()) != 1) return {};
  const GENERAL_NAME *name = sk_GENERAL_NAME_value(names.get(), 0);
  if (name->type != GEN_DNS) return {};
  return {reinterpret_cast<const char *>(ASN1_STRING_get0_data(name->d.dNSName)),
          static_cast<size_t>(ASN1_STRING_length(name->d.dNSName))};
}

// Bytes that both ends of a session know, nobody else, and no other session has.
std::string secret_of(ssl_st *session) {
  constexpr char label[] = "EXPORTER-tarncluster-membership";
  std::string secret(32, '\0');
  const int result = SSL_export_keying_material(session, reinterpret_cast<unsigned char *>(secret.data()),
                                                secret.size(), label, sizeof(label) - 1, nullptr, 0, 0);
  return result == 1 ? secret : "";
}

const unsigned char *bytes_of(const std::string &text) {
  return reinterpret_cast<const unsigned char *>(text.data());
}

}  // namespace

int check_credentials(const Credentials &credentials, const std::string &name) {
  const Clean_Queue clean_queue;
  const Certificate certificate = certificate_from(credentials.certificate);
  const Key key = key_from(credentials.key);
  const bool fits = certificate && key && X509_check_private_key(certificate.get(), key.get()) == 1 &&
                    only_name(certificate.get()) == name && is_signed_by(certificate.get(), credentials.authority);
  return fits ? 0 : -EKEYREJECTED;
}

int check_server(ssl_st *session, const std::string &name) {
  const Clean_Queue clean_queue;
  const Certificate certificate(SSL_get1_peer_certificate(session));
  const bool is_it = certificate && SSL_get_verify_result(session) == X509_V_OK && bears_name(certificate.get(), name);
  return is_it ? 0 : -EKEYREJECTED;
}

std::string sign_session(ssl_st *session, const std::string &key_text) {
  const Clean_Queue clean_queue;
  const Key key = key_from(key_text);
  const Signing signing(EVP_MD_CTX_new());
  const std::string secret = secret_of(session);
  size_t size = 0;
  if (!key || !signing || secret.empty() ||
      EVP_DigestSignInit(signing.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
      EVP_DigestSign(signing.get(), nullptr, &size, bytes_of(secret), secret.size()) != 1)
    return {};
  std::string signature(size, '\0');
  if (EVP_DigestSign(signing.get(), reinterpret_cast<unsigned char *>(signature.data()), &size, bytes_of(secret),
                     secret.size()) != 1)
    return {};
  signature.resize(size);
  return signature;
}

int check_client(ssl_st *session, const std::string &certificate_text, const std::string &signature,
                 const std::string &authority, std::string *name) {
  const Clean_Queue clean_queue;
  const Certificate certificate = certificate_from(certificate_text);
  const Signing checking(EVP_MD_CTX_new());
  const std::string secret = secret_of(session);
  const bool is_it =
      certificate && checking && !secret.empty() && is_signed_by(certificate.get(), authority) &&
      EVP_DigestVerifyInit(checking.get(), nullptr, EVP_sha256(), nullptr, X509_get0_pubkey(certificate.get())) == 1 &&
      EVP_DigestVerify(checking.get(), bytes_of(signature), signature.size(), bytes_of(secret), secret.size()) == 1;
  if (!is_it) return -EKEYREJECTED;
  *name = only_name(certificate.get());
  return 0;
}

bool is_same_certificate(const std::string &first, const std::string &second) {
  const Clean_Queue clean_queue;
  const Certificate one = certificate_from(first);
  const Certificate other = certificate_from(second);
  return one && other && X509_cmp(one.get(), other.get()) == 0;
}

}  // namespace tarn::platform
