#include "bench/support/sample_files.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace tarn::bench {

std::string section_name(int place) {
  char name[32];
  snprintf(name, sizeof name, "member%05d", place);
  return name;
}

std::string conf_text(int section_count) {
  std::string text;
  for (int i = 0; i < section_count; ++i) {
    char section[512];
    snprintf(section, sizeof section,
             "[member%05d]\nType = 2\nID = %05d\nStatus = 0\nName = n%05d\nSID = S%05d\nHostName = tarn-%05d\n"
             "Address = 10.10.0.11\nWebPort = 8080\nSslWebPort = 443\nPID = 1234\nUsrCnt = 12\nQuota = 1099511627776\n"
             "Model = TX-4\nLastBackup = 1700000000\n\n",
             i, i, i, i, i);
    text += section;
  }
  return text;
}

Sample_File::Sample_File(const std::string &folder, const std::string &name, const std::string &content)
    : path_(folder + "/" + name) {
  fill(content);
}

Sample_File::~Sample_File() {
  unlink(path_.c_str());
}

void Sample_File::fill(const std::string &content) const {
  std::ofstream file(path_, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.flush()) {
    fprintf(stderr, "cannot write %s\n", path_.c_str());
    abort();
  }
}

std::string disk_folder() {
  const char *folder = getenv("TARN_BENCH_DISK");
  return folder != nullptr ? folder : "";
}

}  // namespace tarn::bench
