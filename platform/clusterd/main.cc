// tarnclusterd: a member's cluster service. It serves the commands of the member's programs at a local socket, carries
// them to the other members over the message bus, and carries out theirs.
#include <getopt.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "platform/clusterd/bus.h"
#include "platform/clusterd/command_router.h"
#include "platform/clusterd/file_transfer.h"
#include "platform/clusterd/handler_runner.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/local_socket.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/worker_pool.h"

namespace tarn::platform {
namespace {

constexpr int kReviveEveryMs = 1000;
constexpr int kMemberRequestsAtOnce = 128;
constexpr int kMemberRequestsWaiting = 4096;

struct Options {
  std::string socket_path = kSocketPath;
  std::string partial_folder = "/var/lib/tarncluster/partial";
  std::string handler_program;
  std::vector<std::string> libraries;
  Bus_Files bus;
};

void print_usage() {
  printf(
      "usage: tarnclusterd [OPTIONS]\n"
      "Runs the cluster service of this member in the foreground; SIGTERM ends it.\n\n"
      "  --socket PATH           where programs give their commands (%s)\n"
      "  --bus-folder FOLDER     bus.conf, ca.crt, member.crt, member.key (%s)\n"
      "  --partial-folder FOLDER links to the files that are being received (%s)\n"
      "  --handlers LIBRARY      where command handlers are looked up; may be given several times\n"
      "                          (libtarncluster_util.so.1)\n"
      "  --handler-host PROGRAM  the program that loads them (tarncluster-handler beside this one)\n",
      kSocketPath, Bus_Files().folder.c_str(), Options().partial_folder.c_str());
}

std::string own_folder() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  const std::string program(path, length > 0 ? static_cast<size_t>(length) : 0);
  return program.substr(0, program.rfind('/'));
}

// -1: go on; else the exit status.
int read_options(int count, char **arguments, Options *options) {
  static const option names[] = {{"socket", required_argument, nullptr, 's'},
                                 {"bus-folder", required_argument, nullptr, 'b'},
                                 {"partial-folder", required_argument, nullptr, 'p'},
                                 {"handlers", required_argument, nullptr, 'l'},
                                 {"handler-host", required_argument, nullptr, 'h'},
                                 {"help", no_argument, nullptr, '?'},
                                 {}};
  int name;
  while ((name = getopt_long(count, arguments, "", names, nullptr)) != -1) {
    switch (name) {
      case 's':
        options->socket_path = optarg;
        break;
      case 'b':
        options->bus.folder = optarg;
        break;
      case 'p':
        options->partial_folder = optarg;
        break;
      case 'l':
        options->libraries.push_back(optarg);
        break;
      case 'h':
        options->handler_program = optarg;
        break;
      default:
        print_usage();
        return optopt == 0 ? 0 : 2;
    }
  }
  if (options->libraries.empty()) options->libraries = {"libtarncluster_util.so.1"};
  if (options->handler_program.empty()) options->handler_program = own_folder() + "/tarncluster-handler";
  options->bus.connected_mark = options->socket_path.substr(0, options->socket_path.rfind('/')) + "/connected";
  return optind == count ? -1 : 2;
}

Descriptor watch_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);  // before the first thread, so that every one inherits it
  for (const int signal_number : {SIGPIPE, SIGXFSZ}) signal(signal_number, SIG_IGN);  // errno tells it as well
  return Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// True when one of the signals asks the service to end.
bool take_signals(int fd, Handler_Runner *handlers) {
  signalfd_siginfo signal;
  bool is_end = false;
  while (read(fd, &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo == SIGCHLD) {
      handlers->reap();
    } else {
      is_end = true;
    }
  }
  return is_end;
}

// All parts of the service, in the order in which they are made.
class Service {
 public:
  Service(const Identity &identity, const Options &options)
      : partial_files_(options.partial_folder),
        bus_(identity, options.bus,
             [this](const std::string &sender, const Nats_Message &request) { take_member_request(sender, request); }),
        handlers_(options.handler_program, options.libraries),
        files_(&bus_, partial_files_),
        sessions_(&bus_, partial_files_),
        router_(identity, &bus_, &handlers_, &files_, &sessions_),
        socket_(options.socket_path,
                [this](const Message &request, int caller_fd) { return router_.handle_program(request, caller_fd); }) {}

  int start();
  void run(int signals_fd);
  void stop();

 private:
  void take_member_request(const std::string &sender, const Nats_Message &request);

  Partial_Files partial_files_;
  Bus bus_;
  Handler_Runner handlers_;
  File_Transfer files_;
  Transfer_Sessions sessions_;
  Command_Router router_;
  Local_Socket socket_;
  Worker_Pool member_requests_{kMemberRequestsAtOnce, kMemberRequestsWaiting};
};

// The socket comes first: it tells whether another service runs here, whose files must be left alone.
int Service::start() {
  int result = socket_.start();
  if (result == -EADDRINUSE) log_line("another cluster service runs here");
  if (result == 0) result = partial_files_.clean_up();
  if (result == 0) result = handlers_.start();
  if (result == 0) result = bus_.start();
  if (result != 0) log_line("cannot start (%d)", result);
  return result;
}

void Service::run(int signals_fd) {
  log_line("ready");
  for (;;) {
    pollfd entries[] = {{signals_fd, POLLIN, 0}, {socket_.fd(), POLLIN, 0}};
    const int ready = poll(entries, 2, kReviveEveryMs);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) {
      bus_.revive();
      handlers_.rest();
      continue;
    }
    if (entries[0].revents != 0 && take_signals(signals_fd, &handlers_)) break;
    if (entries[1].revents != 0) socket_.accept_programs();
  }
}

void Service::take_member_request(const std::string &sender, const Nats_Message &bytes) {
  const auto task = [this, sender, bytes] {
    Message request;
    Message answer = reply_of(-EINVAL);
    if (Bus::decode_message(bytes, &request)) answer = router_.handle_member(sender, request);
    bus_.answer(bytes, fits(answer) ? answer : reply_of(-EMSGSIZE));
    handlers_.prepare();
  };
  if (!member_requests_.submit(task)) bus_.answer(bytes, reply_of(-EBUSY));
}

// Every wait ends first; then the parts may be stopped in any order that leaves nobody a part that is gone.
void Service::stop() {
  stop_waiting();
  bus_.stop();
  socket_.stop();
  member_requests_.stop();
  sessions_.stop();
  handlers_.stop();
  nats_CloseAndWait(0);
}

int run_service(const Options &options) {
  const Descriptor signals = watch_signals();
  Identity identity;
  if (load_identity(&identity) != 0) return 1;
  Service service(identity, options);
  const int result = service.start();
  if (result == 0) service.run(signals.get());
  service.stop();
  return result == 0 ? 0 : 1;
}

}  // namespace
}  // namespace tarn::platform

int main(int count, char **arguments) {
  using namespace tarn::platform;
  Options options;
  const int status = read_options(count, arguments, &options);
  if (status >= 0) return status;
  try {
    return run_service(options);
  } catch (const std::exception &failure) {
    log_line("%s", failure.what());
    return 1;
  }
}
