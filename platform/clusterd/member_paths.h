// Where a member keeps what it knows of its cluster: a working copy, and a kept copy that survives the loss of it.
#ifndef TARN_PLATFORM_CLUSTERD_MEMBER_PATHS_H
#define TARN_PLATFORM_CLUSTERD_MEMBER_PATHS_H

namespace tarn::platform {

constexpr char kMasterFlag[] = "/var/zopel/tarn_cluster_m.enable";
constexpr char kSlaveFlag[] = "/var/zopel/tarn_cluster_s.enable";

constexpr char kWorkingFolder[] = "/mnt/tarncluster/config";
constexpr char kKeptFolder[] = "/etc/config/tarn_cluster";

constexpr char kIdentityFile[] = "/mnt/tarncluster/config/tarn_cluster_s.conf";
constexpr char kKeptIdentityFile[] = "/etc/config/tarn_cluster/tarn_cluster_s.conf";

// The records of all members, the master's first; and where the master is reached.
constexpr char kMembersFile[] = "/mnt/tarncluster/config/tarn_service_s.conf";
constexpr char kKeptMembersFile[] = "/etc/config/tarn_cluster/tarn_service_s.conf";
constexpr char kMasterFile[] = "/mnt/tarncluster/config/tarn_service_m.conf";
constexpr char kKeptMasterFile[] = "/etc/config/tarn_cluster/tarn_service_m.conf";

constexpr char kShareListFolder[] = "/mnt/tarncluster/config/share_list";

// There while a join or a departure is under way: what it finds of the two is not to be trusted.
constexpr char kUnfinishedMark[] = "/etc/config/tarn_cluster/unfinished";

// Where the master keeps its authority, and whom it let in.
constexpr char kAuthorityFolder[] = "/etc/config/tarn_cluster/authority";

}  // namespace tarn::platform

#endif
