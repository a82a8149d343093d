// Folder trees: copied, surveyed and removed, beside the programs that everybody knows.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/sample_files.h"
#include "bench/support/turns.h"
#include "foundation/owners.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

constexpr int folders = 500;
constexpr int files_in_each = 100;
constexpr int depth = 3000;

void require(bool done, const std::string &what) {
  if (done) return;
  perror(what.c_str());
  abort();
}

std::string numbered(const char *text, int number) {
  return text + std::to_string(number);
}

// Trees and copies of them, in a folder of their own that goes with its owner.
class Workshop {
 public:
  explicit Workshop(const std::string &root) : root_(root) { require(mkdir(root_.c_str(), 0755) == 0, root_); }
  ~Workshop() { Remove_Folder_Tree(root_.c_str(), nullptr); }
  Workshop(const Workshop &) = delete;
  Workshop &operator=(const Workshop &) = delete;

  std::string operator/(const std::string &name) const { return root_ + "/" + name; }

 private:
  std::string root_;
};

// 50000 files of 1 KiB in 500 folders.
void make_many_files(const std::string &root) {
  const std::string content(1024, 'x');
  require(mkdir(root.c_str(), 0755) == 0, root);
  for (int i = 0; i < folders; ++i) {
    const std::string folder = root + "/" + numbered("folder", i);
    require(mkdir(folder.c_str(), 0755) == 0, folder);
    for (int k = 0; k < files_in_each; ++k) {
      const Descriptor file(open((folder + "/" + numbered("file", k)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      require(write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()), folder);
    }
  }
}

void make_siblings(const std::string &root) {
  require(mkdir(root.c_str(), 0755) == 0, root);
  for (int i = 0; i < depth; ++i) require(mkdir((root + "/" + numbered("folder", i)).c_str(), 0755) == 0, root);
}

void make_chain(const std::string &root) {
  require(mkdir(root.c_str(), 0755) == 0, root);
  Descriptor folder(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < depth; ++i) {
    const std::string name = numbered("folder", i);
    require(mkdirat(folder.get(), name.c_str(), 0755) == 0, name);
    folder = Descriptor(openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
}

bool is_copied(const std::string &from, const std::string &to) {
  return Copy_Folder_Tree(from.c_str(), to.c_str(), nullptr) == 0;
}
bool is_surveyed(const std::string &root, int expected_folders) {
  Tree_Stat statistics = {};
  return State_Folder_Tree(root.c_str(), &statistics, nullptr) == 0 &&
         static_cast<int>(statistics.folder_count) == expected_folders;
}
bool is_removed(const std::string &root) {
  return Remove_Folder_Tree(root.c_str(), nullptr) == 0;
}
bool is_absent(const std::string &root) {
  return access(root.c_str(), F_OK) != 0 || is_removed(root);
}

// ------------------------------------------------------------------------------------------------- beside programs

class Many_Files {
 public:
  explicit Many_Files(const std::string &place)
      : workshop_(place), source(workshop_ / "source"), copy(workshop_ / "copy") {
    make_many_files(source);
  }

 private:
  const Workshop workshop_;

 public:
  const std::string source, copy;
};

void copy_tree(benchmark::State &state, const Many_Files &trees) {
  const auto none = [&] { return is_absent(trees.copy); };
  take_turns(state, {{"ours", [&] { return is_copied(trees.source, trees.copy); }, none},
                     {"program",
                      [&] {
                        return run_program({"cp", "-a", trees.source, trees.copy});
                      },
                      none}});
}

void survey_tree(benchmark::State &state, const Many_Files &trees) {
  take_turns(state, {{"ours", [&] { return is_surveyed(trees.source, folders + 1); }},
                     {"program", [&] {
                        return run_program({"du", "-s", trees.source});
                      }}});
}

void remove_tree(benchmark::State &state, const Many_Files &trees) {
  const auto made = [&] { return is_absent(trees.copy) && is_copied(trees.source, trees.copy); };
  take_turns(state, {{"ours", [&] { return is_removed(trees.copy); }, made},
                     {"program",
                      [&] {
                        return run_program({"rm", "-rf", trees.copy});
                      },
                      made}});
}

// ------------------------------------------------------------------------------------------------------------- depth

class Shapes {
 public:
  Shapes() : workshop_(memory_folder + "/shapes"), copy(workshop_ / "copy") {
    make_chain(workshop_ / "chain");
    make_siblings(workshop_ / "siblings");
  }

  using Check = std::function<bool(const std::string &root)>;

  // One piece of work on both shapes, after another that makes it possible.
  std::vector<Contender> contenders(const Check &work, const Check &prepare) const {
    std::vector<Contender> both;
    for (const char *shape : {"chain", "siblings"}) {
      const std::string root = workshop_ / shape;
      both.push_back({shape, [work, root] { return work(root); }, [prepare, root] { return prepare(root); }});
    }
    return both;
  }

 private:
  const Workshop workshop_;

 public:
  const std::string copy;
};

void copy_deep(benchmark::State &state, const Shapes &shapes) {
  take_turns(state, shapes.contenders([&](const std::string &root) { return is_copied(root, shapes.copy); },
                                      [&](const std::string &) { return is_absent(shapes.copy); }));
}

void survey_deep(benchmark::State &state, const Shapes &shapes) {
  take_turns(state, shapes.contenders([](const std::string &root) { return is_surveyed(root, depth + 1); },
                                      [](const std::string &) { return true; }));
}

void remove_deep(benchmark::State &state, const Shapes &shapes) {
  take_turns(state, shapes.contenders([&](const std::string &) { return is_removed(shapes.copy); },
                                      [&](const std::string &root) {
                                        return is_absent(shapes.copy) && is_copied(root, shapes.copy);
                                      }));
}

// What is measured on is made when it is needed first, and stays until the program ends.
template <typename Place, typename Make>
void register_on(const std::string &name, void (*run)(benchmark::State &, const Place &),
                 const std::shared_ptr<std::unique_ptr<Place>> &place, Make make) {
  const auto body = [run, place, make](benchmark::State &state) {
    if (*place == nullptr) *place = make();
    run(state, **place);
  };
  benchmark::RegisterBenchmark(name.c_str(), body)->Iterations(1)->Repetitions(long_turns)->UseRealTime();
}

void register_many_files(const std::string &wing, const std::string &folder) {
  const auto place = std::make_shared<std::unique_ptr<Many_Files>>();
  const auto make = [folder] { return std::make_unique<Many_Files>(folder); };
  register_on("tree_copy/" + wing, copy_tree, place, make);
  register_on("tree_survey/" + wing, survey_tree, place, make);
  register_on("tree_removal/" + wing, remove_tree, place, make);
}

[[maybe_unused]] const bool registered = [] {
  register_many_files("memory", memory_folder + "/many-files");
  // Takes a quarter of an hour, so it has to be asked for.
  if (getenv("TARN_BENCH_TREES_ON_DISK") != nullptr && !disk_folder().empty())
    register_many_files("disk", disk_folder() + "/many-files");
  const auto shapes = std::make_shared<std::unique_ptr<Shapes>>();
  const auto make = [] { return std::make_unique<Shapes>(); };
  register_on("deep_copy", copy_deep, shapes, make);
  register_on("deep_survey", survey_deep, shapes, make);
  register_on("deep_removal", remove_deep, shapes, make);
  return true;
}();

}  // namespace
}  // namespace tarn::bench
