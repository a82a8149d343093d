// The members' records on this appliance: both copies of the members' file, and of the master's.
#ifndef TARN_PLATFORM_CLUSTERD_MEMBER_RECORDS_H
#define TARN_PLATFORM_CLUSTERD_MEMBER_RECORDS_H

#include <map>
#include <string>

#include "platform/clusterd/member_list.h"

namespace tarn::platform {

// Each answers 0 or a negative code; what changes both copies goes on after a failure and answers the first one.

// Who is in the working copy; an empty list when there is none.
int read_members(Member_List *list);

// Adds a member's record; the fields of one that is there stay. With first, it becomes the first record.
int add_member(const Member_Entry &entry, bool first = false);

// -ENOANO when it is in neither copy.
int delete_member(const std::string &id);

// Adds who is missing and deletes who is not in the list, with their share lists; the list's first is made the first.
int apply_list(const Member_List &list);

// -ENOANO when the member has no record.
int set_address(const std::string &id, const std::string &address);

// Whether the link to a member is up, in the working copy only, and only where it is not said so already. Members
// without a record are passed over.
int mark_presence(const std::map<std::string, bool> &is_up);

// Removes a member's share list.
void delete_share_list(const std::string &id);

// The master's address, in the section of the member whose files these are. The kept copy counts: a change goes there
// first. -ENODATA or another code when there is none.
int read_master_address(const std::string &section, std::string *address);
int write_master_address(const std::string &section, const std::string &address);

// Puts the kept copies in place of working copies that are lost, and the other way round.
void restore_lost_copies();

// Something that is another one once the members' file has changed.
std::string state_of_members_file();

}  // namespace tarn::platform

#endif
