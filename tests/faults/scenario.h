// One call of an exported function, and what holds whatever fails on its way.
#pragma once

#include <climits>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/faults/background_peer.h"
#include "tests/faults/watched_calls.h"
#include "tests/support/files.h"

namespace tarn::test {

// What a call works on and what it hands out. All that is handed out is given back between two calls.
struct World {
  World();
  ~World();
  World(const World &) = delete;
  World &operator=(const World &) = delete;

  const char *path() const { return file.c_str(); }
  std::string shown() const;  // what was handed out, for comparison
  void give_back();

  std::string folder;  // empty but for the file
  std::string file;
  std::string base_name;  // of the file
  std::string new_path;   // in folders that are to be made
  std::string socket_path;

  Sect_Node *sections = nullptr;
  Pair_Node *pairs = nullptr;
  Tarn_Serv_Conf *records = nullptr;
  Tarn_Share_Conf *shares = nullptr;
  FILE *stream = nullptr;
  Simp_Log *log = nullptr;
  char *text = nullptr;
  const char *found = nullptr;  // points into something else
  char buffer[256] = "";
  int size = 0;
  int64_t number = 0;
  int socket = -1;
  int listening[4] = {-1, -1, -1, -1};
  ssl_ctx_st *context = nullptr;
  Tls_Session session = {-1, nullptr, nullptr, nullptr};
  Net_Interface *interfaces = nullptr;
  Str_List *list = nullptr;
  char *traced = nullptr;  // a block of traced memory
  int *pids = nullptr;
  int pid_count = 0;
  int pid = -1;

  // Arguments: they are not shown, but what arrives at the other ends is.
  Sect_Node *given_sections = nullptr;
  Tarn_Serv_Conf given_record = {};
  Tarn_Share_Conf given_share = {};
  std::string given_name;
  const char *given_text = nullptr;  // lies in what is handed out
  Descriptor given_fd;
  Descriptor far_end;  // of given_fd or of a plain session
  Descriptor source_fd;
  int port = 0;
  std::unique_ptr<Background_Peer> peer;  // of a TLS session
};

// What becomes of the file when the call fails.
enum class Promise {
  whole,     // it stays as it was
  in_place,  // or it is gone: the function writes where the file stands
  none,      // what a stream has sent is there
  varies,    // a log, which holds the time
};

// Where a failing call worked.
enum class Place { lock, file, temporary, other };

Place place_of(const std::string &path, const World &world);

// In place of a status.
inline constexpr int positive_errno = INT_MAX;
inline constexpr int any_error = INT_MIN;  // below 0: another library has its say in it

// What the function answers when a system call fails that is not answered with the negated errno.
struct Answer {
  Call call;
  Place place;
  int status;
};

struct Scenario {
  std::string function;
  std::string situation = {};                 // tells apart several scenarios of a function
  std::optional<std::string> before = {};     // the file's content; none: it is missing
  std::optional<std::string> after = {};      // and when all went well
  std::function<void(World &)> prepare = {};  // makes arguments; nothing fails meanwhile
  std::function<int(World &)> call = {};      // nothing but the call: its allocations are counted
  std::function<int(World &)> first_part =
      {};                   // its first thousands of allocations are this call's, which has an entry
  int success = 0;          // what it answers when all went well
  std::string result = {};  // and what it then hands out
  bool may_be_cut = false;  // a failure may leave a part of what is handed out
  std::vector<std::string> lesser_results = {};  // what it may hand out instead with success, for all that failed
  std::vector<int> out_of_memory = {-ENOMEM};    // what it answers when an allocation fails
  std::vector<Answer> answers = {};              // what it answers when a system call fails
  std::optional<int> answer = {};                // and to all that are not among those
  std::optional<int> half = {};                  // and to half of a transfer, with what moved
  bool silent = false;                           // answers success although it failed
  Promise promise = Promise::whole;
  bool keeps_lock = false;                  // holds the file's lock after success
  bool stale_lock_may_stay = false;         // the one that prepare made
  std::optional<Call> leaves_open = {};     // this call's failure leaves a descriptor open, as callers know it
  std::vector<std::string> also_made = {};  // names in the folder that may stay
  std::string parses = {};                  // the JSON text that it parses first
  std::optional<int> without_lock = {};     // takes the lock, and answers this without it
  std::optional<int> on_full_disk = {};     // replaces the file, and answers this when there is no room

  bool writes() const { return before != after; }
};

void PrintTo(const Scenario &scenario, std::ostream *out);
std::string title(const Scenario &scenario);  // a name for a test

// The table: every exported function that allocates or makes system calls, in one situation or several.
const std::vector<Scenario> &scenarios();

// The other exported functions, each with a call of it.
struct Pure_Function {
  std::string function;
  std::function<void()> call;
};
const std::vector<Pure_Function> &pure_functions();

// What was made to fail in one run.
struct Failure {
  std::optional<Seen_Call> call;  // none: an allocation
  int error = 0;                  // of the call
};

// A scenario's folder, lock and log; runs the call again and again from the same start.
class Stage {
 public:
  explicit Stage(const Scenario &scenario);
  ~Stage();
  Stage(const Stage &) = delete;
  Stage &operator=(const Stage &) = delete;

  World &world() { return world_; }

  void set();  // the file as before, arguments made; nothing left of an earlier run

  // Holds what the call answered and left behind against the scenario.
  void expect_success(int status);
  void expect_old_or_new(int status, const Failure &failure);

 private:
  void expect_nothing_left(int status, const Failure &failure);
  void expect_failed(int status, const Failure &failure);
  bool must_be_told(const Failure &failure) const;

  const Scenario &scenario_;
  World world_;
  int descriptors_ = 0;
  std::string shown_before_;
  std::vector<std::string> names_before_;  // in the folder
};

void expect_no_leak();  // looks for lost memory where the build can

}  // namespace tarn::test
