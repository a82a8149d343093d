#include "tests/cluster/ops/backup_slave.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "include/tarncluster_util.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

const std::string notes = "/tmp/packer";
const std::string notices_file = "/tmp/notices";

constexpr char packer_text[] = R"SH(#!/bin/sh
cd /tmp/packer || exit
case $1 in
-b)
  output=$(readlink /proc/$$/fd/1)
  errors=$(readlink /proc/$$/fd/2)
  printf '%s\0' "$@" "> $output" "2> $errors" >> packed
  while [ -e endless ]; do sleep 0.05; done
  ;;
-P)
  number=$(($(cat asked) + 1))
  echo $number > asked
  [ -e answer.$number ] || number=last
  [ $# = 1 ] && cat answer.$number
  ;;
esac
)SH";

void empty_folders() {
  for (const char *folder : {"/etc/config", "/mnt/tarncluster/config"}) {
    for (const auto &entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
  }
  for (const std::string &path : {notes, notices_file, packer, std::string("/tmp/druvosrv")}) fs::remove_all(path);
}

std::string content_of(const std::string &file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> split(const std::string &text, char end) {
  std::istringstream stream(text);
  std::vector<std::string> found;
  for (std::string part; std::getline(stream, part, end);) found.push_back(part);
  return found;
}

}  // namespace

Backup_Slave::Backup_Slave() {
  if (!on_a_throw_away_root()) throw std::runtime_error("this would change the machine's own files");
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  alarm(120);
  empty_folders();
  for (const std::string &folder : {home_folder, notes, std::string("/tmp/druvosrv")}) fs::create_directories(folder);
  write_file(identity_file, "[global]\nMSKey = " + own_id + "\n");
  write_file(master_file, "[m]\nStatus = 1\n");
  write_file(packer, packer_text);
  chmod(packer.c_str(), 0755);
  answer({"progress:100%\n"});
}

Backup_Slave::~Backup_Slave() {
  fs::remove(notes + "/endless");
  wait_for_all();
  alarm(0);
  empty_folders();
}

void Backup_Slave::answer(const std::vector<std::string> &answers) {
  write_file(notes + "/asked", "0\n");
  for (size_t i = 0; i < answers.size(); ++i) write_file(notes + "/answer." + std::to_string(i + 1), answers[i]);
  write_file(notes + "/answer.last", answers.back());
}

void Backup_Slave::pack_for_ever() {
  write_file(notes + "/endless", "");
}

int Backup_Slave::times_asked() {
  return std::stoi(read_file(notes + "/asked"));
}

std::vector<std::string> Backup_Slave::packed() {
  wait_for_all();
  return split(content_of(notes + "/packed"), '\0');
}

std::vector<std::string> Backup_Slave::notices() {
  return split(content_of(notices_file), '\n');
}

std::vector<pid_t> Backup_Slave::children() {
  std::istringstream list(content_of("/proc/self/task/" + std::to_string(gettid()) + "/children"));
  std::vector<pid_t> found;
  for (pid_t child; list >> child;) found.push_back(child);
  return found;
}

int Backup_Slave::wait_for(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) != child) throw std::system_error(errno, std::generic_category(), "waitpid");
  return status;
}

void Backup_Slave::wait_for_all() {
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) continue;
}

}  // namespace tarn::test

// The platform's, which tarn_platform_doubles does not play.
extern "C" int SendNoticeToLogEngine(int n1, int n2, int n3, const char *s4, int n5, const char *s6, int n7, int n8,
                                     int n9, const char *s10, const char *s11, const char *s12, const char *s13,
                                     int n14, int n15, const char *message) {
  std::ofstream file(tarn::test::notices_file, std::ios::app);
  file << n1 << ' ' << n2 << ' ' << n3 << " '" << s4 << "' " << n5 << " '" << s6 << "' " << n7 << ' ' << n8 << ' ' << n9
       << " '" << s10 << "' '" << s11 << "' '" << s12 << "' '" << s13 << "' " << n14 << ' ' << n15 << " '" << message
       << "'\n";
  return 0;
}
