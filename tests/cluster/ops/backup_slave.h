// What a backup finds on a slave: its files, the packer and the notices.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::test {

inline const std::string own_id = "QNself01";
inline const std::string identity_file = "/mnt/tarncluster/config/tarn_cluster_s.conf";
inline const std::string master_file = "/mnt/tarncluster/config/tarn_service_m.conf";
inline const std::string home_folder = "/etc/config/tarn_cluster/home";
inline const std::string backup_folder = home_folder + "/backup";
inline const std::string result_file = backup_folder + "/" + own_id + ".result";
inline const std::string task_file = "/tmp/druvosrv/tarn_backup.conf";
inline const std::string packer = "/sbin/druvosrv_tool";

// Each object begins with a slave of a cluster that never made a backup, and in the end waits until every process has
// ended; the test is ended when one does not within two minutes.
class Backup_Slave {
 public:
  Backup_Slave();
  ~Backup_Slave();
  Backup_Slave(const Backup_Slave &) = delete;
  Backup_Slave &operator=(const Backup_Slave &) = delete;

  // What the packer prints when it is asked, time after time; the last one from then on.
  static void answer(const std::vector<std::string> &answers);
  static void pack_for_ever();  // the packer does not end by itself
  static int times_asked();

  // The arguments of each start of the packer, and where its output goes. Waits until all processes have ended.
  static std::vector<std::string> packed();

  // Each notice that was posted, its arguments in a line; by whatever process.
  static std::vector<std::string> notices();

  static std::vector<pid_t> children();
  static int wait_for(pid_t child);  // its wait status
  static void wait_for_all();
};

}  // namespace tarn::test
