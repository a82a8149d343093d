// The members of a cluster as they are told to others, the master's entry first, then the slaves in order of joining.
#ifndef TARN_PLATFORM_CLUSTERD_MEMBER_LIST_H
#define TARN_PLATFORM_CLUSTERD_MEMBER_LIST_H

#include <string>
#include <string_view>
#include <vector>

namespace tarn::platform {

struct Member_Entry {
  std::string id;
  std::string address;
  std::string host_name;  // may be empty
  int number = 0;         // 0 is the master
};
using Member_List = std::vector<Member_Entry>;

constexpr size_t kLongestMemberList = 4096;  // entries

// What may stand in a record and be used as an address: a host's name or its address as text.
bool is_address(std::string_view text);

// What may stand in a record as a host's name.
bool is_host_name(std::string_view text);

std::string text_of_list(const Member_List &list);

// Answers 0 or -EINVAL, also when an entry is no member's, is there twice, or there is none.
int parse_list(const std::string &text, Member_List *list);

// Tells two lists apart by who is in them in which order.
std::string digest_of_list(const Member_List &list);

}  // namespace tarn::platform

#endif
