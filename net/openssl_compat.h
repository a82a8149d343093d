// The few names that differ between OpenSSL 1.0, which the appliance has, and 1.1 and later.
#pragma once

#include <openssl/ssl.h>

namespace tarn {

#if OPENSSL_VERSION_NUMBER < 0x10100000L

inline bool initialise_openssl() {
  static bool initialised = false;
  if (!initialised) {
    SSL_library_init();
    SSL_load_error_strings();
    initialised = true;
  }
  return true;
}

inline const SSL_METHOD *any_version() {
  return SSLv23_method();
}

#else

inline bool initialise_openssl() {
  return OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr) == 1;
}

inline const SSL_METHOD *any_version() {
  return TLS_method();
}

#endif

// A peer that goes without a word reads as the end of its stream, as it always has with 1.0: 3.0 makes it an error that
// sets no errno.
inline void take_silent_end_as_end([[maybe_unused]] SSL_CTX *context) {
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
  SSL_CTX_set_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
}

}  // namespace tarn
