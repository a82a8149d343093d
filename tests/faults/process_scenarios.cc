// Processes and credentials.
#include <shadow.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "tests/faults/families.h"

namespace tarn::test {
namespace {

std::string name_of_this_process() {
  std::ifstream comm("/proc/self/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

int parent_of(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;) {
    if (word == "PPid:" && status >> pid) return pid;
  }
  return 0;
}

// From this process up to the one below the first.
std::vector<std::string> ancestors() {
  std::vector<std::string> shown;
  for (int pid = getpid(); pid > 1; pid = parent_of(pid)) shown.push_back("pid " + std::to_string(pid));
  return shown;
}

void give_own_name(World &w) {
  w.given_name = name_of_this_process();
}

// Users who are not in the file are asked for elsewhere: the C library loads that module here, and not while its calls
// are watched.
void give_password(World &) {
  getspnam("nobody-here");
  write_file("/etc/shadow", "tarn-user:$1$secret$fuQ4/JIZWHXOtr6SiYUNE1:19000:0:99999:7:::\n");
}

}  // namespace

std::vector<Scenario> processes() {
  const std::vector<std::string> climb = ancestors();
  return {
      {.function = "Get_Parent_Pid",
       .call = [](World &w) { return Get_Parent_Pid(getpid(), &w.pid); },
       .result = "pid " + std::to_string(getppid()),
       .out_of_memory = {-ESRCH},
       .answer = -ESRCH},
      // A process that cannot be looked at is passed over, as one that has ended.
      {.function = "Get_All_Pids",
       .prepare = give_own_name,
       .call = [](World &w) { return Get_All_Pids(w.given_name.c_str(), &w.pids, &w.pid_count); },
       .result = "1 pids",
       .answer = any_error},
      // The climb ends below a process that cannot be looked at.
      {.function = "Get_Ancestry_Pid",
       .prepare = give_own_name,
       .call = [](World &w) { return Get_Ancestry_Pid(w.given_name.c_str(), &w.pid); },
       .result = climb.back(),
       .lesser_results = climb,
       .answer = any_error},
      // What cannot be read is no output.
      {.function = "Get_Program_Output",
       .prepare = [](World &w) { w.size = sizeof w.buffer - 1; },
       .call = [](World &w) { return Get_Program_Output("echo x", w.buffer, &w.size); },
       .result = "x/1",
       .lesser_results = {""}},
      // Nobody has a password in a database that cannot be read.
      {.function = "Authentication_Check",
       .prepare = give_password,
       .call = [](World &) { return Authentication_Check("tarn-user", "secret"); },
       .out_of_memory = {-ENOANO, -EBADSLT},
       .answer = -ENOANO},
  };
}

}  // namespace tarn::test
