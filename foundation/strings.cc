#include "include/tarncluster_util.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/report.h"

int Clone_String(const char *text, char **copy, int *length) {
  if (text == nullptr || copy == nullptr) return -EINVAL;
  const size_t text_length = strlen(text);
  *copy = static_cast<char *>(malloc(text_length + 1));
  if (*copy == nullptr) {
    TARN_DEBUG("Can't allocate memory error!");
    return -ENOMEM;
  }
  memcpy(*copy, text, text_length + 1);
  if (length != nullptr) *length = static_cast<int>(text_length);
  return 0;
}

// Never a negative answer: callers test for truth.
int Str_To_Bool(const char *text, int length) {
  if (text == nullptr || length < 0) return 0;
  return strncasecmp("TRUE", text, static_cast<size_t>(length)) == 0 ? 1 : 0;
}
