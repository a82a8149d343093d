#ifndef TARN_PLATFORM_CLUSTERD_DIGEST_H
#define TARN_PLATFORM_CLUSTERD_DIGEST_H

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <string_view>

namespace tarn::platform {

// SHA-256 of bytes as they come.
class Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    is_good_ = context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
  }

  void add(std::string_view bytes) {
    is_good_ = is_good_ && EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
  }

  // The digest's 32 bytes; empty when it could not be made. To be called once.
  std::string finish() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (!is_good_ || EVP_DigestFinal_ex(context_.get(), bytes, &size) != 1) return {};
    return {reinterpret_cast<const char *>(bytes), size};
  }

  // The same in hexadecimal digits.
  std::string finish_as_text() {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : finish()) {
      text += digits[static_cast<unsigned char>(c) >> 4];
      text += digits[static_cast<unsigned char>(c) & 15];
    }
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
  bool is_good_ = false;
};

}  // namespace tarn::platform

#endif
