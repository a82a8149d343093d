#include <tarncluster_util.h>
#include <unistd.h>

#include <fstream>

#include "progress_bar.h"
#include "report.h"

namespace tool {
namespace {

struct Arguments {
  std::string peer;
  bool on_master = false;
  std::string text, source, destination, progress;
};

// How a command goes out from this appliance: 0 master to slave, 1 slave to master, 2 slave on the master's appliance.
struct Route {
  int mode;
  std::string id;
};

bool has_flag(const char *role) {
  return access((std::string("/var/zopel/tarn_cluster_") + role + ".enable").c_str(), F_OK) == 0;
}

Route route_to(const Arguments &arguments) {
  if (arguments.on_master) {
    if (arguments.peer.empty()) throw Failure("say which slave runs on the master, with --to ID");
    return {2, arguments.peer};
  }
  if (has_flag("m")) {
    if (arguments.peer.empty()) throw Failure("say which slave, with --to ID");
    return {0, arguments.peer};
  }
  if (!has_flag("s")) throw Failure("this appliance is neither the master nor a slave of a cluster");
  return {1, arguments.peer.empty() ? master_id : arguments.peer};
}

void send_test(const Arguments &arguments, bool as_json) {
  const Route route = route_to(arguments);
  char *reply = nullptr;
  const int status = Tarn_Cluster_Test(route.mode, route.id.c_str(), arguments.text.c_str(), &reply);
  print_reply(status, reply, "no echo from member " + route.id, as_json);
}

using Transfer = int (*)(int, const char *, const char *, const char *, const char *, char **);

// A transfer that was carried out may still have failed: the reply tells.
void check_transfer(const Text &reply, const std::string &what) {
  int status = 0;
  if (reply && Parse_Cluster_Cmd_Status(reply.get(), &status) == 0) check(status, what);
}

int percent_in(const std::string &file) {
  int percent = 0;
  std::ifstream(file) >> percent;
  return percent;
}

// The file for the percentage: the caller's, or one for the bar alone.
class Progress_File {
 public:
  explicit Progress_File(const std::string &given) : path_(given) {
    if (!given.empty() || !shows_progress()) return;
    char folder[] = "/tmp/tarncluster-XXXXXX";
    if (mkdtemp(folder) == nullptr) return;
    folder_ = folder;
    path_ = folder_ + "/progress";
  }
  ~Progress_File() {
    if (folder_.empty()) return;
    unlink(path_.c_str());
    rmdir(folder_.c_str());
  }
  Progress_File(const Progress_File &) = delete;
  Progress_File &operator=(const Progress_File &) = delete;

  const std::string &path() const { return path_; }

 private:
  std::string path_, folder_;
};

void move_file(Transfer transfer, const Arguments &arguments, bool as_json) {
  const Route route = route_to(arguments);
  const Progress_File file(arguments.progress);
  const char *progress = file.path().empty() ? nullptr : file.path().c_str();
  const std::string what = "cannot move " + arguments.source + " to " + arguments.destination;
  char *text = nullptr;
  int status = 0;
  {
    const Progress_Bar bar([&] { return percent_in(file.path()); });
    status = transfer(route.mode, route.id.c_str(), arguments.source.c_str(), arguments.destination.c_str(), progress,
                      &text);
  }
  Text reply(text);
  check(status, what);
  check_transfer(reply, what);
  print_reply(0, reply.release(), what, as_json);
}

void add_peer(CLI::App *command, Arguments *arguments) {
  command->add_option("--to", arguments->peer, "The other member's id; on a slave, the master when left out");
  command->add_flag("--slave-on-master", arguments->on_master, "This is the slave on the master's own appliance");
}

void add_transfer(CLI::App *file, const char *verb, const char *description, const char *example, Transfer transfer,
                  const std::shared_ptr<Arguments> &arguments, const Settings &settings) {
  CLI::App *command = file->add_subcommand(verb, description);
  add_peer(command, arguments.get());
  command->add_option("--progress", arguments->progress, "A file that is kept at the percentage done");
  command->add_option("SOURCE", arguments->source, "Absolute path of the file")->required();
  command->add_option("DESTINATION", arguments->destination, "Absolute path that it gets")->required();
  command->footer(example);
  command->callback([transfer, arguments, &settings] { move_file(transfer, *arguments, settings.json); });
}

}  // namespace

void add_cluster_commands(CLI::App &app, const Settings &settings) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App *test = app.add_subcommand("test", "Ask a member to echo a text");
  add_peer(test, arguments.get());
  test->add_option("TEXT", arguments->text, "The text")->required();
  test->footer("Example: tarncluster test --to QN2a1b3c hello");
  test->callback([arguments, &settings] { send_test(*arguments, settings.json); });

  CLI::App *file = app.add_subcommand("file", "Move files between members");
  file->require_subcommand(1);
  add_transfer(file, "send", "Send a file of this member to another",
               "Example: tarncluster file send --to QN2a1b3c /tmp/report.pdf /share/report.pdf", Tarn_Cluster_Send_File,
               arguments, settings);
  add_transfer(file, "fetch", "Fetch a file of another member to this one",
               "Example: tarncluster file fetch --to QN2a1b3c /share/report.pdf /tmp/report.pdf",
               Tarn_Cluster_Recv_File, arguments, settings);
}

}  // namespace tool
