#include <tarncluster_util.h>

#include <iostream>
#include <memory>

#include "report.h"

namespace tool {
namespace {

struct Target {
  std::string file, section, key, value;
};

std::string read_value(const Target &target) {
  std::string buffer(256, '\0');
  for (;;) {
    int size = static_cast<int>(buffer.size());
    const int status = Get_Conf_File_String_Value(target.file.c_str(), target.section.c_str(), target.key.c_str(),
                                                  buffer.data(), &size);
    if (status == -EOVERFLOW) {
      buffer.resize(static_cast<size_t>(size) + 1);
      continue;
    }
    check(status, "cannot read " + target.key + " of " + target.file);
    return buffer.substr(0, static_cast<size_t>(size));
  }
}

void print_value(const Target &target, bool as_json) {
  const std::string value = read_value(target);
  if (as_json) {
    print_json(Json(json_object_new_string(value.c_str())));
  } else {
    std::cout << value << "\n";
  }
}

using Sections = std::unique_ptr<Sect_Node, decltype(&Free_Sect_Node)>;

Json to_json(const Sect_Node *section) {
  Json list(json_object_new_array());
  for (; section != nullptr; section = section->next) {
    json_object *pairs = json_object_new_object();
    for (const Pair_Node *pair = section->pairs; pair != nullptr; pair = pair->next) {
      json_object_object_add(pairs, pair->key, json_object_new_string(pair->value));
    }
    json_object *entry = json_object_new_object();
    json_object_object_add(entry, "section", json_object_new_string(section->name));
    json_object_object_add(entry, "values", pairs);
    json_object_array_add(list.get(), entry);
  }
  return list;
}

void show_file(const std::string &file, bool as_json) {
  Sect_Node *chain = nullptr;
  const int count = Read_Conf_File(file.c_str(), &chain);
  const Sections sections(chain, Free_Sect_Node);
  if (count < 0) check(count, "cannot read " + file);
  if (as_json) {
    print_json(to_json(chain));
    return;
  }
  std::vector<std::vector<std::string>> rows;
  for (const Sect_Node *section = chain; section != nullptr; section = section->next) {
    for (const Pair_Node *pair = section->pairs; pair != nullptr; pair = pair->next) {
      rows.push_back({section->name, pair->key, pair->value});
    }
  }
  print_table({"SECTION", "KEY", "VALUE"}, rows);
}

void add_target(CLI::App *command, Target *target) {
  command->add_option("FILE", target->file, "The configuration file")->required();
  command->add_option("SECTION", target->section, "Its section; '' for the lines before the first one")->required();
  command->add_option("KEY", target->key, "The key")->required();
}

}  // namespace

void add_conf_commands(CLI::App &app, const Settings &settings) {
  CLI::App *conf = app.add_subcommand("conf", "Read and change configuration files");
  conf->require_subcommand(1);
  auto target = std::make_shared<Target>();

  CLI::App *get = conf->add_subcommand("get", "Print one value");
  add_target(get, target.get());
  get->footer("Example: tarncluster conf get /etc/config/smb.conf global workgroup");
  get->callback([target, &settings] { print_value(*target, settings.json); });

  CLI::App *set = conf->add_subcommand("set", "Set one value; every other line of the file stays as it is");
  add_target(set, target.get());
  set->add_option("VALUE", target->value, "The new value")->required();
  set->footer("Example: tarncluster conf set /etc/config/smb.conf global workgroup OFFICE");
  set->callback([target] {
    check(Set_Conf_File_String_Value(target->file.c_str(), target->section.c_str(), target->key.c_str(),
                                     target->value.c_str()),
          "cannot set " + target->key + " in " + target->file);
  });

  CLI::App *remove = conf->add_subcommand("remove", "Remove one key");
  add_target(remove, target.get());
  remove->footer("Example: tarncluster conf remove /etc/config/smb.conf global workgroup");
  remove->callback([target] {
    check(Set_Conf_File_String_Value(target->file.c_str(), target->section.c_str(), target->key.c_str(), nullptr),
          "cannot remove " + target->key + " from " + target->file);
  });

  CLI::App *show = conf->add_subcommand("show", "Print a whole file");
  show->add_option("FILE", target->file, "The configuration file")->required();
  show->footer("Example: tarncluster conf show /etc/config/smb.conf");
  show->callback([target, &settings] { show_file(target->file, settings.json); });
}

}  // namespace tool
