#include "password.h"

#include <unistd.h>

#include <fstream>
#include <iostream>

#include "report.h"

namespace tool {

namespace {

// Without a terminal the system's own function would take a line of standard input, or nothing at all.
std::string ask_for_password() {
  const bool has_terminal = std::fstream("/dev/tty").is_open();
  const char *typed = has_terminal ? getpass("Password: ") : nullptr;
  if (typed == nullptr) throw Failure("no terminal to ask for the password; give --password-file");
  return typed;
}

}  // namespace

std::string read_password(const std::string &file) {
  if (file.empty()) return ask_for_password();
  std::ifstream opened;
  if (file != "-") opened.open(file);
  std::istream &source = file == "-" ? std::cin : opened;
  std::string password;
  if (!std::getline(source, password)) throw Failure("cannot read a password from " + file);
  return password;
}

}  // namespace tool
