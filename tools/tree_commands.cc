#include <sys/stat.h>
#include <tarncluster_util.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "interruption.h"
#include "listing.h"
#include "progress_bar.h"

namespace tool {
namespace {

constexpr int64_t block_size = 512;

constexpr Column<Tree_Stat> size_columns[] = {
    {"Files", "files", [](const Tree_Stat &sums) { return number_cell(sums.file_count); }},
    {"Folders", "folders", [](const Tree_Stat &sums) { return number_cell(sums.folder_count); }},
    {"Size", "bytes", [](const Tree_Stat &sums) { return size_cell(static_cast<uint64_t>(sums.total_size)); }},
    {"On disk", "bytes_on_disk",
     [](const Tree_Stat &sums) { return size_cell(static_cast<uint64_t>(sums.total_blocks * block_size)); }},
};

struct Survey {
  Tree_Stat sums = {};
  int status = 0;  // positive: something in the tree could not be looked at

  explicit Survey(const std::string &path) : status(State_Folder_Tree(path.c_str(), &sums, Interruption::flag())) {}

  // A measure of the work with a tree: an empty file takes its time, too.
  int64_t work() const { return sums.total_size + (int64_t{sums.file_count} + sums.folder_count) * 4096; }

  void check_complete(const std::string &path) const {
    if (status > 0) throw Failure("not everything in " + path + " could be looked at: " + std::strerror(status));
  }
};

// The percentage from what has come to be in a tree, or has gone from it. Nobody tells, so it is looked at, when
// somebody wants to see it. Without a known measure of the work all that is there is to go.
class Tree_Progress {
 public:
  explicit Tree_Progress(std::string path, std::optional<int64_t> work = std::nullopt)
      : path_(std::move(path)),
        start_(shows_progress() ? now() : 0),
        work_(std::max<int64_t>(work.value_or(start_), 1)) {}

  int percent() {
    const int64_t done = std::abs(now() - start_);
    if (!Interruption::has_come()) last_ = static_cast<int>(std::min(done, work_) * 100 / work_);
    return last_;
  }

 private:
  int64_t now() const {
    const Survey survey(path_);
    return survey.status < 0 ? 0 : survey.work();
  }

  const std::string path_;
  const int64_t start_, work_;
  int last_ = 0;
};

void stop_when_interrupted(const std::string &what) {
  if (Interruption::has_come()) throw Failure("interrupted; " + what);
}

Survey survey_of(const std::string &path, const std::string &what) {
  Survey survey(path);
  stop_when_interrupted("nothing was done");
  if (survey.status < 0) check(survey.status, what);
  return survey;
}

void copy_tree(const std::string &source, const std::string &destination) {
  const Interruption interruption;
  const std::string what = "cannot copy " + source + " to " + destination;
  const Survey survey = survey_of(source, what);
  int status = 0;
  {
    Tree_Progress progress(destination, survey.work());
    const Progress_Bar bar([&] { return progress.percent(); });
    status = Copy_Folder_Tree(source.c_str(), destination.c_str(), Interruption::flag());
  }
  stop_when_interrupted("the files that were copied before are whole, and stay in " + destination);
  check(status, what);
  survey.check_complete(source);
}

void show_size(const std::string &path, bool as_json) {
  const Interruption interruption;
  const Survey survey = survey_of(path, "cannot look at " + path);
  print_record(survey.sums, size_columns, as_json);
  survey.check_complete(path);
}

// The one tree that nobody means.
void refuse_root(const std::string &path) {
  struct stat given, root;
  if (lstat(path.c_str(), &given) != 0 || lstat("/", &root) != 0) return;
  if (given.st_dev == root.st_dev && given.st_ino == root.st_ino) throw Failure("the root folder is not removed");
}

void remove_tree(const std::string &path) {
  refuse_root(path);
  const Interruption interruption;
  int status = 0;
  {
    Tree_Progress progress(path);
    const Progress_Bar bar([&] { return progress.percent(); });
    status = Remove_Folder_Tree(path.c_str(), Interruption::flag());
  }
  stop_when_interrupted("what is left stays in " + path);
  check(status, "cannot remove " + path);
}

struct Arguments {
  std::string path, destination;
};

}  // namespace

void add_tree_commands(CLI::App &app, const Settings &settings) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App *tree = app.add_subcommand("tree", "Copy, measure and remove folders with all that is in them");
  tree->require_subcommand(1);

  CLI::App *copy = tree->add_subcommand("copy", "Copy a folder with its content, owners, modes and times of files");
  copy->add_option("SOURCE", arguments->path, "The folder")->required();
  copy->add_option("DESTINATION", arguments->destination, "What it becomes; may be there")->required();
  copy->footer(
      "Files that are there are replaced; a folder or link within it that is there ends the copy. Devices, pipes and\n"
      "sockets are left out. Ctrl-C stops between files.\n\nExample: tarncluster tree copy /share/projects "
      "/share/copy");
  copy->callback([arguments] { copy_tree(arguments->path, arguments->destination); });

  CLI::App *size = tree->add_subcommand("size", "Tell how much a folder holds");
  size->add_option("PATH", arguments->path, "The folder")->required();
  size->footer("Example: tarncluster tree size /share/projects");
  size->callback([arguments, &settings] { show_size(arguments->path, settings.json); });

  CLI::App *remove = tree->add_subcommand("remove", "Remove a folder with its content, or a file");
  remove->add_option("PATH", arguments->path, "The folder")->required();
  remove->footer(
      "It is not asked for again. Ctrl-C stops between files.\n\nExample: tarncluster tree remove /share/copy");
  remove->callback([arguments] { remove_tree(arguments->path); });
}

}  // namespace tool
