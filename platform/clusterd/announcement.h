// What tells other appliances of the local network that this one offers the cluster service: a service file of the
// avahi-daemon, which announces it by DNS-SD.
#ifndef TARN_PLATFORM_CLUSTERD_ANNOUNCEMENT_H
#define TARN_PLATFORM_CLUSTERD_ANNOUNCEMENT_H

#include <string>

namespace tarn::platform {

constexpr char kAnnouncementFile[] = "/etc/avahi/services/tarncluster.service";

class Announcement {
 public:
  Announcement(std::string file, int port, bool is_master)
      : file_(std::move(file)), port_(port), is_master_(is_master) {}
  ~Announcement();  // takes it back, unless the service begins anew
  Announcement(const Announcement &) = delete;
  Announcement &operator=(const Announcement &) = delete;

  // Writes the file when it is to say something else than it does.
  void refresh();

 private:
  std::string text() const;

  const std::string file_;
  const int port_;
  const bool is_master_;
  bool is_written_ = false;
};

}  // namespace tarn::platform

#endif
