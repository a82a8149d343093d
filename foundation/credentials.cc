#include "include/tarncluster_util.h"

#include <crypt.h>
#include <shadow.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tarn {
namespace {

constexpr size_t hash_length = 22;
constexpr int salt_length = 8;

// crypt answers null, or a text that begins with "*", for a salt that it does not take.
const char *hash_under(const char *text, const char *salt) {
  const char *hash = crypt(text, salt);
  return hash != nullptr && hash[0] != '*' ? hash : nullptr;
}

// In the same time whatever the texts have in common.
bool are_equal(const char *a, const char *b) {
  const size_t length = strlen(a);
  if (strlen(b) != length) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < length; ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace
}  // namespace tarn

int Encrypt_String(const char *text, char *hash) {
  if (text == nullptr || hash == nullptr) return -EINVAL;

  char salt[sizeof "$1$" + tarn::salt_length + 1];
  snprintf(salt, sizeof salt, "$1$%.*s$", tarn::salt_length, text);
  const char *whole = tarn::hash_under(text, salt);
  if (whole == nullptr) return -EINVAL;
  // crypt ends the salt at a "$" of the text's own, so the hash is what stands behind the last one.
  const char *dollar = strrchr(whole, '$');
  if (dollar == nullptr || strlen(dollar + 1) != tarn::hash_length) return -EINVAL;
  memcpy(hash, dollar + 1, tarn::hash_length + 1);
  return 0;
}

int Authentication_Check(const char *user, const char *password) {
  if (user == nullptr || password == nullptr) return -EINVAL;

  const spwd *entry = getspnam(user);
  if (entry == nullptr) return -ENOANO;
  const char *stored = entry->sp_pwdp;
  if (stored == nullptr || stored[0] == '\0') return -EBADSLT;
  const char *hash = tarn::hash_under(password, stored);
  return hash != nullptr && tarn::are_equal(hash, stored) ? 0 : -EBADSLT;
}
