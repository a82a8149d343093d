#include "tests/cluster/ops/appliance.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/own_network.h"

namespace tarn::test {
namespace {

const std::string sync_service = "/etc/init.d/druvosrv_c.sh";
const std::string runs_file = "/tmp/druvosrv.runs";
const std::string gate = "/tmp/druvosrv.gate";
const std::string folders[] = {"/etc/config", cluster_folder, "/var/zopel"};

// Notes what it is called with; waits while the gate is shut, but not for ever.
constexpr char sync_service_text[] = R"SH(#!/bin/sh
waited=0
while [ -e /tmp/druvosrv.gate ] && [ $waited -lt 300 ]; do
  sleep 0.1
  waited=$((waited + 1))
done
echo "$* > $(readlink /proc/$$/fd/1) 2> $(readlink /proc/$$/fd/2)" >> /tmp/druvosrv.runs
)SH";

void give_addresses() {
  static const bool given = [] {
    enter_fresh_network();
    ip({"link set lo up", "address flush dev lo", "address add 127.0.0.1/8 dev lo"});
    make_pair("tarn0", "tarn1");
    make_pair("tarn2", "tarn3");
    ip({"address add " + own_address + "/24 dev tarn0", "address add " + other_own_address + "/24 dev tarn2",
        "address add fd00:77::24/64 dev tarn2 nodad", "address add " + own_ipv6_address + "/64 dev tarn2 nodad"});
    return true;
  }();
  static_cast<void>(given);
}

void empty_folders() {
  for (const std::string &folder : folders) {
    for (const auto &entry : std::filesystem::directory_iterator(folder)) std::filesystem::remove_all(entry.path());
  }
  std::filesystem::remove(runs_file);
  std::filesystem::remove(gate);
}

std::string content_of(const std::string &file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<pid_t> children() {
  std::istringstream list(content_of("/proc/self/task/" + std::to_string(gettid()) + "/children"));
  std::vector<pid_t> found;
  for (pid_t child; list >> child;) found.push_back(child);
  return found;
}

// Waits for all but the copies of this process that a test made itself. What others left in the background is a child
// of this process as well, since it reaps them.
void wait_for_programs() {
  const std::string own = content_of("/proc/self/cmdline");
  bool found = true;
  while (found) {
    found = false;
    for (const pid_t child : children()) {
      if (content_of("/proc/" + std::to_string(child) + "/cmdline") == own) continue;
      waitpid(child, nullptr, 0);
      found = true;
    }
  }
}

bool is_left_over(const std::string &name) {
  return name.find(".lck") != std::string::npos || name.find(".tmp") != std::string::npos;
}

std::vector<std::string> left_over() {
  std::vector<std::string> found;
  for (const std::string &folder : {std::string("/var/lock/"), cluster_folder, kept_folder, share_folder}) {
    if (!exists(folder)) continue;
    for (const std::string &name : names_in(folder)) {
      if (is_left_over(name)) found.push_back(folder + "/" + name);
    }
  }
  return found;
}

}  // namespace

std::string section_of(const Member &member) {
  const int pid = member.pid == -1 ? getpid() : member.pid;
  return "[" + member.name + "]\nAddress = " + member.address + "\nPID = " + std::to_string(pid) +
         "\nStatus = " + std::to_string(member.status) + "\n\n";
}

Appliance::Appliance() {
  if (!on_a_throw_away_root()) throw std::runtime_error("this would change the machine's own files");
  give_addresses();
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  wait_for_programs();
  empty_folders();
  for (const std::string &made : {kept_folder, share_folder}) std::filesystem::create_directories(made);
  write_file(sync_service, sync_service_text);
  chmod(sync_service.c_str(), 0755);
}

Appliance::~Appliance() {
  wait_for_programs();
  EXPECT_THAT(left_over(), testing::IsEmpty());
  empty_folders();
}

void Appliance::be_master() {
  write_file("/var/zopel/tarn_cluster_m.enable", "");
}

void Appliance::be_slave() {
  write_file("/var/zopel/tarn_cluster_s.enable", "");
}

void Appliance::set_id(const std::string &id) {
  write_file(identity_file, "[global]\nMSKey = " + id + "\n");
  write_file(kept_identity_file, "[global]\nMSKey = " + id + "\n");
}

void Appliance::set_members(const std::vector<Member> &members) {
  std::string text;
  for (const Member &member : members) text += section_of(member);
  write_file(slaves_file, text);
}

std::vector<std::string> Appliance::all_files() {
  std::vector<std::string> files;
  for (const std::string &folder : folders) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
      files.push_back(entry.path().string() + (entry.is_regular_file() ? ":\n" + read_file(entry.path()) : ""));
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::string> Appliance::sync_service_runs() {
  wait_for_programs();
  std::istringstream notes(content_of(runs_file));
  std::vector<std::string> runs;
  for (std::string line; std::getline(notes, line);) runs.push_back(line);
  return runs;
}

Sync_Service_Held::Sync_Service_Held() {
  write_file(gate, "");
}

Sync_Service_Held::~Sync_Service_Held() {
  EXPECT_FALSE(exists(runs_file)) << "the sync service was waited for";
  std::filesystem::remove(gate);
}

Unwritable::Unwritable(const std::string &path) : folders_{path + ".tmp", path + ".tmp." + std::to_string(getpid())} {
  for (const std::string &folder : folders_) std::filesystem::create_directories(folder + "/not empty");
}

Unwritable::~Unwritable() {
  for (const std::string &folder : folders_) std::filesystem::remove_all(folder);
}

std::vector<Log_Line> lines_of(const Log_Capture &log, const std::string &function) {
  std::vector<Log_Line> found;
  for (const Log_Line &line : log.lines()) {
    if (line.function == function) found.push_back(line);
  }
  return found;
}

std::string answer_of(char *(*handler)(const char *), const std::string &argument) {
  const Owned_Text answer(handler(argument.c_str()));
  return answer != nullptr ? answer.get() : "(null)";
}

std::string answers(int code) {
  return "{ \"return\": " + std::to_string(code) + " }";
}

void Freed::operator()(char *text) const {
  free(text);
}

}  // namespace tarn::test
