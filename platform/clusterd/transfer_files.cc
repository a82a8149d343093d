#include "platform/clusterd/transfer_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>

#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

int write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return -errno;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

int sync_folder(const std::string &folder) {
  const Descriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return -errno;
  // Some file systems cannot sync a folder; the file is in its place all the same.
  return fsync(fd.get()) == 0 || errno == EINVAL ? 0 : -errno;
}

int make_folders(const std::string &path) {
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    if (mkdir(path.substr(0, end).c_str(), 0700) != 0 && errno != EEXIST) return -errno;
    if (end == std::string::npos) return 0;
  }
}

}  // namespace

// ------------------------------------------------------------------------------------------------ outgoing

int Outgoing_File::open(const std::string &path) {
  Descriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) return -errno;
  struct stat status;
  if (fstat(fd.get(), &status) != 0) return -errno;
  if (S_ISDIR(status.st_mode)) return -EISDIR;
  if (!S_ISREG(status.st_mode)) return -EINVAL;

  fd_ = std::move(fd);
  size_ = static_cast<uint64_t>(status.st_size);
  permissions_ = status.st_mode & 0777;
  return 0;
}

int Outgoing_File::read(size_t wanted, std::string *bytes) {
  if (wanted > size_ - position_) return -EPROTO;
  bytes->resize(wanted);
  for (size_t done = 0; done < wanted;) {
    const ssize_t count = ::read(fd_.get(), bytes->data() + done, wanted - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -errno;
    if (count == 0) return -EIO;
    done += static_cast<size_t>(count);
  }
  digest_.add(*bytes);
  position_ += wanted;
  return 0;
}

// ------------------------------------------------------------------------------------------------ temporary files

int Partial_Files::clean_up() {
  const int result = make_folders(folder_);
  if (result != 0) return result;
  const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(folder_.c_str()), closedir);
  if (!folder) return -errno;
  while (const dirent *entry = readdir(folder.get())) {
    char path[PATH_MAX];
    const std::string link = folder_ + "/" + entry->d_name;
    const ssize_t length = readlink(link.c_str(), path, sizeof(path) - 1);
    if (length <= 0) continue;
    path[length] = '\0';
    if (unlink(path) == 0) log_line("removed %s, left by a broken transfer", path);
    unlink(link.c_str());
  }
  return 0;
}

int Partial_Files::add(const std::string &name, const std::string &path) const {
  return symlink(path.c_str(), (folder_ + "/" + name).c_str()) == 0 ? 0 : -errno;
}

void Partial_Files::remove(const std::string &name) const {
  unlink((folder_ + "/" + name).c_str());
}

// ------------------------------------------------------------------------------------------------ incoming

int Incoming_File::open(const std::string &destination, uint64_t size, uint32_t permissions) {
  struct stat status;
  if (destination.ends_with('/') || (stat(destination.c_str(), &status) == 0 && S_ISDIR(status.st_mode)))
    return -EISDIR;

  destination_ = destination;
  folder_ = destination.substr(0, std::max<size_t>(destination.rfind('/'), 1));
  const std::string name = random_name();
  if (name.empty()) return -EIO;
  const std::string temporary = folder_ + "/.tarncluster-" + name;
  const int result = partial_files_.add(name, temporary);
  if (result != 0) return result;
  name_ = name;
  fd_ = Descriptor(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd_) return -errno;
  temporary_ = temporary;
  size_ = size;
  if (fchmod(fd_.get(), permissions & 0777) != 0) return -errno;
  // A disk that is too small says so before anything is sent, where the file system can tell.
  if (size > INT64_MAX) return -EFBIG;
  if (size > 0 && fallocate(fd_.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) != 0 && errno != EOPNOTSUPP &&
      errno != ENOSYS) {
    return -errno;
  }
  return 0;
}

int Incoming_File::write(uint64_t offset, std::string_view bytes) {
  if (offset != written_ || bytes.size() > size_ - written_) return -EPROTO;
  const int result = write_all(fd_.get(), bytes);
  if (result != 0) return result;
  digest_.add(bytes);
  written_ += bytes.size();
  return 0;
}

int Incoming_File::commit(uint64_t length, const std::string &digest) {
  const std::string own = digest_.finish();
  if (length != written_ || own.empty() || own != digest) return -EIO;
  if (fsync(fd_.get()) != 0) return -errno;
  if (rename(temporary_.c_str(), destination_.c_str()) != 0) return -errno;
  temporary_.clear();
  return sync_folder(folder_);
}

void Incoming_File::discard() {
  fd_.reset();
  if (!temporary_.empty()) unlink(temporary_.c_str());
  temporary_.clear();
  if (!name_.empty()) partial_files_.remove(name_);
  name_.clear();
}

// ------------------------------------------------------------------------------------------------ progress

int Progress_File::show(uint64_t done, uint64_t size) {
  const double share = size == 0 ? 0 : static_cast<double>(done) / static_cast<double>(size);
  return write(std::min(static_cast<int>(share * 100), 99));
}

int Progress_File::write(int percent) {
  if (!path_ || percent == shown_) return 0;
  shown_ = percent;
  const std::string temporary = *path_ + ".tmp";
  unlink(temporary.c_str());
  {
    const Descriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!fd) return -errno;
    const int result = write_all(fd.get(), std::to_string(percent));
    if (result != 0) {
      unlink(temporary.c_str());
      return result;
    }
  }
  if (rename(temporary.c_str(), path_->c_str()) == 0) return 0;
  const int result = -errno;
  unlink(temporary.c_str());
  return result;
}

}  // namespace tarn::platform
