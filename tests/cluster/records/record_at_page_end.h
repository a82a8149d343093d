// A record with nothing readable behind it: a step too far ends the test.
#pragma once

#include <sys/mman.h>

#include <cstdlib>

namespace tarn::test {

// The record's last byte is the last one of a page.
template <typename Record>
class Record_At_Page_End {
 public:
  Record_At_Page_End() {
    void *pages = mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED || mprotect(static_cast<char *>(pages) + room, page, PROT_NONE) != 0) abort();
    pages_ = static_cast<char *>(pages);
  }
  ~Record_At_Page_End() { munmap(pages_, room + page); }
  Record_At_Page_End(const Record_At_Page_End &) = delete;
  Record_At_Page_End &operator=(const Record_At_Page_End &) = delete;
  Record &get() { return *reinterpret_cast<Record *>(pages_ + room - sizeof(Record)); }

 private:
  static constexpr size_t page = 4096;
  static constexpr size_t room = (sizeof(Record) + page - 1) / page * page;

  char *pages_;
};

}  // namespace tarn::test
