// Doubles of the platform's functions: they note what they are called with and answer as they are told.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::test {

// One call of a Cluster_... function.
struct Platform_Call {
  std::string function;
  std::string command;
  std::string argument;
  std::optional<int> timeout_ms;  // of the functions that take one

  bool operator==(const Platform_Call &) const = default;
};

// One call of pelk_exec.
struct Program_Run {
  std::array<int, 3> numbers;
  std::string program;
  std::vector<std::string> arguments;  // behind the program, without the null pointer

  bool operator==(const Program_Run &) const = default;
};

// There is one set of doubles; each object of this class begins with none noted and answers of 0 without a reply.
// Calls are noted without the heap, so that tests may make the library's allocations fail.
class Platform_Doubles {
 public:
  Platform_Doubles();
  ~Platform_Doubles();
  Platform_Doubles(const Platform_Doubles &) = delete;
  Platform_Doubles &operator=(const Platform_Doubles &) = delete;

  // What commands are answered with: a code, and a reply unless it is null (the caller's pointer is then not touched).
  void answer(int code, const char *reply = nullptr);
  // The answer to the next command that has none yet, before the one of answer().
  void answer_once(int code, const char *reply = nullptr);
  // What commands to this slave are answered with, when answer_once() says nothing else.
  void answer_for(const char *slave_id, int code, const char *reply = nullptr);
  // Is run within each command, before it is answered: what holds while the library sends can be looked at there.
  void during_commands(std::function<void()> look);
  void exit_with(int wait_status);  // what pelk_exec answers
  // What Get_Display_Model_Name answers and fills in, as far as it fits; a terminator must be given with it.
  void answer_model(int code, std::string_view bytes);

  std::vector<Platform_Call> calls() const;
  std::vector<Program_Run> runs() const;
  std::vector<int> model_rooms() const;  // the sizes that Get_Display_Model_Name was called with
};

}  // namespace tarn::test
