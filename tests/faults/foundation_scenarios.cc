// Traced memory, the link queue, string lists.
#include <array>
#include <cerrno>
#include <utility>

#include "tests/faults/families.h"

namespace tarn::test {
namespace {

enum { plain, sorted, stack };
constexpr int least_block = 64;

// Leaves no room for another entry, so that the next one makes the block grow.
void fill(World &w, int mode, int object_size) {
  const std::array<char, 4> object = {'o', 'b', 'j', '\0'};
  Str_Obj_List_Init(&w.list, least_block, mode, object_size);
  Str_Obj_List_Add(&w.list, "first", object.data());
}
void give_full_set(World &w) {
  fill(w, sorted, 4);
}
void give_full_stack(World &w) {
  fill(w, stack, 4);
}
void give_full_plain_list(World &w) {
  fill(w, plain, 0);
  Str_List_Add(&w.list, "f");
}
void give_full_plain_stack(World &w) {
  fill(w, stack, 0);
  Str_List_Push(&w.list, "f");
}

// What was popped lies where it would be put, so it is copied first.
void give_popped(World &w) {
  Str_List_Init(&w.list, 4 * least_block, stack);
  Str_List_Push(&w.list, "first");
  Str_List_Push(&w.list, "second");
  Str_List_Pop(w.list, &w.given_text);
}

}  // namespace

std::vector<Scenario> traced_memory() {
  return {
      in_memory(
          "Trace_Mem_Alloc", nullptr,
          [](World &w) {
            w.traced = static_cast<char *>(Trace_Mem_Alloc(10, 0, "f.c", 1));
            return w.traced != nullptr ? 0 : -ENOMEM;
          },
          "traced"),
  };
}

std::vector<Scenario> string_lists() {
  const auto answers = [](int index, Scenario scenario) {
    return with(std::move(scenario), [=](Scenario &changed) { changed.success = index; });
  };
  const auto object = "new";
  return {
      in_memory(
          "Str_Obj_List_Init", nullptr, [](World &w) { return Str_Obj_List_Init(&w.list, 100, sorted, 8); }, "list:"),
      in_memory(
          "Str_List_Init", nullptr, [](World &w) { return Str_List_Init(&w.list, 100, plain); }, "list:"),
      answers(1, in_memory(
                     "Str_Obj_List_Add", give_full_set,
                     [=](World &w) { return Str_Obj_List_Add(&w.list, "second", object); }, "list:first;second;")),
      answers(1, in_memory(
                     "Str_Obj_List_Push", give_full_stack,
                     [=](World &w) { return Str_Obj_List_Push(&w.list, "second", object); }, "list:first;second;")),
      answers(2, in_memory(
                     "Str_List_Add", give_full_plain_list, [](World &w) { return Str_List_Add(&w.list, "third"); },
                     "list:first;f;third;")),
      answers(2, in_memory(
                     "Str_List_Push", give_full_plain_stack, [](World &w) { return Str_List_Push(&w.list, "third"); },
                     "list:first;f;third;")),
      with(answers(1, in_memory(
                          "Str_List_Push", give_popped, [](World &w) { return Str_List_Push(&w.list, w.given_text); },
                          "list:first;second;")),
           [](Scenario &scenario) { scenario.situation = "what was popped"; }),
  };
}

std::vector<Pure_Function> pure_foundation_functions() {
  static Link_Queue queue;
  static Link_Queue_Node *node = nullptr;
  static Str_List *list = nullptr;
  Link_Queue_Init(&queue, 4, nullptr, nullptr);
  if (list == nullptr) Str_List_Init(&list, 4 * least_block, stack);
  Str_List_Push(&list, "text");
  static const char *found;
  static void *object;
  return {
      {"Trace_Mem_Init", [] { Trace_Mem_Init(); }},
      {"Trace_Mem_Check", [] { Trace_Mem_Check(nullptr); }},
      {"Trace_Mem_Free", [] { Trace_Mem_Free(nullptr, "f.c", 1); }},
      {"Trace_Mem_Usage", [] { Trace_Mem_Usage(); }},
      {"Trace_Mem_Destroy",
       [] {
         Trace_Mem_Destroy();
         Trace_Mem_Init();
       }},
      {"Link_Queue_Init", [] { Link_Queue_Init(&queue, 4, nullptr, nullptr); }},
      {"Link_Queue_Destroy",
       [] {
         Link_Queue_Destroy(&queue);
         Link_Queue_Init(&queue, 4, nullptr, nullptr);
       }},
      {"Link_Queue_Reset", [] { Link_Queue_Reset(&queue, 4); }},
      {"Link_Queue_Mark",
       [] {
         Link_Queue_Mark(&queue);
         Link_Queue_Reset(&queue, 4);
       }},
      {"Link_Queue_Get_Size", [] { Link_Queue_Get_Size(&queue); }},
      {"Link_Queue_Get_Number", [] { Link_Queue_Get_Number(&queue); }},
      // One and the same node goes in and out.
      {"Link_Queue_Push_Node",
       [] {
         static Link_Queue_Node pushed = {};
         Link_Queue_Push_Node(&queue, &pushed);
         Link_Queue_Pop_Node(&queue, &node);
       }},
      {"Link_Queue_Pop_Node", [] { Link_Queue_Pop_Node(&queue, &node); }},
      {"Link_Queue_Pop_Nodes", [] { Link_Queue_Pop_Nodes(&queue, &node); }},
      {"Str_Obj_List_Reset",
       [] {
         Str_Obj_List_Reset(list, stack, 0);
         Str_List_Push(&list, "text");
       }},
      {"Str_Obj_List_Free", [] { Str_Obj_List_Free(nullptr); }},
      {"Str_Obj_List_Find", [] { Str_Obj_List_Find(list, "text", &object); }},
      {"Str_Obj_List_Remove", [] { Str_Obj_List_Remove(list, "none", &object); }},
      {"Str_Obj_List_Pop",
       [] {
         Str_Obj_List_Pop(list, &found, &object);
         Str_List_Push(&list, "text");
       }},
      {"Str_Obj_List_Peek", [] { Str_Obj_List_Peek(list, &found, &object); }},
      {"Str_List_Reset",
       [] {
         Str_List_Reset(list, stack);
         Str_List_Push(&list, "text");
       }},
      {"Str_List_Free", [] { Str_List_Free(nullptr); }},
      {"Str_List_Find", [] { Str_List_Find(list, "text"); }},
      {"Str_List_Remove", [] { Str_List_Remove(list, "none"); }},
      {"Str_List_Pop",
       [] {
         Str_List_Pop(list, &found);
         Str_List_Push(&list, "text");
       }},
      {"Str_List_Peek", [] { Str_List_Peek(list, &found); }},
  };
}

}  // namespace tarn::test
