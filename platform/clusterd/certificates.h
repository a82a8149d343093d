// What a certificate of the cluster's authority proves, and to whom.
#ifndef TARN_PLATFORM_CLUSTERD_CERTIFICATES_H
#define TARN_PLATFORM_CLUSTERD_CERTIFICATES_H

#include <string>

struct ssl_st;

namespace tarn::platform {

// All three in PEM form.
struct Credentials {
  std::string certificate;
  std::string key;
  std::string authority;
};

// Whether the certificate is this member's: it bears the name and no other form of it, matches the key, and the
// authority has signed it and it is valid now. Answers 0 or -EKEYREJECTED.
int check_credentials(const Credentials &credentials, const std::string &name);

// Whether the server of a session made with the cluster's authority is the member of this name. Answers 0 or
// -EKEYREJECTED.
int check_server(ssl_st *session, const std::string &name);

// A signature that nobody can make without the key, and that is worth nothing on any other session. Empty on failure.
std::string sign_session(ssl_st *session, const std::string &key);

// Whether the client of a session that shows the certificate, which need not be a secret, has its key, too; and whether
// the authority has signed it and it is valid now. Answers 0 with the name it bears, or -EKEYREJECTED.
int check_client(ssl_st *session, const std::string &certificate, const std::string &signature,
                 const std::string &authority, std::string *name);

// Whether two texts hold the same certificate.
bool is_same_certificate(const std::string &first, const std::string &second);

}  // namespace tarn::platform

#endif
