// tarncluster: the library's work from the command line.
#include <tarncluster_util.h>

#include <cstring>
#include <iostream>

#include "report.h"
#include "utf8.h"

namespace {

// The library's own lines, on standard error. The handle lives as long as the process.
void report_to_standard_error(int level) {
  static Simp_Log *log = nullptr;
  if (Simp_Log_Create(nullptr, &log, 24, 3, 0) != 0) return;
  log->stream = stderr;  // a console handle would write to standard output, among the results
  g_ptslLog = log;
  g_idLogLevel = level;
}

// What is wrong with a call, and where to read how it is meant.
std::string misuse(const CLI::App *app, const CLI::Error &error) {
  std::string command = app->get_name();
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    command += " " + app->get_name();
  }
  return "tarncluster: " + std::string(error.what()) + "\nSee: " + command + " --help\n";
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("Works with the configuration, the member records and the members of a storage cluster.", "tarncluster");
  app.require_subcommand(1);
  app.footer(
      "Example: tarncluster conf get /etc/config/smb.conf global workgroup\n\nExit status: 0, or 1 with the reason on "
      "standard error.");
  app.failure_message(misuse);
  app.set_version_flag("--version", "tarncluster " TARN_VERSION);
  tool::Settings settings;
  app.add_flag("--json", settings.json, "Print JSON for programs instead of text for people");
  int verbosity = 0;
  app.add_flag("-v,--verbose", verbosity, "Show the library's error lines; twice: its debug lines, too");
  app.parse_complete_callback([&] {
    if (verbosity > 0) report_to_standard_error(verbosity > 1 ? 3 : 1);
  });

  tool::add_conf_commands(app, settings);
  tool::add_member_commands(app, settings);
  tool::add_cluster_commands(app, settings);
  tool::add_share_commands(app, settings);
  tool::add_discovery_commands(app, settings);
  tool::add_backup_commands(app, settings);
  tool::add_settings_commands(app, settings);
  tool::add_network_commands(app, settings);
  tool::add_tree_commands(app, settings);
  tool::add_volume_commands(app, settings);
  tool::add_lock_commands(app);
  tool::add_completion_command(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : 1;
  } catch (const std::exception &error) {
    std::cerr << "tarncluster: " << tool::printable(error.what()) << "\n";
    return 1;
  }
  return 0;
}
