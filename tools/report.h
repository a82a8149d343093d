// What every command of the tool shares: failures, tables and JSON.
#pragma once

#include <json-c/json.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// A failed command: the reason goes to standard error, the exit status is 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws with what was tried and the text of the error when the status is negative. A positive status comes from the
// platform and is an error, too.
void check(int status, const std::string &what);

// Throws when a program that the library runs is missing: without it the library finds nothing, and says so to nobody.
void need_program(const std::string &path);

struct Free {
  void operator()(char *text) const { std::free(text); }
};
using Text = std::unique_ptr<char, Free>;

struct Put {
  void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Put>;

void print_json(const Json &json);

// What a command to other members came to: throws when the status is not 0; else prints the reply, as JSON or as the
// text that it holds.
void print_reply(int status, char *reply, const std::string &what, bool as_json);

// The reply; throws also when the member that carried the command out answered with a failure ("return").
Json take_reply(int status, char *reply, const std::string &what);
void check_reply(int status, char *reply, const std::string &what, bool as_json);  // prints it, as print_reply does

constexpr const char *master_id = "0";
constexpr const char *members_file = "/mnt/tarncluster/config/tarn_service_s.conf";

// A table for people: columns as wide as their longest cell.
using Rows = std::vector<std::vector<std::string>>;
void print_table(const std::vector<std::string> &titles, const Rows &rows);

// The commands, by family. Each adds its nouns with their verbs.
struct Settings {
  bool json = false;
};

void add_conf_commands(CLI::App &app, const Settings &settings);
void add_member_commands(CLI::App &app, const Settings &settings);
void add_cluster_commands(CLI::App &app, const Settings &settings);
void add_share_commands(CLI::App &app, const Settings &settings);
void add_discovery_commands(CLI::App &app, const Settings &settings);
void add_backup_commands(CLI::App &app, const Settings &settings);
void add_settings_commands(CLI::App &app, const Settings &settings);
void add_network_commands(CLI::App &app, const Settings &settings);
void add_tree_commands(CLI::App &app, const Settings &settings);
void add_volume_commands(CLI::App &app, const Settings &settings);
void add_lock_commands(CLI::App &app);
void add_completion_command(CLI::App &app);

}  // namespace tool
