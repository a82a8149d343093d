#include "tests/cluster/ops/platform_doubles.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory_resource>

#include "include/tarncluster_util.h"

namespace tarn::test {
namespace {

using Text = std::pmr::string;

struct Answer {
  int code = 0;
  std::optional<Text> reply;
};

struct Noted_Call {
  Text function, command, argument;
  std::optional<int> timeout_ms;
};

struct Noted_Run {
  std::array<int, 3> numbers;
  Text program;
  std::pmr::vector<Text> arguments;
};

alignas(std::max_align_t) std::byte storage[16 << 20];

// All that is noted and planned, outside the heap.
struct State {
  std::pmr::monotonic_buffer_resource memory{storage, sizeof storage, std::pmr::null_memory_resource()};
  std::pmr::vector<Noted_Call> calls{&memory};
  std::pmr::vector<Noted_Run> runs{&memory};
  std::pmr::deque<Answer> answers{&memory};
  Answer standing_answer;
  int wait_status = 0;

  Text text(const char *from) { return Text(from != nullptr ? from : "(null)", &memory); }
  Answer make_answer(int code, const char *reply) {
    Answer made;
    made.code = code;
    if (reply != nullptr) made.reply.emplace(text(reply));
    return made;
  }
};

std::optional<State> state{std::in_place};

int give(const Answer &answer, char **reply) {
  if (!answer.reply) return answer.code;
  *reply = strdup(answer.reply->c_str());
  return *reply != nullptr ? answer.code : -ENOMEM;
}

int take_call(const char *function, const char *command, const char *argument, std::optional<int> timeout_ms,
              char **reply) {
  state->calls.push_back({state->text(function), state->text(command), state->text(argument), timeout_ms});
  if (state->answers.empty()) return give(state->standing_answer, reply);
  const int code = give(state->answers.front(), reply);
  state->answers.pop_front();
  return code;
}

}  // namespace

Platform_Doubles::Platform_Doubles() {
  state.emplace();
}

Platform_Doubles::~Platform_Doubles() {
  state.emplace();
}

void Platform_Doubles::answer(int code, const char *reply) {
  state->standing_answer = state->make_answer(code, reply);
}

void Platform_Doubles::answer_once(int code, const char *reply) {
  state->answers.push_back(state->make_answer(code, reply));
}

void Platform_Doubles::exit_with(int wait_status) {
  state->wait_status = wait_status;
}

std::vector<Platform_Call> Platform_Doubles::calls() const {
  std::vector<Platform_Call> all;
  for (const Noted_Call &call : state->calls) {
    all.push_back({std::string(call.function), std::string(call.command), std::string(call.argument), call.timeout_ms});
  }
  return all;
}

std::vector<Program_Run> Platform_Doubles::runs() const {
  std::vector<Program_Run> all;
  for (const Noted_Run &run : state->runs) {
    all.push_back({run.numbers, std::string(run.program), {run.arguments.begin(), run.arguments.end()}});
  }
  return all;
}

}  // namespace tarn::test

using tarn::test::state;
using tarn::test::take_call;

extern "C" {

int Cluster_Master_Cmd(const char *command, const char *argument, char **reply) {
  return take_call(__func__, command, argument, {}, reply);
}

int Cluster_Slave_Cmd(const char *command, const char *argument, char **reply) {
  return take_call(__func__, command, argument, {}, reply);
}

int Cluster_Master_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply) {
  return take_call(__func__, command, argument, timeout_ms, reply);
}

int Cluster_Slave_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply) {
  return take_call(__func__, command, argument, timeout_ms, reply);
}

int Cluster_Master_Ctrl_Cmd(const char *command, const char *argument, char **reply) {
  return take_call(__func__, command, argument, {}, reply);
}

int pelk_exec(int zero1, int zero2, int zero3, const char *program, ...) {
  std::pmr::vector<tarn::test::Text> arguments(&state->memory);
  va_list list;
  va_start(list, program);
  for (const char *next; (next = va_arg(list, const char *)) != nullptr;) arguments.push_back(state->text(next));
  va_end(list);
  state->runs.push_back({{zero1, zero2, zero3}, state->text(program), std::move(arguments)});
  return state->wait_status;
}

}  // extern "C"
