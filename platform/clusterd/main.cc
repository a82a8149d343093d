// tarnclusterd: a member's cluster service. It serves the commands of the member's programs at a local socket, carries
// them to the other members over the message bus, and carries out theirs.
#include <getopt.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "platform/clusterd/announcement.h"
#include "platform/clusterd/appliance_certificate.h"
#include "platform/clusterd/backup_folders.h"
#include "platform/clusterd/bus.h"
#include "platform/clusterd/command_router.h"
#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/enrolment.h"
#include "platform/clusterd/event_loop.h"
#include "platform/clusterd/file_transfer.h"
#include "platform/clusterd/handler_runner.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/local_socket.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/master_membership.h"
#include "platform/clusterd/member_paths.h"
#include "platform/clusterd/member_requests.h"
#include "platform/clusterd/restart.h"
#include "platform/clusterd/run_lock.h"
#include "platform/clusterd/slave_membership.h"
#include "platform/clusterd/tls_listener.h"
#include "platform/clusterd/unjoined_service.h"

namespace tarn::platform {
namespace {

constexpr int kReviveEveryMs = 1000;

constexpr size_t kLongestPem = 65536;

struct Options {
  std::string socket_path = kSocketPath;
  std::string partial_folder = "/var/lib/tarncluster/partial";
  std::string handler_program;
  std::vector<std::string> libraries;
  Bus_Files bus;
  Membership_Options membership;
};

void print_usage() {
  printf(
      "usage: tarnclusterd [OPTIONS]\n"
      "Runs the cluster service of this appliance in the foreground; SIGTERM ends it. SIGHUP has it look where the "
      "bus\n"
      "is now, and at what it announces. In no cluster yet, it waits for a master that adds it.\n\n"
      "  --socket PATH           where programs give their commands (%s)\n"
      "  --bus-folder FOLDER     bus.conf, ca.crt, member.crt, member.key (%s)\n"
      "  --partial-folder FOLDER links to the files that are being received (%s)\n"
      "  --handlers LIBRARY      where command handlers are looked up; may be given several times\n"
      "                          (libtarncluster_util.so.1)\n"
      "  --handler-host PROGRAM  the program that loads them (tarncluster-handler beside this one)\n"
      "  --listener-port PORT    where appliances reach one another by TLS outside the bus (%d)\n"
      "  --authority FOLDER      where the master keeps the cluster's authority (%s)\n"
      "  --setup PROGRAM         the program that keeps it (tarncluster-setup beside this one)\n"
      "  --announcement FILE     by which avahi-daemon announces this appliance (%s)\n",
      kSocketPath, Bus_Files().folder.c_str(), Options().partial_folder.c_str(), kListenerPort, kAuthorityFolder,
      kAnnouncementFile);
}

std::string own_folder() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  const std::string program(path, length > 0 ? static_cast<size_t>(length) : 0);
  return program.substr(0, program.rfind('/'));
}

void complete(Options *options) {
  const std::string programs = own_folder();
  if (options->libraries.empty()) options->libraries = {"libtarncluster_util.so.1"};
  if (options->handler_program.empty()) options->handler_program = programs + "/tarncluster-handler";
  const std::string run_folder = options->socket_path.substr(0, options->socket_path.rfind('/'));
  options->bus.connected_mark = run_folder + "/connected";
  Membership_Options &membership = options->membership;
  membership.certificate = kApplianceCertificate;
  membership.bus_folder = options->bus.folder;
  membership.run_folder = run_folder;
  if (membership.authority_folder.empty()) membership.authority_folder = kAuthorityFolder;
  if (membership.announcement.empty()) membership.announcement = kAnnouncementFile;
  if (membership.setup_program.empty()) membership.setup_program = programs + "/tarncluster-setup";
}

// -1: go on; else the exit status.
int read_options(int count, char **arguments, Options *options) {
  static const option names[] = {{"socket", required_argument, nullptr, 's'},
                                 {"bus-folder", required_argument, nullptr, 'b'},
                                 {"partial-folder", required_argument, nullptr, 'p'},
                                 {"handlers", required_argument, nullptr, 'l'},
                                 {"handler-host", required_argument, nullptr, 'h'},
                                 {"listener-port", required_argument, nullptr, 'o'},
                                 {"authority", required_argument, nullptr, 'a'},
                                 {"setup", required_argument, nullptr, 'u'},
                                 {"announcement", required_argument, nullptr, 'n'},
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
      case 'o':
        options->membership.listener_port = atoi(optarg);
        break;
      case 'a':
        options->membership.authority_folder = optarg;
        break;
      case 'u':
        options->membership.setup_program = optarg;
        break;
      case 'n':
        options->membership.announcement = optarg;
        break;
      default:
        print_usage();
        return optopt == 0 ? 0 : 2;
    }
  }
  complete(options);
  return optind == count ? -1 : 2;
}

Descriptor watch_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, kRestartSignal}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);  // before the first thread, so that every one inherits it
  for (const int signal_number : {SIGPIPE, SIGXFSZ}) signal(signal_number, SIG_IGN);  // errno tells it as well
  return Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// What peers outside the bus see of a member: the master shows the certificate by which slaves know it.
int prepare_listener_certificate(const Identity &identity, const Membership_Options &options, std::string *path) {
  *path = options.certificate;
  if (!identity.is_master) return 0;
  std::string certificate;
  std::string key;
  int result = read_text(options.bus_folder + "/member.crt", kLongestPem, &certificate);
  if (result == 0) result = read_text(options.bus_folder + "/member.key", kLongestPem, &key);
  *path = options.run_folder + "/member.pem";
  return result == 0 ? write_durably(*path, certificate + key, 0600) : result;
}

std::unique_ptr<Membership> make_membership(const Identity &identity, Bus *bus, Deadline_Watch *watch,
                                            const Membership_Options &options) {
  if (identity.is_master) return std::make_unique<Master_Membership>(identity, bus, watch, options);
  return std::make_unique<Slave_Membership>(identity, bus, watch, options);
}

// All parts of the service, in the order in which they are made.
class Service {
 public:
  Service(const Identity &identity, const Options &options, const std::string &listener_certificate)
      : partial_files_(options.partial_folder),
        bus_(
            identity, options.bus,
            [this](const std::string &sender, const Nats_Message &request) { member_requests_.take(sender, request); }),
        handlers_(options.handler_program, options.libraries),
        files_(&bus_, partial_files_),
        sessions_(&bus_, partial_files_),
        membership_(make_membership(identity, &bus_, &watch_, options.membership)),
        announcement_(options.membership.announcement, options.membership.listener_port, identity.is_master),
        listener_(
            options.membership.listener_port, listener_certificate, &watch_,
            [this](Tls_Peer &peer, const Message &request) { peer.send(membership_->answer_visitor(peer, request)); }),
        router_(identity, &bus_, &handlers_, &files_, &sessions_, membership_.get()),
        member_requests_(&loop_, &bus_, &router_, &handlers_),
        socket_(
            options.socket_path, &loop_,
            [this](const Message &request, const Local_Socket::Answer_Receiver &answer) {
              return router_.begin_program(request, answer);
            },
            [this](const Message &request, int caller_fd) { return router_.handle_program(request, caller_fd); }) {}

  int start(int signals_fd);
  void run();
  void stop();

 private:
  Deadline next_deadline();
  void look_around();
  void take_signals(int fd);
  void start_listener();

  Event_Loop loop_;
  Partial_Files partial_files_;
  Bus bus_;
  Handler_Runner handlers_;
  File_Transfer files_;
  Transfer_Sessions sessions_;
  Deadline_Watch watch_;
  std::unique_ptr<Membership> membership_;
  Announcement announcement_;
  Tls_Listener listener_;
  Command_Router router_;
  Member_Requests member_requests_;
  Local_Socket socket_;
  Deadline next_look_around_;
  int listener_trouble_ = 0;
  bool is_to_end_ = false;
};

// The socket comes first: it tells whether another service runs here, whose files must be left alone.
int Service::start(int signals_fd) {
  int result = loop_.start();
  if (result == 0) result = socket_.start();
  if (result == -EADDRINUSE) log_line("another cluster service runs here");
  if (result == 0) result = partial_files_.clean_up();
  if (result == 0) make_backup_folders();
  if (result == 0) result = handlers_.start();
  if (result == 0) result = bus_.start();
  if (result == 0) result = loop_.watch(bus_.fd(), [this] { bus_.process(); });
  if (result == 0) {
    result = loop_.watch(signals_fd, [this, signals_fd] { take_signals(signals_fd); });
  }
  if (result == 0) result = membership_->start();
  if (result == 0) start_listener();
  if (result != 0) log_line("cannot start (%d)", result);
  return result;
}

void Service::run() {
  log_line("ready");
  while (!is_to_end_) {
    if (loop_.wait(next_deadline()) < 0) break;
    bus_.end_late_questions();
    member_requests_.end_late_commands();
    if (next_look_around_ <= Clock::now()) look_around();
  }
}

void Service::take_signals(int fd) {
  signalfd_siginfo signal;
  while (read(fd, &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo == SIGCHLD) {
      handlers_.reap();
    } else if (signal.ssi_signo == SIGHUP) {
      bus_.follow_address();
      announcement_.refresh();
    } else if (signal.ssi_signo == kRestartSignal) {
      is_to_end_ = is_to_end_ || is_restart_requested();
    } else {
      cancel_restart();
      is_to_end_ = true;
    }
  }
}

// A member goes on without it: the port may be free a little later.
void Service::start_listener() {
  const int result = listener_.start();
  if (result == 0) announcement_.refresh();
  if (result != 0 && result != listener_trouble_) log_line("cannot listen for other appliances (%d)", result);
  listener_trouble_ = result;
}

Deadline Service::next_deadline() {
  return std::min({next_look_around_, bus_.next_deadline(), member_requests_.next_deadline()});
}

void Service::look_around() {
  bus_.revive();
  bus_.free_messages();
  if (!listener_.is_started()) start_listener();
  handlers_.rest();
  socket_.drop_silent_programs();
  next_look_around_ = Clock::now() + std::chrono::milliseconds(kReviveEveryMs);
}

// Every wait ends first; then the parts may be stopped in any order that leaves nobody a part that is gone.
void Service::stop() {
  stop_waiting();
  watch_.stop();
  listener_.stop();
  bus_.stop();
  membership_->stop();
  socket_.stop();
  member_requests_.stop();
  sessions_.stop();
  handlers_.stop();
  nats_CloseAndWait(0);
}

int run_service(const Options &options) {
  const Descriptor signals = watch_signals();
  Run_Lock lock;
  int result = lock.take(options.membership.run_folder);
  if (result == -EADDRINUSE) log_line("another cluster service runs here");
  if (result == 0) result = ensure_appliance_certificate(options.membership.certificate);
  if (result == 0) result = finish_interrupted_change(options.bus.folder);
  Identity identity;
  if (result == 0) result = load_identity(&identity);
  if (result == -ENOENT) return run_unjoined_service(options.membership, signals.get()) == 0 ? 0 : 1;
  std::string certificate;
  if (result == 0) result = prepare_listener_certificate(identity, options.membership, &certificate);
  if (result != 0) {
    log_line("cannot start (%d)", result);
    return 1;
  }
  Service service(identity, options, certificate);
  result = service.start(signals.get());
  if (result == 0) service.run();
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
    const int result = run_service(options);
    if (!is_restart_requested()) return result;
    execv((own_folder() + "/" + program_invocation_short_name).c_str(), arguments);
    execv("/proc/self/exe", arguments);
    log_line("cannot start anew (%d)", -errno);
    return 1;
  } catch (const std::exception &failure) {
    log_line("%s", failure.what());
    return 1;
  }
}
