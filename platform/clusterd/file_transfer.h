// Files moved between members.
//
// The asking side is the member whose program gave the command, whichever way the file goes. It opens a session at the
// other member and then sends pieces (or asks for pieces) with a few on their way at a time; each is answered. A file
// takes its name only when the whole of it has arrived and its length and digest agree.
#ifndef TARN_PLATFORM_CLUSTERD_FILE_TRANSFER_H
#define TARN_PLATFORM_CLUSTERD_FILE_TRANSFER_H

#include <atomic>
#include <memory>
#include <string>

#include "platform/clusterd/bus.h"
#include "platform/clusterd/command.h"
#include "platform/clusterd/transfer_files.h"
#include "platform/clusterd/worker_pool.h"

namespace tarn::platform {

// For whom a transfer is done: until when, and the socket of the program that waits for it.
struct Transfer_Limits {
  Deadline deadline;
  int caller_fd;
};

class File_Transfer {
 public:
  File_Transfer(Bus *bus, const Partial_Files &partial_files) : bus_(bus), partial_files_(partial_files) {}

  // Each answers 0 when the file is whole at its destination; -ETIME; -ECANCELED when the program that waits is gone;
  // the failures of the bus and of the files at either end.
  int send(const std::string &member, const File_Argument &files, const Transfer_Limits &limits);
  int fetch(const std::string &member, const File_Argument &files, const Transfer_Limits &limits);
  int copy_here(const File_Argument &files, const Transfer_Limits &limits);

 private:
  Bus *const bus_;
  const Partial_Files &partial_files_;
};

// The sessions of the other members' transfers.
class Transfer_Sessions {
 public:
  Transfer_Sessions(Bus *bus, const Partial_Files &partial_files) : bus_(bus), partial_files_(partial_files) {}

  // The answer to a member that asks for a session, put_file or get_file.
  Message open(const std::string &asking_member, const Message &request);

  void stop() { threads_.stop(); }

 private:
  static constexpr int kSessionsAtOnce = 32;

  Message open_receiving(const std::string &asking_member, const Message &request);
  Message open_sending(const std::string &asking_member, const Message &request);
  template <typename File>
  int start(const std::string &asking_member, std::shared_ptr<File> file, std::string *session,
            void (*serve)(Bus_Channel *channel, File *file));

  Bus *const bus_;
  const Partial_Files &partial_files_;
  std::atomic<int> sessions_ = 0;
  Worker_Pool threads_{kSessionsAtOnce, kSessionsAtOnce};
};

}  // namespace tarn::platform

#endif
