// The members' share lists as they lie on this appliance, told apart by digests: so the master finds out who has missed
// one.
#ifndef TARN_PLATFORM_CLUSTERD_SHARE_LISTS_H
#define TARN_PLATFORM_CLUSTERD_SHARE_LISTS_H

#include <map>
#include <string>

#include "platform/clusterd/io.h"
#include "platform/clusterd/member_list.h"

namespace tarn::platform {

using Share_List_Digests = std::map<std::string, std::string>;  // by the member's id

class Share_Lists {
 public:
  // Of these members' lists. One that is not there, or is empty, is left out. A file that has not changed since the
  // last time is not read again.
  Share_List_Digests look(const Member_List &members);

 private:
  struct Known {
    std::string state;
    std::string digest;
  };
  std::map<std::string, Known> known_;
};

std::string text_of_digests(const Share_List_Digests &digests);
Share_List_Digests parse_digests(const std::string &text);

// The command that has a slave store a member's list as it lies here. Answers 0 or a negative code, -ENODATA when the
// list lacks something that receivers want.
int make_list_command(const std::string &id, const std::string &slave, Message *command);

}  // namespace tarn::platform

#endif
