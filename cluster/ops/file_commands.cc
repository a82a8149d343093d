#include <cerrno>

#include "cluster/ops/command.h"
#include "include/tarncluster_util.h"

namespace tarn {
namespace {

constexpr int transfer_timeout_ms = 3600000;

int Tarn_Cluster_Trans_File(int mode, Op_Code op_code, const char *id, const char *source_path,
                            const char *destination_path, const char *progress, char **reply) {
  if (!is_direction(mode) || id == nullptr || source_path == nullptr || destination_path == nullptr ||
      reply == nullptr) {
    return -EINVAL;
  }
  const auto direction = static_cast<Direction>(mode);
  Json_Builder command = command_object(op_code);
  command.text(identity_key(direction), id);
  Json_Builder argument;
  argument.text("src_path", source_path).text("dst_path", destination_path);
  if (progress != nullptr) argument.text("progress", progress);
  return send_command(__func__, direction, command, argument, transfer_timeout_ms, reply);
}

}  // namespace
}  // namespace tarn

int Tarn_Cluster_Send_File(int mode, const char *id, const char *source_path, const char *destination_path,
                           const char *progress, char **reply) {
  return tarn::Tarn_Cluster_Trans_File(mode, tarn::Op_Code::send_file, id, source_path, destination_path, progress,
                                       reply);
}

int Tarn_Cluster_Recv_File(int mode, const char *id, const char *source_path, const char *destination_path,
                           const char *progress, char **reply) {
  return tarn::Tarn_Cluster_Trans_File(mode, tarn::Op_Code::receive_file, id, source_path, destination_path, progress,
                                       reply);
}
