#include "tests/cluster/ops/platform_doubles.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory_resource>
#include <utility>

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
  std::pmr::map<Text, Answer> answers_by_slave{&memory};
  Answer standing_answer;
  std::function<void()> look;
  int wait_status = 0;
  int model_code = 0;
  Text model{"model", 6, &memory};  // with its terminator
  std::pmr::vector<int> model_rooms{&memory};

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

// The standing answer to a command, by the slave that it names.
const Answer &standing_answer_to(const Text &command) {
  for (const auto &[slave, answer] : state->answers_by_slave) {
    if (command.find(slave) != Text::npos) return answer;
  }
  return state->standing_answer;
}

int take_call(const char *function, const char *command, const char *argument, std::optional<int> timeout_ms,
              char **reply) {
  state->calls.push_back({state->text(function), state->text(command), state->text(argument), timeout_ms});
  if (state->look) state->look();
  if (state->answers.empty()) return give(standing_answer_to(state->calls.back().command), reply);
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

void Platform_Doubles::answer_for(const char *slave_id, int code, const char *reply) {
  Text member = state->text("\"slave_id\": \"");
  member.append(slave_id).append("\"");
  state->answers_by_slave.insert_or_assign(std::move(member), state->make_answer(code, reply));
}

void Platform_Doubles::during_commands(std::function<void()> look) {
  state->look = std::move(look);
}

void Platform_Doubles::answer_model(int code, std::string_view bytes) {
  state->model_code = code;
  state->model = bytes;
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

std::vector<int> Platform_Doubles::model_rooms() const {
  return {state->model_rooms.begin(), state->model_rooms.end()};
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

int Get_Display_Model_Name(char *buffer, int size) {
  state->model_rooms.push_back(size);
  memcpy(buffer, state->model.data(), std::min(state->model.size(), static_cast<size_t>(size)));
  return state->model_code;
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
