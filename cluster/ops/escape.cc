#include "cluster/ops/escape.h"

#include <cstdlib>
#include <cstring>

#include "foundation/report.h"

namespace tarn {

int Remove_Escape(const char *text, char **copy) {
  *copy = static_cast<char *>(malloc(strlen(text) + 1));
  if (*copy == nullptr) {
    TARN_ERROR("Can't allocate memory for remove escape function!");
    return 0;
  }
  char *end = *copy;
  for (; *text != '\0'; ++text) {
    if (*text != '\\') *end++ = *text;
  }
  *end = '\0';
  return static_cast<int>(end - *copy);
}

}  // namespace tarn
