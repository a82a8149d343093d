#include <algorithm>
#include <iostream>

#include "report.h"

namespace tool {
namespace {

// The words that may follow a command: its verbs and its options.
std::string words_after(const CLI::App &command) {
  std::string words;
  for (const CLI::App *sub : command.get_subcommands(nullptr)) words += sub->get_name() + " ";
  for (const CLI::Option *option : command.get_options()) {
    for (const std::string &name : option->get_lnames()) words += "--" + name + " ";
  }
  return words;
}

// One case for each command, under the words that lead to it.
void print_cases(const CLI::App &command, const std::string &path) {
  std::cout << "    '" << path << "') words='" << words_after(command) << "' ;;\n";
  for (const CLI::App *sub : command.get_subcommands(nullptr)) {
    print_cases(*sub, path + (path.empty() ? "" : " ") + sub->get_name());
  }
}

// Without words of its own a place takes a file.
void print_bash(const CLI::App &app) {
  std::cout << "# Completion of tarncluster for bash.\n"
               "_tarncluster() {\n"
               "  local path='' words='' word i\n"
               "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
               "    word=${COMP_WORDS[i]}\n"
               "    [[ $word == -* || $word == */* ]] || path+=${path:+ }$word\n"
               "  done\n"
               "  while :; do\n"
               "    case $path in\n";
  print_cases(app, "");
  std::cout << "    *' '*) path=${path% *}; continue ;;\n"
               "    *) path=''; continue ;;\n"
               "    esac\n"
               "    break\n"
               "  done\n"
               "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"${COMP_WORDS[COMP_CWORD]}\")\n"
               "}\n"
               "complete -o default -F _tarncluster tarncluster\n";
}

}  // namespace

void add_completion_command(CLI::App &app) {
  CLI::App *completion = app.add_subcommand("completion", "Print the completion script of a shell");
  completion->require_subcommand(1);
  CLI::App *bash = completion->add_subcommand("bash", "For bash");
  bash->footer("Example: source <(tarncluster completion bash)");
  bash->callback([&app] { print_bash(app); });
}

}  // namespace tool
