// What the cluster's operations find on an appliance: its own files, its role, its addresses and its sync service.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace tarn::test {

inline const std::string cluster_folder = "/mnt/tarncluster/config";
inline const std::string kept_folder = "/etc/config/tarn_cluster";
inline const std::string identity_file = cluster_folder + "/tarn_cluster_s.conf";
inline const std::string kept_identity_file = kept_folder + "/tarn_cluster_s.conf";
inline const std::string slaves_file = cluster_folder + "/tarn_service_s.conf";
inline const std::string kept_slaves_file = kept_folder + "/tarn_service_s.conf";
inline const std::string master_file = cluster_folder + "/tarn_service_m.conf";
inline const std::string kept_master_file = kept_folder + "/tarn_service_m.conf";
inline const std::string share_folder = cluster_folder + "/share_list";
inline const std::string samba_file = "/etc/config/smb.conf";
inline const std::string system_file = "/etc/config/Gavrix.conf";
inline const std::string quota_file = "/etc/config/usr_quota.conf";

// Of the interfaces that there are besides "lo", which has no IPv6 address; every member's address but these is far.
inline const std::string own_address = "10.77.0.25";
inline const std::string other_own_address = "10.78.0.1";
inline const std::string own_ipv6_address = "fd00:77::25";

// A member's record with what decides whether the master sends to it: by default it does.
struct Member {
  std::string name;
  std::string address = "10.77.9.9";
  int status = 1;
  int pid = -1;  // -1: of a living process
};

std::string section_of(const Member &member);

// The absolute files of a throw-away root. Each object begins with none of them, in folders that exist, with neither
// role, and in the end looks whether a lock or a temporary file was left behind.
class Appliance {
 public:
  Appliance();
  ~Appliance();
  Appliance(const Appliance &) = delete;
  Appliance &operator=(const Appliance &) = delete;

  static void be_master();
  static void be_slave();
  static void set_id(const std::string &id);  // that of the slave, in its working copy and in the kept one
  static void set_members(const std::vector<Member> &members);

  // Every file there is, in both folders, with its content: nothing was changed when it is the same.
  static std::vector<std::string> all_files();

  // What the sync service was called with so far, and where its output went ("reload > /dev/null 2> /dev/null"). Waits
  // until each call has ended.
  static std::vector<std::string> sync_service_runs();
};

// Holds the sync service's calls back. In the end they must still be there: nobody was made to wait for them.
class Sync_Service_Held {
 public:
  Sync_Service_Held();
  ~Sync_Service_Held();
  Sync_Service_Held(const Sync_Service_Held &) = delete;
  Sync_Service_Held &operator=(const Sync_Service_Held &) = delete;
};

// Keeps a file from being replaced: folders stand at the names of its temporary files.
class Unwritable {
 public:
  explicit Unwritable(const std::string &path);
  ~Unwritable();
  Unwritable(const Unwritable &) = delete;
  Unwritable &operator=(const Unwritable &) = delete;

 private:
  std::string folders_[2];
};

inline const std::string reloaded = "reload > /dev/null 2> /dev/null";
inline const std::string restarted = "restart > /dev/null 2> /dev/null";

// The lines that a function reports; others, of what it stands on, are passed over.
std::vector<Log_Line> lines_of(const Log_Capture &log, const std::string &function);

// A handler's answer; "(null)" when there is none.
std::string answer_of(char *(*handler)(const char *), const std::string &argument);
std::string answers(int code);  // { "return": CODE }

// A heap text that is given back.
struct Freed {
  void operator()(char *text) const;
};
using Owned_Text = std::unique_ptr<char, Freed>;

}  // namespace tarn::test
