// The members as the cluster's operations see them: the files that hold their records, this appliance's own part, and
// the master's broadcast to the slaves that run.
#pragma once

#include <memory>
#include <string_view>

#include "cluster/ops/command.h"

namespace tarn {

// The working copies, and those that outlive the cluster's shared folder.
inline constexpr const char *slaves_file = "/mnt/tarncluster/config/tarn_service_s.conf";
inline constexpr const char *kept_slaves_file = "/etc/config/tarn_cluster/tarn_service_s.conf";
inline constexpr const char *master_file = "/mnt/tarncluster/config/tarn_service_m.conf";
inline constexpr const char *kept_master_file = "/etc/config/tarn_cluster/tarn_service_m.conf";

using Member_List = std::unique_ptr<Tarn_Serv_Conf, Give_Back<Release_Serv_List_Conf>>;

// By the role flags; an appliance may be both.
bool is_master();
bool is_slave();

// A member's name fills its field without a terminator when it is as long as that.
std::string_view name_of(const Tarn_Serv_Conf &member);

// Runs a command of the shell's whose end tells nothing; what goes into it is quoted.
void run_command(const char *command);

// Runs the appliance's sync service with "reload" or "restart", and does not wait for it.
void reload_sync_service();
void restart_sync_service();

// Reads the members, and reports a failure and an empty list under the function's name. Returns the read's status: 0
// also for an empty list.
int read_members(const char *function, Member_List *members);

// Reads one member, and reports why not under the function's name. Returns the read's status.
int read_member(const char *function, const char *id, Member_List *member);

// One command to every running slave but the one that it is about.
struct Broadcast {
  const char *function;  // under which it reports
  const char *handler;   // on the slaves
  const char *subject;   // "... for broadcast SUBJECT!"
  const char *action;    // "Broadcast ACTION to slave ..."
  json_object *replies;  // an array that collects the slaves' replies; may be null
};

// Sends the argument to the slaves, one after another. Returns the last send's result; `code` when there is no slave to
// send to.
int broadcast(const Broadcast &what, const Tarn_Serv_Conf *members, const char *about_id, const char *argument,
              int code);

// The same on the master, to the members that it reads; elsewhere nothing. A failed read is the result.
int broadcast_from_master(const Broadcast &what, const char *about_id, const char *argument, int code);

// A slave's answer to the master: parsed and logged. Null with a report when it is no JSON.
Json parse_slave_reply(const Broadcast &what, const char *slave_id, const char *reply);

}  // namespace tarn
