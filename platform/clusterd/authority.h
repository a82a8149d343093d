// The cluster's authority, which the master keeps: it makes the members' certificates, and tells the bus who may speak.
// The work is that of the setup program, which people use as well.
#ifndef TARN_PLATFORM_CLUSTERD_AUTHORITY_H
#define TARN_PLATFORM_CLUSTERD_AUTHORITY_H

#include <string>

#include "platform/clusterd/certificates.h"

namespace tarn::platform {

class Authority {
 public:
  Authority(std::string folder, std::string setup_program, std::string run_folder)
      : folder_(std::move(folder)), setup_program_(std::move(setup_program)), run_folder_(std::move(run_folder)) {}

  bool is_here() const;
  bool has_member(const std::string &id) const;

  // A fresh id: 8 letters and digits. Empty when there is no randomness.
  std::string make_id() const;

  // Each answers 0; -ENOKEY when there is no authority here; -EIO when the setup program failed.

  // Makes the certificate of a member that is not admitted yet: should the service be killed before settle() it is
  // none.
  int add_member(const std::string &id, Credentials *credentials);
  int remove_member(const std::string &id);

  // The member is one for good.
  int settle();

  // Removes a member that was not settled. Answers its id, or nothing.
  std::string undo_unsettled();

  // Has the bus let in who is a member, and nobody else.
  int update_bus();

  // Whether the holder of the certificate is a member: 0, -ENOANO when it is not, any other code when that is unknown.
  int judge(const std::string &name, const std::string &certificate) const;

  // In PEM form; empty when there is none.
  std::string certificate() const;

 private:
  std::string member_folder(const std::string &id) const { return folder_ + "/members/" + id; }
  std::string unsettled_file() const { return folder_ + "/unsettled"; }
  int run(const std::string &command, const std::string &last) const;
  void reload_bus_server() const;

  const std::string folder_;
  const std::string setup_program_;
  const std::string run_folder_;
};

}  // namespace tarn::platform

#endif
