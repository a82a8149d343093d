#include "tests/sysinfo/disks.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <system_error>

#include "tests/support/command.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

constexpr char kernel_disks[] = "/sys/block";
constexpr char printed_file[] = "/usr/local/sbin/blkid.output";

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void run(const std::string &command) {
  if (run_command(command).status != 0) throw std::runtime_error(command);
}

}  // namespace

// --------------------------------------------------------------------------------------------------- the block-id tool

// Its folder is the test's own for as long as the root lives: /usr may be read-only.
void remove_block_id() {
  static const bool made = [] {
    const fs::path folder = fs::path(block_id_path).parent_path();
    fs::create_directories(folder);
    if (mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr) != 0) fail(folder);
    return true;
  }();
  (void)made;
  fs::remove(block_id_path);
}

// What it remembers of devices is not looked at again for two seconds, and ours come and go faster.
void use_real_block_id() {
  fs::remove_all("/run/blkid");
  remove_block_id();
  fs::create_symlink("/usr/sbin/blkid", block_id_path);
}

void use_block_id_script(const std::string &script) {
  remove_block_id();
  write_file(block_id_path, "#!/bin/sh\n" + script + "\n");
  chmod(block_id_path, 0755);
}

void use_block_id_that_prints(const std::string &output) {
  use_block_id_script(std::string("exec cat ") + printed_file);
  write_file(printed_file, output);
}

// --------------------------------------------------------------------------------------------------------- loop
// devices

// Another process may have taken the device that was free.
bool Loop_Device::claim(const Descriptor &image) {
  const Descriptor control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!control) fail("/dev/loop-control");
  number_ = ioctl(control.get(), LOOP_CTL_GET_FREE);
  if (number_ < 0) fail("LOOP_CTL_GET_FREE");
  path_ = "/dev/loop" + std::to_string(number_);
  constexpr unsigned int major_number = 7;
  mknod(path_.c_str(), S_IFBLK | 0600, makedev(major_number, static_cast<unsigned int>(number_)));
  fd_ = Descriptor(open(path_.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd_) fail(path_);
  loop_config config = {};
  config.fd = static_cast<unsigned int>(image.get());
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  if (ioctl(fd_.get(), LOOP_CONFIGURE, &config) == 0) return true;
  if (errno != EBUSY) fail("LOOP_CONFIGURE");
  return false;
}

Loop_Device::Loop_Device(const std::string &image) {
  const Descriptor file(open(image.c_str(), O_RDWR | O_CLOEXEC));
  if (!file) fail(image);
  for (int tries = 0; !claim(file); ++tries) {
    if (tries == 100) fail("no loop device");
  }
}

bool kernel_lends_loop_devices() {
  static const bool lent = [] {
    const Temporary_Folder folder;
    write_file(folder / "image", std::string(65536, '\0'));
    try {
      const Loop_Device device(folder / "image");
      return true;
    } catch (const std::system_error &) {
      return false;
    }
  }();
  return lent;
}

std::string make_image(const Temporary_Folder &folder, const std::string &type, const std::string &label) {
  static const std::map<std::string, std::string> makers = {
      {"ext4", "truncate -s 4M $IMAGE && mkfs.ext4 -q -L $LABEL $IMAGE"},
      {"vfat", "truncate -s 2M $IMAGE && mkfs.vfat -n $LABEL $IMAGE > $IMAGE.said"},
      {"btrfs", "truncate -s 130M $IMAGE && mkfs.btrfs -q -L $LABEL $IMAGE > $IMAGE.said"},
      {"swap", "truncate -s 1M $IMAGE && chmod 600 $IMAGE && mkswap -L $LABEL $IMAGE > $IMAGE.said"},
      {"iso9660",
       "mkdir $IMAGE.files && echo text > $IMAGE.files/file && genisoimage -quiet -R -V $LABEL -o $IMAGE "
       "$IMAGE.files"}};
  const std::string image = folder / type;
  run("IMAGE='" + image + "' LABEL='" + label + "'\nIFS=\n" + makers.at(type));
  return image;
}

// ------------------------------------------------------------------------------------------------------- /sys/block

Made_Up_Disks::Made_Up_Disks() {
  if (mount(folder_.path().c_str(), kernel_disks, nullptr, MS_BIND, nullptr) != 0) fail(kernel_disks);
}

Made_Up_Disks::~Made_Up_Disks() {
  umount2(kernel_disks, MNT_DETACH);
}

void Made_Up_Disks::add_folder(const std::string &name) const {
  fs::create_directories(folder_ / name);
}

void Made_Up_Disks::add(const std::string &name, const std::string &text) const {
  add_folder(fs::path(name).parent_path());
  write_file(folder_ / name, text);
}

void Made_Up_Disks::show(const Loop_Device &loop) const {
  const std::string name = fs::path(loop.path()).filename();
  fs::create_symlink("../devices/virtual/block/" + name, folder_ / name);
}

}  // namespace tarn::test
