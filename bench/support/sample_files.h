// The files that the benchmarks work on.
#pragma once

#include <string>

namespace tarn::bench {

// The usual size, 1.1 MiB as text, and ten times it.
inline constexpr int sections = 5000;
inline constexpr int tenfold_sections = 50000;

// Configuration text of sections with 14 keys each, 230 bytes a section.
std::string conf_text(int section_count);

// The name of a section, by its place from 0 on.
std::string section_name(int place);

// A file that is there for the life of its owner.
class Sample_File {
 public:
  Sample_File(const std::string &folder, const std::string &name, const std::string &content = "");
  ~Sample_File();
  Sample_File(const Sample_File &) = delete;
  Sample_File &operator=(const Sample_File &) = delete;

  const char *path() const { return path_.c_str(); }
  void fill(const std::string &content) const;

 private:
  std::string path_;
};

// In memory, where a figure is that of the code and the system calls, not of a disk.
inline const std::string memory_folder = "/tmp";

// On a disk; empty when none was named (scripts/bench names one).
std::string disk_folder();

}  // namespace tarn::bench
