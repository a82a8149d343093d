#include <gmock/gmock.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"

namespace {

using namespace tarn::test;
using testing::ElementsAre;

// Programs compiled earlier read lists by these places.
static_assert(sizeof(Str_List) == 32);
static_assert(offsetof(Str_List, magic) == 0 && sizeof(Str_List::magic) == 4);
static_assert(offsetof(Str_List, block_size) == 4 && offsetof(Str_List, free_bytes) == 8);
static_assert(offsetof(Str_List, count) == 12 && sizeof(Str_List::count) == 4);
static_assert(offsetof(Str_List, mode) == 16 && sizeof(Str_List::mode) == 2);
static_assert(offsetof(Str_List, object_size) == 18 && sizeof(Str_List::object_size) == 2);
static_assert(offsetof(Str_List, low_end) == 24 && offsetof(Str_List, pointers) == 32);

enum Mode { plain, sorted, stack };
constexpr int greatest_size = 1073741824;

using Object = std::array<char, 4>;

// Holds a list and frees it.
struct Holder {
  explicit Holder(Mode mode, int size = 0, int object_size = 0) {
    EXPECT_EQ(Str_Obj_List_Init(&list, size, mode, object_size), 0);
  }
  ~Holder() { Str_List_Free(list); }
  Holder(const Holder &) = delete;
  Holder &operator=(const Holder &) = delete;

  int add(const std::string &text) { return Str_List_Add(&list, text.c_str()); }
  int add(const std::string &text, const Object &object) { return Str_Obj_List_Add(&list, text.c_str(), &object); }
  int push(const std::string &text) { return Str_List_Push(&list, text.c_str()); }

  Str_List *list = nullptr;
};

std::vector<std::string> strings_of(const Str_List *list) {
  EXPECT_EQ(list->pointers[list->count], nullptr) << "the pointers do not end";
  return std::vector<std::string>(list->pointers, list->pointers + list->count);
}

Object object_in_front_of(const char *text) {
  Object object;
  memcpy(object.data(), text - object.size(), object.size());
  return object;
}

// Where the lowest entry may begin: everything from there to the block's end is in use.
long room_between(const Str_List *list) {
  return list->low_end - reinterpret_cast<const char *>(list->pointers + list->count + 1);
}

std::string bytes_of(const Str_List *list) {
  return std::string(reinterpret_cast<const char *>(list), list->block_size);
}

// ---------------------------------------------------------------------------------------------------------------- init

TEST(Str_List_Init, Makes_an_empty_block) {
  for (const Mode mode : {plain, sorted, stack}) {
    Str_List *list = nullptr;
    ASSERT_EQ(Str_Obj_List_Init(&list, 200, mode, 8), 0);
    EXPECT_EQ(std::string(list->magic, 4), "tsil");
    EXPECT_EQ(list->block_size, 256u);
    EXPECT_EQ(list->free_bytes, 216u);
    EXPECT_EQ(list->count, 0u);
    EXPECT_EQ(list->mode, mode);
    EXPECT_EQ(list->object_size, 8);
    EXPECT_EQ(list->low_end, reinterpret_cast<char *>(list) + 256);
    EXPECT_EQ(list->pointers[0], nullptr);
    EXPECT_GE(malloc_usable_size(list), 256u);
    Str_Obj_List_Free(list);
  }
}

TEST(Str_List_Init, Sizes_are_rounded_up_to_powers_of_two_from_64) {
  const auto block_of = [](int size) { return Holder(plain, size).list->block_size; };
  EXPECT_EQ(block_of(0), 64u);
  EXPECT_EQ(block_of(1), 64u);
  EXPECT_EQ(block_of(64), 64u);
  EXPECT_EQ(block_of(65), 128u);
  EXPECT_EQ(block_of(128), 128u);
  EXPECT_EQ(block_of(129), 256u);
  EXPECT_EQ(block_of(1'000'000), 1'048'576u);
}

TEST(Str_List_Init, Refuses_what_no_list_can_have_and_leaves_the_output) {
  Str_List untouched;
  Str_List *list = &untouched;
  for (const int size : {-1, INT_MIN, greatest_size + 1, INT_MAX}) EXPECT_EQ(Str_List_Init(&list, size, 0), -EINVAL);
  for (const int mode : {-1, 3, 4, 65536, 65537}) EXPECT_EQ(Str_Obj_List_Init(&list, 64, mode, 0), -EINVAL) << mode;
  for (const int object_size : {-4, 1, 2, 3, 5, 65533, 65535, 65536, 65540, INT_MIN}) {
    EXPECT_EQ(Str_Obj_List_Init(&list, 64, plain, object_size), -EINVAL) << object_size;
  }
  EXPECT_EQ(Str_Obj_List_Init(nullptr, 64, plain, 0), -EINVAL);
  EXPECT_EQ(Str_List_Init(nullptr, 64, plain), -EINVAL);
  EXPECT_EQ(list, &untouched);
}

TEST(Str_List_Init, Takes_the_greatest_object_and_the_greatest_size) {
  EXPECT_EQ(Holder(plain, 64, 65532).list->object_size, 65532);
  Str_List *list = nullptr;
  {
    const Allocation_Failure failure(1);
    EXPECT_EQ(Str_List_Init(&list, greatest_size, plain), -ENOMEM);  // asked for, not refused
  }
  EXPECT_TRUE(allocation_failed());
}

TEST(Str_List_Init, Without_memory_leaves_the_output) {
  Str_List untouched;
  Str_List *list = &untouched;
  const int allocations = with_each_allocation_failing([&] { return Str_List_Init(&list, 64, stack); },
                                                       [&](int status, int) {
                                                         EXPECT_EQ(status, -ENOMEM);
                                                         EXPECT_EQ(list, &untouched);
                                                       });
  EXPECT_EQ(allocations, 1);
  Str_List_Free(list);
}

TEST(Str_List_Free, Ignores_null) {
  Str_Obj_List_Free(nullptr);
  Str_List_Free(nullptr);
}

// --------------------------------------------------------------------------------------------------------------- reset

TEST(Str_List_Reset, Empties_the_list_and_sets_mode_and_object_size) {
  Holder holder(plain, 256);
  holder.add("one");
  holder.add("two");

  EXPECT_EQ(Str_Obj_List_Reset(holder.list, sorted, 12), 0);

  EXPECT_EQ(holder.list->block_size, 256u);
  EXPECT_EQ(holder.list->free_bytes, 216u);
  EXPECT_EQ(holder.list->count, 0u);
  EXPECT_EQ(holder.list->mode, sorted);
  EXPECT_EQ(holder.list->object_size, 12);
  EXPECT_EQ(holder.list->low_end, reinterpret_cast<char *>(holder.list) + 256);
  EXPECT_EQ(holder.list->pointers[0], nullptr);

  EXPECT_EQ(Str_List_Reset(holder.list, stack), 0);
  EXPECT_EQ(holder.list->object_size, 0);
  EXPECT_EQ(holder.push("x"), 0);
}

TEST(Str_List_Reset, Refuses_what_no_list_can_have_and_changes_nothing) {
  Holder holder(plain, 128, 4);
  holder.add("one", {'a'});
  const std::string before = bytes_of(holder.list);

  EXPECT_EQ(Str_List_Reset(nullptr, plain), -EINVAL);
  EXPECT_EQ(Str_Obj_List_Reset(nullptr, plain, 0), -EINVAL);
  for (const int mode : {-1, 3, 4, 65536}) EXPECT_EQ(Str_List_Reset(holder.list, mode), -EINVAL) << mode;
  for (const int size : {-4, 2, 65535, 65536}) EXPECT_EQ(Str_Obj_List_Reset(holder.list, plain, size), -EINVAL) << size;

  EXPECT_EQ(bytes_of(holder.list), before);
}

// ------------------------------------------------------------------------------------------------------- validity
// check

// All operations on a record, and what they answer.
std::vector<int> answers_of_all(Str_List *list) {
  Str_List *held = list;
  Object object = {};
  const char *text = nullptr;
  return {Str_Obj_List_Find(list, "x", nullptr),   Str_List_Find(list, "x"),
          Str_Obj_List_Add(&held, "x", &object),   Str_List_Add(&held, "x"),
          Str_Obj_List_Remove(list, "x", nullptr), Str_List_Remove(list, "x"),
          Str_Obj_List_Push(&held, "x", &object),  Str_List_Push(&held, "x"),
          Str_Obj_List_Peek(list, &text, nullptr), Str_List_Peek(list, &text),
          Str_Obj_List_Pop(list, &text, nullptr),  Str_List_Pop(list, &text),
          Str_Obj_List_Reset(list, stack, 0),      Str_List_Reset(list, stack)};
}

const std::vector<int> all_refused(14, -EINVAL);

TEST(Str_List_Arguments, A_missing_list_is_refused_by_all) {
  EXPECT_EQ(answers_of_all(nullptr), all_refused);
  EXPECT_EQ(Str_Obj_List_Add(nullptr, "x", nullptr), -EINVAL);
  EXPECT_EQ(Str_List_Add(nullptr, "x"), -EINVAL);
  EXPECT_EQ(Str_Obj_List_Push(nullptr, "x", nullptr), -EINVAL);
  EXPECT_EQ(Str_List_Push(nullptr, "x"), -EINVAL);
}

TEST(Str_List_Arguments, A_missing_string_is_refused_and_outputs_stay) {
  Holder holder(stack, 256, 4);
  holder.add("one", {'a'});
  char untouched;
  void *object = &untouched;
  const Object given = {};

  EXPECT_EQ(Str_Obj_List_Find(holder.list, nullptr, &object), -EINVAL);
  EXPECT_EQ(Str_Obj_List_Remove(holder.list, nullptr, &object), -EINVAL);
  EXPECT_EQ(Str_Obj_List_Add(&holder.list, nullptr, &given), -EINVAL);
  EXPECT_EQ(Str_Obj_List_Push(&holder.list, nullptr, &given), -EINVAL);
  EXPECT_EQ(Str_List_Find(holder.list, nullptr), -EINVAL);
  EXPECT_EQ(Str_List_Remove(holder.list, nullptr), -EINVAL);
  EXPECT_EQ(Str_List_Add(&holder.list, nullptr), -EINVAL);
  EXPECT_EQ(Str_List_Push(&holder.list, nullptr), -EINVAL);

  EXPECT_EQ(object, &untouched);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("one"));
}

// A stack, so that nothing is refused for its mode.
class Damaged_List : public testing::Test {
 protected:
  void expect_refused() {
    const std::string before(reinterpret_cast<const char *>(holder.list), 64);
    EXPECT_EQ(answers_of_all(holder.list), all_refused);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(holder.list), 64), before);
  }
  Holder holder{stack};
};

TEST_F(Damaged_List, Is_accepted_when_it_is_not_damaged) {
  Holder large(stack, 256);  // it does not move
  large.push("x");
  for (const int answer : answers_of_all(large.list)) EXPECT_NE(answer, -EINVAL);
}

TEST_F(Damaged_List, Without_its_magic_is_refused) {
  for (char &byte : holder.list->magic) {
    byte ^= 1;
    expect_refused();
    byte ^= 1;
  }
}

TEST_F(Damaged_List, Of_a_size_that_is_no_power_of_two_is_refused) {
  for (const unsigned int size : {0u, 63u, 65u, 96u, 0xffffffffu}) {
    holder.list->block_size = size;
    expect_refused();
  }
}

TEST_F(Damaged_List, Of_mode_4_and_more_is_refused) {
  for (const uint16_t mode : {4, 255, 65535}) {
    holder.list->mode = mode;
    expect_refused();
  }
}

TEST_F(Damaged_List, With_more_strings_than_pointers_fit_in_is_refused) {
  for (const unsigned int count : {4u, 5u, 0x20000000u, 0xffffffffu}) {
    holder.list->count = count;
    expect_refused();
  }
  holder.list->block_size = 32;  // less than an empty list takes
  holder.list->count = 0;
  expect_refused();
}

TEST_F(Damaged_List, With_as_many_strings_as_pointers_fit_in_is_accepted) {
  char empty = '\0';
  std::fill_n(holder.list->pointers, 3, &empty);
  holder.list->count = 3;
  EXPECT_EQ(Str_List_Find(holder.list, ""), 0);
  EXPECT_EQ(Str_List_Peek(holder.list, nullptr), 2);
}

// Init never makes such a record, but programs may hold one.
TEST(Str_List_Mode_3, Searches_and_adds_as_a_plain_list_and_is_no_stack) {
  Holder holder(plain, 128);
  holder.list->mode = 3;
  EXPECT_EQ(holder.add("b"), 0);
  EXPECT_EQ(holder.add("a"), 1);
  EXPECT_EQ(holder.add("b"), 2);
  EXPECT_EQ(Str_List_Find(holder.list, "a"), 1);
  EXPECT_EQ(Str_List_Remove(holder.list, "b"), 0);
  EXPECT_EQ(holder.push("c"), -EINVAL);
  EXPECT_EQ(Str_List_Pop(holder.list, nullptr), -EINVAL);
  EXPECT_EQ(Str_List_Peek(holder.list, nullptr), -EINVAL);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("a", "b"));
  // A block of mode 3 cannot be made, so the list cannot grow either.
  EXPECT_EQ(holder.add(std::string(100, 'x')), -EINVAL);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("a", "b"));
  EXPECT_EQ(Str_List_Reset(holder.list, sorted), 0);
}

// ------------------------------------------------------------------------------------------------------ finding,
// adding

TEST(Str_List_Find, Of_an_empty_list_answers_ENOENT_and_leaves_the_output) {
  char untouched;
  for (const Mode mode : {plain, sorted, stack}) {
    Holder holder(mode, 0, 4);
    void *object = &untouched;
    EXPECT_EQ(Str_Obj_List_Find(holder.list, "x", &object), -ENOENT);
    EXPECT_EQ(Str_Obj_List_Find(holder.list, "", nullptr), -ENOENT);
    EXPECT_EQ(Str_List_Find(holder.list, "x"), -ENOENT);
    EXPECT_EQ(object, &untouched);
  }
}

TEST(Str_List_Find, Compares_whole_strings_and_their_case) {
  for (const Mode mode : {plain, sorted, stack}) {
    Holder holder(mode);
    holder.add("Name");
    EXPECT_EQ(Str_List_Find(holder.list, "Name"), 0);
    EXPECT_EQ(Str_List_Find(holder.list, "name"), -ENOENT);
    EXPECT_EQ(Str_List_Find(holder.list, "Nam"), -ENOENT);
    EXPECT_EQ(Str_List_Find(holder.list, "Names"), -ENOENT);
    EXPECT_EQ(Str_List_Find(holder.list, ""), -ENOENT);
  }
}

TEST(Str_List_Find, Hands_out_the_object_in_front_of_the_string) {
  for (const Mode mode : {plain, sorted, stack}) {
    Holder holder(mode, 256, 4);
    holder.add("one", {'1'});
    holder.add("two", {'2', '!', 0, '?'});
    void *object = nullptr;
    EXPECT_EQ(Str_Obj_List_Find(holder.list, "two", &object), 1);
    EXPECT_EQ(object, holder.list->pointers[1] - 4);
    EXPECT_EQ(memcmp(object, "2!\0?", 4), 0);
    EXPECT_EQ(Str_List_Find(holder.list, "two"), 1);
  }
}

TEST(Str_List_Find, Hands_out_the_string_itself_where_there_are_no_objects) {
  Holder holder(plain);
  holder.add("one");
  void *object = nullptr;
  EXPECT_EQ(Str_Obj_List_Find(holder.list, "one", &object), 0);
  EXPECT_EQ(object, holder.list->pointers[0]);
}

TEST(Str_List_Add, Plain_lists_and_stacks_keep_duplicates_in_order_and_find_the_first) {
  for (const Mode mode : {plain, stack}) {
    Holder holder(mode);
    EXPECT_EQ(holder.add("b"), 0);
    EXPECT_EQ(holder.add("a"), 1);
    EXPECT_EQ(holder.add("b"), 2);
    EXPECT_EQ(holder.add("a"), 3);
    EXPECT_THAT(strings_of(holder.list), ElementsAre("b", "a", "b", "a"));
    EXPECT_EQ(Str_List_Find(holder.list, "b"), 0);
    EXPECT_EQ(Str_List_Find(holder.list, "a"), 1);
  }
}

TEST(Str_List_Add, Sorted_lists_keep_the_order_of_strcmp_and_tell_the_place) {
  Holder holder(sorted);
  EXPECT_EQ(holder.add("m"), 0);
  EXPECT_EQ(holder.add("z"), 1);
  EXPECT_EQ(holder.add("a"), 0);
  EXPECT_EQ(holder.add("n"), 2);
  EXPECT_EQ(holder.add(""), 0);
  EXPECT_EQ(holder.add("\xff"), 5);  // behind all others, whether characters have signs or not
  EXPECT_EQ(holder.add("Z"), 1);
  EXPECT_EQ(holder.add("mm"), 4);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("", "Z", "a", "m", "mm", "n", "z", "\xff"));
  for (int index = 0; index < 8; ++index) {
    EXPECT_EQ(Str_List_Find(holder.list, std::string(holder.list->pointers[index]).c_str()), index);
  }
}

TEST(Str_List_Add, Sorted_lists_keep_the_order_of_strcmp_for_strings_that_begin_alike_and_end_anywhere) {
  const auto smaller = [](const std::string &a, const std::string &b) { return strcmp(a.c_str(), b.c_str()) < 0; };
  std::set<std::string, decltype(smaller)> strings(smaller);
  for (size_t length = 0; length <= 34; ++length) {
    const std::string beginning(length, 'm');
    for (const char *end : {"", "\x01", "a", "\x7f", "\x80", "\xff", "a\x80", "\xff\xff", "am"})
      strings.insert(beginning + end);
  }
  std::vector<std::string> shuffled(strings.begin(), strings.end());
  for (const unsigned int seed : {1u, 2u, 3u, 4u, 5u}) {
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(seed));
    Holder holder(sorted);
    for (const std::string &text : shuffled) holder.add(text.c_str());
    EXPECT_EQ(strings_of(holder.list), std::vector<std::string>(strings.begin(), strings.end()));
    int index = 0;
    for (const std::string &text : strings) {
      EXPECT_EQ(Str_List_Find(holder.list, std::string(text).c_str()), index);
      EXPECT_EQ(holder.add(text.c_str()), index++);
      EXPECT_EQ(Str_List_Find(holder.list, (text + "b").c_str()), -ENOENT);
    }
  }
}

TEST(Str_List_Add, Sorted_lists_answer_the_place_of_a_present_string_and_keep_its_object) {
  Holder holder(sorted, 256, 4);
  holder.add("a", {'1'});
  holder.add("b", {'2'});
  holder.add("c", {'3'});
  const std::string before = bytes_of(holder.list);

  EXPECT_EQ(holder.add("b", {'9'}), 1);
  EXPECT_EQ(holder.add("c", {'9'}), 2);
  EXPECT_EQ(holder.add("a", {'9'}), 0);

  EXPECT_EQ(bytes_of(holder.list), before);
}

TEST(Str_List_Add, A_present_string_of_a_full_sorted_list_does_not_make_it_grow) {
  Holder holder(sorted);
  holder.add("1234567");
  holder.list->free_bytes = 0;
  const Str_List *before = holder.list;
  EXPECT_EQ(holder.add("1234567"), 0);
  EXPECT_EQ(holder.list, before);
}

TEST(Str_List_Add, Needs_an_object_where_the_list_has_them) {
  for (const Mode mode : {plain, sorted, stack}) {
    Holder holder(mode, 64, 4);
    holder.add("x", {'a'});
    EXPECT_EQ(Str_Obj_List_Add(&holder.list, "a", nullptr), -EINVAL);
    EXPECT_EQ(Str_List_Add(&holder.list, "a"), -EINVAL);
    EXPECT_EQ(Str_Obj_List_Push(&holder.list, "a", nullptr), -EINVAL);
    EXPECT_EQ(Str_List_Push(&holder.list, "a"), -EINVAL);
    EXPECT_THAT(strings_of(holder.list), ElementsAre("x"));
  }
}

TEST(Str_List_Add, Does_not_look_at_an_object_where_the_list_has_none) {
  Holder holder(stack);
  const char *nowhere = reinterpret_cast<const char *>(8);
  EXPECT_EQ(Str_Obj_List_Add(&holder.list, "a", nowhere), 0);
  EXPECT_EQ(Str_Obj_List_Push(&holder.list, "b", nowhere), 1);
}

// -------------------------------------------------------------------------------------------------------- use of space

TEST(Str_List_Space, Entries_are_padded_to_4_bytes_and_packed_down_from_the_end) {
  Holder holder(plain, 1024);
  const char *end = reinterpret_cast<char *>(holder.list) + 1024;
  unsigned int used = 40;
  long depth = 0;
  const int sizes[] = {4, 4, 4, 4, 8, 8, 8, 8, 12};  // by length
  for (int length = 0; length <= 8; ++length) {
    EXPECT_EQ(holder.add(std::string(static_cast<size_t>(length), 'x')), length);
    depth += sizes[length];
    used += static_cast<unsigned int>(sizes[length]) + 8;
    EXPECT_EQ(holder.list->pointers[length], end - depth) << length;
    EXPECT_EQ(holder.list->low_end, end - depth) << length;
    EXPECT_EQ(holder.list->free_bytes, 1024 - used) << length;
    EXPECT_EQ(room_between(holder.list), 1024 - used) << length;
  }
}

TEST(Str_List_Space, Objects_lie_right_in_front_of_their_strings) {
  Holder holder(plain, 1024, 4);
  const char *end = reinterpret_cast<char *>(holder.list) + 1024;
  holder.add("abcd", {'w', 'x', 'y', 'z'});
  EXPECT_EQ(holder.list->low_end, end - 12);
  EXPECT_EQ(memcmp(holder.list->low_end, "wxyzabcd\0", 9), 0);
  EXPECT_EQ(holder.list->pointers[0], end - 8);
  EXPECT_EQ(holder.list->free_bytes, 1024u - 40 - 12 - 8);
}

TEST(Str_List_Space, An_entry_that_fits_exactly_does_not_make_the_list_grow) {
  Holder holder(plain);  // 24 bytes free
  const Str_List *before = holder.list;
  EXPECT_EQ(holder.add("123456789012345"), 0);
  EXPECT_EQ(holder.list, before);
  EXPECT_EQ(holder.list->free_bytes, 0u);
  EXPECT_EQ(room_between(holder.list), 0);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("123456789012345"));
}

TEST(Str_List_Space, One_byte_more_makes_it_grow_by_what_is_needed_on_top_of_its_size) {
  Holder holder(plain);
  EXPECT_EQ(holder.add("1234567890123456"), 0);
  EXPECT_EQ(holder.list->block_size, 128u);
  EXPECT_EQ(holder.list->free_bytes, 128u - 40 - 20 - 8);

  Holder greater(plain);
  EXPECT_EQ(greater.add(std::string(55, 'x')), 0);  // 56 and 8: 128 in all
  EXPECT_EQ(greater.list->block_size, 128u);
  Holder greatest(plain);
  EXPECT_EQ(greatest.add(std::string(56, 'x')), 0);
  EXPECT_EQ(greatest.list->block_size, 256u);
}

TEST(Str_List_Space, Growing_keeps_mode_objects_order_and_index) {
  for (const Mode mode : {plain, sorted, stack}) {
    Holder small(mode, 0, 4), large(mode, 4096, 4);
    for (int i = 0; i < 40; ++i) {
      const std::string text = std::to_string(i * 7919 % 41);
      const Object object = {static_cast<char>(i), 0, 'x', '\xff'};
      ASSERT_EQ(small.add(text, object), large.add(text, object)) << i;
      EXPECT_EQ(small.list->mode, mode);
      EXPECT_EQ(small.list->object_size, 4);
      EXPECT_GE(small.list->block_size, 64u);
    }
    EXPECT_GT(small.list->block_size, 64u);
    EXPECT_EQ(strings_of(small.list), strings_of(large.list));
    for (unsigned int i = 0; i < 40; ++i) {
      EXPECT_EQ(object_in_front_of(small.list->pointers[i]), object_in_front_of(large.list->pointers[i]));
    }
  }
}

TEST(Str_List_Space, Growing_recovers_what_was_removed_in_the_middle) {
  Holder holder(plain, 256);
  for (const char *text : {"aaa", "bbb", "ccc", "ddd"}) holder.add(text);
  Str_List_Remove(holder.list, "bbb");
  EXPECT_EQ(holder.list->free_bytes, 256u - 40 - 4 * 12);  // still used

  holder.add(std::string(199, 'x'));

  EXPECT_EQ(holder.list->block_size, 512u);
  EXPECT_EQ(holder.list->free_bytes, 512u - 40 - 3 * 12 - 208);
  const char *end = reinterpret_cast<char *>(holder.list) + 512;
  EXPECT_EQ(holder.list->pointers[0], end - 4);
  EXPECT_EQ(holder.list->pointers[1], end - 8);
  EXPECT_EQ(holder.list->pointers[2], end - 12);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("aaa", "ccc", "ddd", std::string(199, 'x')));
}

// Programs plan their blocks by this: strings that come and go double the block whenever it fills.
TEST(Str_List_Space, Adding_and_removing_others_than_the_lowest_doubles_the_block) {
  Holder holder(plain);
  holder.add("keep");
  unsigned int blocks = 0;
  for (int i = 0; i < 100; ++i) {
    holder.add("old");
    holder.add("new");
    Str_List_Remove(holder.list, "old");
    Str_List_Remove(holder.list, "new");
    blocks = std::max(blocks, holder.list->block_size);
  }
  EXPECT_EQ(holder.list->count, 1u);
  EXPECT_GE(blocks, 1024u);
}

TEST(Str_List_Space, Growing_without_memory_leaves_list_and_holder) {
  for (const Mode mode : {plain, sorted, stack}) {
    Holder holder(mode);
    holder.add("keep");
    Str_List *before = holder.list;
    const std::string bytes = bytes_of(before), text(20, 'a');
    const int allocations = with_each_allocation_failing([&] { return Str_List_Add(&holder.list, text.c_str()); },
                                                         [&](int status, int) {
                                                           EXPECT_EQ(status, -ENOMEM);
                                                           EXPECT_EQ(holder.list, before);
                                                           EXPECT_EQ(bytes_of(before), bytes);
                                                         });
    EXPECT_EQ(allocations, 1);
    EXPECT_EQ(holder.list->count, 2u);
  }
}

// A record that says it is greater than it is; it is never looked at so far down.
struct Huge_Record {
  explicit Huge_Record(unsigned int block_size, Mode mode = plain) {
    memcpy(list->magic, "tsil", 4);
    list->block_size = block_size;
    list->mode = static_cast<uint16_t>(mode);
    list->low_end = bytes.data() + bytes.size();
  }
  alignas(8) std::array<char, 128> bytes = {};
  Str_List *const list = reinterpret_cast<Str_List *>(bytes.data());
};

TEST(Str_List_Limit, A_list_of_1_GiB_does_not_grow) {
  for (const Mode mode : {plain, sorted, stack}) {
    Huge_Record record(greatest_size, mode);
    const auto before = record.bytes;
    Str_List *held = record.list;
    const Allocation_Failure failure(1);
    EXPECT_EQ(Str_List_Add(&held, "x"), -EINVAL);
    EXPECT_FALSE(allocation_failed());
    EXPECT_EQ(held, record.list);
    EXPECT_EQ(record.bytes, before);
  }
}

TEST(Str_List_Limit, A_list_of_2_GiB_does_not_wrap_around) {
  Huge_Record record(0x80000000u, stack);
  Str_List *held = record.list;
  const Allocation_Failure failure(1);
  EXPECT_EQ(Str_List_Add(&held, "x"), -EINVAL);
  EXPECT_EQ(Str_List_Push(&held, "x"), -EINVAL);
  EXPECT_FALSE(allocation_failed());
}

TEST(Str_List_Limit, A_list_of_half_a_GiB_may_still_grow) {
  Huge_Record record(greatest_size / 2);
  Str_List *held = record.list;
  {
    const Allocation_Failure failure(1);
    EXPECT_EQ(Str_List_Add(&held, "x"), -ENOMEM);
  }
  EXPECT_TRUE(allocation_failed());
  EXPECT_EQ(held, record.list);
}

TEST(Str_List_Limit, A_list_with_room_at_1_GiB_takes_strings) {
  Huge_Record record(greatest_size);
  record.list->free_bytes = 12;
  Str_List *held = record.list;
  EXPECT_EQ(Str_List_Add(&held, "abc"), 0);
  EXPECT_EQ(record.list->free_bytes, 0u);
  EXPECT_EQ(Str_List_Find(held, "abc"), 0);
}

// A string without end for any practical purpose: one piece of memory, mapped again and again.
class Endless_String {
 public:
  explicit Endless_String(size_t length) : size_(length + 1) {
    const std::string piece(piece_size, 'x');
    file_ = memfd_create("string", MFD_CLOEXEC);
    EXPECT_EQ(write(file_, piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
    text_ = static_cast<char *>(
        mmap(nullptr, size_ + piece_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    EXPECT_NE(text_, MAP_FAILED);
    for (size_t offset = 0; offset < size_; offset += piece_size) {
      EXPECT_NE(mmap(text_ + offset, piece_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, file_, 0),
                MAP_FAILED);
    }
    text_[length] = '\0';
  }
  ~Endless_String() {
    munmap(text_, size_ + piece_size);
    close(file_);
  }
  Endless_String(const Endless_String &) = delete;
  Endless_String &operator=(const Endless_String &) = delete;
  const char *text() const { return text_; }

 private:
  static constexpr size_t piece_size = 4 << 20;
  size_t size_;
  int file_;
  char *text_;
};

TEST(Str_List_Limit, A_string_of_4_GiB_is_refused_and_not_taken_for_a_short_one) {
  const Endless_String endless((size_t{1} << 32) - 4);
  Holder holder(stack);
  const std::string before = bytes_of(holder.list);
  EXPECT_EQ(Str_List_Add(&holder.list, endless.text()), -EINVAL);
  EXPECT_EQ(Str_List_Push(&holder.list, endless.text() + 1), -EINVAL);
  EXPECT_EQ(bytes_of(holder.list), before);
}

// ------------------------------------------------------------------------------------------------------------ removing

TEST(Str_List_Remove, Closes_the_gap_and_tells_where_the_string_was) {
  for (const Mode mode : {plain, sorted, stack}) {
    Holder holder(mode, 256);
    for (const char *text : {"a", "b", "c", "d"}) holder.add(text);
    EXPECT_EQ(Str_List_Remove(holder.list, "b"), 1);
    EXPECT_THAT(strings_of(holder.list), ElementsAre("a", "c", "d"));
    EXPECT_EQ(Str_List_Remove(holder.list, "d"), 2);
    EXPECT_EQ(Str_List_Remove(holder.list, "a"), 0);
    EXPECT_THAT(strings_of(holder.list), ElementsAre("c"));
    EXPECT_EQ(Str_List_Remove(holder.list, "c"), 0);
    EXPECT_THAT(strings_of(holder.list), ElementsAre());
    EXPECT_EQ(Str_List_Remove(holder.list, "c"), -ENOENT);
  }
}

TEST(Str_List_Remove, Takes_the_first_of_equal_strings) {
  Holder holder(plain, 256);
  for (const char *text : {"a", "b", "a"}) holder.add(text);
  EXPECT_EQ(Str_List_Remove(holder.list, "a"), 0);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("b", "a"));
}

TEST(Str_List_Remove, Clears_the_object_first_and_hands_out_that_of_the_string) {
  Holder holder(plain, 256, 4);
  holder.add("a", {'1'});
  holder.add("b", {'2'});
  char untouched;
  void *object = &untouched;
  EXPECT_EQ(Str_Obj_List_Remove(holder.list, "c", &object), -ENOENT);
  EXPECT_EQ(object, nullptr);
  const char *where = holder.list->pointers[0] - 4;
  EXPECT_EQ(Str_Obj_List_Remove(holder.list, "a", &object), 0);
  EXPECT_EQ(object, where);
  EXPECT_EQ(*static_cast<char *>(object), '1');
  EXPECT_EQ(Str_Obj_List_Remove(holder.list, "b", nullptr), 0);
}

TEST(Str_List_Remove, Gives_room_back_for_the_lowest_entry_only) {
  Holder holder(plain, 256, 4);
  for (const char *text : {"a", "bbbbb", "c"}) holder.add(text, {});
  const unsigned int free_bytes = holder.list->free_bytes;
  const char *low_end = holder.list->low_end;

  Str_List_Remove(holder.list, "bbbbb");
  EXPECT_EQ(holder.list->free_bytes, free_bytes);
  EXPECT_EQ(holder.list->low_end, low_end);
  Str_List_Remove(holder.list, "c");  // the bytes above it were given up before
  EXPECT_EQ(holder.list->free_bytes, free_bytes + 8 + 8);
  EXPECT_EQ(holder.list->low_end, low_end + 8);
  Str_List_Remove(holder.list, "a");
  EXPECT_EQ(holder.list->free_bytes, free_bytes + 8 + 8);
}

TEST(Str_List_Remove, The_lowest_entry_of_a_sorted_list_is_the_one_added_last_wherever_it_stands) {
  Holder holder(sorted, 256);
  for (const char *text : {"m", "z", "a"}) holder.add(text);
  const unsigned int free_bytes = holder.list->free_bytes;
  EXPECT_EQ(Str_List_Remove(holder.list, "a"), 0);
  EXPECT_EQ(holder.list->free_bytes, free_bytes + 12);
  EXPECT_EQ(Str_List_Remove(holder.list, "z"), 1);
  EXPECT_EQ(holder.list->free_bytes, free_bytes + 24);
  EXPECT_EQ(Str_List_Remove(holder.list, "m"), 0);
  EXPECT_EQ(holder.list->free_bytes, 256u - 40);
}

// --------------------------------------------------------------------------------------------------------------- stack

TEST(Str_List_Stack, Takes_and_shows_the_last_string) {
  Holder holder(stack);
  EXPECT_EQ(holder.push("one"), 0);
  EXPECT_EQ(holder.push("two"), 1);
  EXPECT_EQ(holder.push("two"), 2);
  const char *text = nullptr;

  EXPECT_EQ(Str_List_Peek(holder.list, &text), 2);
  EXPECT_EQ(text, holder.list->pointers[2]);
  EXPECT_EQ(Str_List_Pop(holder.list, &text), 2);
  EXPECT_STREQ(text, "two");
  EXPECT_EQ(Str_List_Pop(holder.list, nullptr), 1);
  EXPECT_THAT(strings_of(holder.list), ElementsAre("one"));
  EXPECT_EQ(Str_List_Pop(holder.list, &text), 0);
  EXPECT_STREQ(text, "one");
  EXPECT_THAT(strings_of(holder.list), ElementsAre());
}

TEST(Str_List_Stack, Pop_and_Peek_hand_out_objects) {
  Holder holder(stack, 256, 4);
  const Object first = {'1'}, second = {'2'};
  EXPECT_EQ(Str_Obj_List_Push(&holder.list, "one", &first), 0);
  EXPECT_EQ(Str_Obj_List_Push(&holder.list, "two", &second), 1);
  const char *text = nullptr;
  void *object = nullptr;

  EXPECT_EQ(Str_Obj_List_Peek(holder.list, &text, &object), 1);
  EXPECT_STREQ(text, "two");
  EXPECT_EQ(object, text - 4);
  object = nullptr;
  EXPECT_EQ(Str_Obj_List_Pop(holder.list, nullptr, &object), 1);
  EXPECT_EQ(memcmp(object, &second, 4), 0);
  EXPECT_EQ(Str_Obj_List_Peek(holder.list, nullptr, &object), 0);
  EXPECT_EQ(memcmp(object, &first, 4), 0);
  EXPECT_EQ(Str_Obj_List_Pop(holder.list, &text, nullptr), 0);
  EXPECT_STREQ(text, "one");
}

TEST(Str_List_Stack, Pop_and_Peek_of_an_empty_stack_leave_the_outputs) {
  Holder holder(stack, 256, 4);
  char untouched;
  const char *text = &untouched;
  void *object = &untouched;
  EXPECT_EQ(Str_Obj_List_Pop(holder.list, &text, &object), -ENOENT);
  EXPECT_EQ(Str_Obj_List_Peek(holder.list, &text, &object), -ENOENT);
  EXPECT_EQ(Str_List_Pop(holder.list, &text), -ENOENT);
  EXPECT_EQ(Str_List_Peek(holder.list, &text), -ENOENT);
  EXPECT_EQ(text, &untouched);
  EXPECT_EQ(object, &untouched);
}

TEST(Str_List_Stack, Other_lists_are_refused) {
  for (const Mode mode : {plain, sorted}) {
    Holder holder(mode);
    holder.add("one");
    const char *text = nullptr;
    EXPECT_EQ(holder.push("two"), -EINVAL);
    EXPECT_EQ(Str_Obj_List_Push(&holder.list, "two", nullptr), -EINVAL);
    EXPECT_EQ(Str_List_Pop(holder.list, &text), -EINVAL);
    EXPECT_EQ(Str_List_Peek(holder.list, &text), -EINVAL);
    EXPECT_EQ(text, nullptr);
    EXPECT_THAT(strings_of(holder.list), ElementsAre("one"));
  }
}

TEST(Str_List_Stack, Pop_gives_the_room_back_and_the_text_stays_until_the_next_push) {
  Holder holder(stack, 256, 4);
  holder.add("one", {'1'});
  const unsigned int free_bytes = holder.list->free_bytes;
  const char *low_end = holder.list->low_end;
  holder.add("seventeen letters", {'2'});
  EXPECT_EQ(holder.list->free_bytes, free_bytes - 24 - 8);
  const char *text = nullptr;
  void *object = nullptr;

  EXPECT_EQ(Str_Obj_List_Pop(holder.list, &text, &object), 1);

  EXPECT_EQ(holder.list->free_bytes, free_bytes);
  EXPECT_EQ(holder.list->low_end, low_end);
  EXPECT_STREQ(text, "seventeen letters");
  EXPECT_EQ(*static_cast<char *>(object), '2');
  EXPECT_STREQ(holder.list->pointers[0], "one");
}

// The low end goes up by the size of what was popped, not to where the next entry begins.
TEST(Str_List_Stack, Pop_after_a_removal_below_the_top_gives_back_the_popped_entry_only) {
  Holder holder(stack, 256);
  for (const char *text : {"1234567", "123", "12345678901"}) holder.add(text);  // 8, 4 and 12 bytes
  const char *end = reinterpret_cast<char *>(holder.list) + 256;
  Str_List_Remove(holder.list, "123");
  const unsigned int free_bytes = holder.list->free_bytes;

  Str_List_Pop(holder.list, nullptr);
  EXPECT_EQ(holder.list->low_end, end - 12);
  EXPECT_EQ(holder.list->free_bytes, free_bytes + 20);
  Str_List_Pop(holder.list, nullptr);
  EXPECT_EQ(holder.list->low_end, end - 4);
  EXPECT_EQ(holder.list->free_bytes, free_bytes + 20 + 16);
}

// ------------------------------------------------------------------------ strings and objects that lie in the list
// itself

// Freed blocks too large for the allocator's quick lists hold other bytes at once.
struct Overwritten_When_Freed {
  Overwritten_When_Freed() { mallopt(M_PERTURB, 'X'); }
  ~Overwritten_When_Freed() { mallopt(M_PERTURB, 0); }
};

TEST(Str_List_Own_Strings, A_string_of_the_list_is_added_while_the_list_grows) {
  const Overwritten_When_Freed overwritten;
  for (const Mode mode : {plain, stack}) {
    Holder holder(mode, 64, 4);
    holder.add("twelve bytes", {'o', 'b', 'j', '!'});
    const char *text = nullptr;
    for (int i = 1; i < 300; ++i) {
      void *object = nullptr;
      ASSERT_EQ(Str_Obj_List_Find(holder.list, "twelve bytes", &object), 0);
      text = holder.list->pointers[0];
      ASSERT_EQ(Str_Obj_List_Add(&holder.list, text, object), i);
    }
    for (unsigned int i = 0; i < 300; ++i) {
      EXPECT_STREQ(holder.list->pointers[i], "twelve bytes");
      EXPECT_EQ(object_in_front_of(holder.list->pointers[i]), (Object{'o', 'b', 'j', '!'}));
    }
  }
}

TEST(Str_List_Own_Strings, The_end_of_a_string_is_put_into_a_sorted_list_that_grows) {
  Holder holder(sorted, 64);
  holder.add("zyxwvutsrqponmlkjihgfedcba");
  for (int i = 25; i >= 1; --i) {
    const char *end = holder.list->pointers[holder.list->count - 1] + i;
    ASSERT_EQ(Str_List_Add(&holder.list, end), 25 - i);
  }
  EXPECT_EQ(holder.list->count, 26u);
  EXPECT_STREQ(holder.list->pointers[0], "a");
  EXPECT_STREQ(holder.list->pointers[24], "yxwvutsrqponmlkjihgfedcba");
}

TEST(Str_List_Own_Strings, What_was_just_popped_can_be_pushed_again) {
  Holder holder(stack, 256, 4);
  holder.add("bottom", {'1'});
  holder.add("a rather long string", {'t', 'o', 'p', '!'});
  const char *text = nullptr;
  void *object = nullptr;
  Str_Obj_List_Pop(holder.list, &text, &object);

  EXPECT_EQ(Str_Obj_List_Push(&holder.list, text, object), 1);

  EXPECT_STREQ(holder.list->pointers[1], "a rather long string");
  EXPECT_EQ(object_in_front_of(holder.list->pointers[1]), (Object{'t', 'o', 'p', '!'}));
}

// The new place overlaps the old one, by any distance.
TEST(Str_List_Own_Strings, The_end_of_what_was_just_popped_can_be_pushed) {
  const std::string whole = "abcdefghijklmnopqrstuvwxyz";
  for (size_t skipped = 0; skipped <= whole.size(); ++skipped) {
    for (const bool other_object : {false, true}) {
      Holder holder(stack, 256, 4);
      holder.add("bottom", {'1'});
      holder.add(whole, {'t', 'o', 'p', '!'});
      const char *text = nullptr;
      void *object = nullptr;
      Str_Obj_List_Pop(holder.list, &text, &object);
      const Object other = {'n', 'e', 'w', '?'};

      ASSERT_EQ(Str_Obj_List_Push(&holder.list, text + skipped, other_object ? other.data() : object), 1);

      EXPECT_EQ(holder.list->pointers[1], whole.substr(skipped));
      EXPECT_EQ(object_in_front_of(holder.list->pointers[1]), (other_object ? other : Object{'t', 'o', 'p', '!'}));
      EXPECT_STREQ(holder.list->pointers[0], "bottom");
      EXPECT_EQ(object_in_front_of(holder.list->pointers[0]), (Object{'1'}));
    }
  }
}

TEST(Str_List_Own_Strings, A_popped_object_can_be_given_to_another_string) {
  Holder holder(stack, 256, 4);
  holder.add("four", {'t', 'o', 'p', '!'});
  void *object = nullptr;
  Str_Obj_List_Pop(holder.list, nullptr, &object);

  EXPECT_EQ(Str_Obj_List_Push(&holder.list, "abc", object), 0);

  EXPECT_EQ(object_in_front_of(holder.list->pointers[0]), (Object{'t', 'o', 'p', '!'}));
  EXPECT_STREQ(holder.list->pointers[0], "abc");
}

TEST(Str_List_Own_Strings, A_popped_object_can_be_given_to_strings_of_any_length) {
  for (size_t length = 0; length < 24; ++length) {
    Holder holder(stack, 512, 64);
    std::string object_bytes;
    for (char letter = '!'; letter < '!' + 64; ++letter) object_bytes += letter;
    Str_Obj_List_Push(&holder.list, "twelve bytes", object_bytes.data());
    void *object = nullptr;
    Str_Obj_List_Pop(holder.list, nullptr, &object);

    ASSERT_EQ(Str_Obj_List_Push(&holder.list, std::string(length, 't').c_str(), object), 0);

    const char *text = holder.list->pointers[0];
    EXPECT_EQ(std::string(text - 64, 64), object_bytes) << length;
    EXPECT_EQ(text, std::string(length, 't'));
  }
}

TEST(Str_List_Own_Strings, What_was_removed_can_be_added_again_with_its_object) {
  for (const Mode mode : {plain, sorted, stack}) {
    Holder holder(mode, 256, 4);
    for (const char *text : {"m", "z", "abcdefgh"}) holder.add(text, {text[0], 'o', 'b', 'j'});
    const int place = Str_List_Find(holder.list, "abcdefgh");
    const char *text = holder.list->pointers[place];
    void *object = nullptr;
    ASSERT_EQ(Str_Obj_List_Remove(holder.list, "abcdefgh", &object), place);

    EXPECT_EQ(Str_Obj_List_Add(&holder.list, text, object), place);

    EXPECT_STREQ(holder.list->pointers[place], "abcdefgh");
    EXPECT_EQ(object_in_front_of(holder.list->pointers[place]), (Object{'a', 'o', 'b', 'j'}));
  }
}

TEST(Str_List_Own_Strings, What_was_removed_can_be_added_while_the_list_grows) {
  Holder holder(plain, 64, 4);
  holder.add("abcd", {'1', '2', '3', '4'});
  const char *text = holder.list->pointers[0];
  void *object = nullptr;
  Str_Obj_List_Remove(holder.list, "abcd", &object);
  holder.list->free_bytes = 0;

  EXPECT_EQ(Str_Obj_List_Add(&holder.list, text, object), 0);

  EXPECT_EQ(holder.list->block_size, 128u);
  EXPECT_STREQ(holder.list->pointers[0], "abcd");
  EXPECT_EQ(object_in_front_of(holder.list->pointers[0]), (Object{'1', '2', '3', '4'}));
}

TEST(Str_List_Own_Strings, Pushing_what_was_popped_without_memory_leaves_the_stack) {
  Holder holder(stack, 256);
  holder.push("bottom");
  holder.push("top of the stack");
  const char *text = nullptr;
  Str_List_Pop(holder.list, &text);
  const std::string before = bytes_of(holder.list);

  const int allocations = with_each_allocation_failing([&] { return Str_List_Push(&holder.list, text); },
                                                       [&](int status, int) {
                                                         EXPECT_EQ(status, -ENOMEM);
                                                         EXPECT_EQ(bytes_of(holder.list), before);
                                                       });

  EXPECT_EQ(allocations, 1);
  EXPECT_STREQ(holder.list->pointers[1], "top of the stack");
}

TEST(Str_List_Own_Strings, A_string_of_another_place_needs_no_memory_of_its_own) {
  Holder holder(stack, 256);
  const Allocation_Failure failure(1);
  EXPECT_EQ(Str_List_Push(&holder.list, "x"), 0);
  EXPECT_EQ(Str_List_Add(&holder.list, holder.list->pointers[0]), 1);
  EXPECT_FALSE(allocation_failed());
}

// --------------------------------------------------------------------------------------------------------------- model

// What a list does, said with a vector, or with a map for sorted lists.
class Model {
 public:
  explicit Model(Mode mode) : mode_(mode) {}

  struct Entry {
    std::string text, object;
    bool operator==(const Entry &) const = default;
    friend void PrintTo(const Entry &entry, std::ostream *out) { *out << entry.object << ":" << entry.text; }
  };

  int find(const std::string &text) const {
    const auto place = [](const auto &all, auto found) {
      return found != all.end() ? static_cast<int>(std::distance(all.begin(), found)) : -ENOENT;
    };
    return mode_ == sorted ? place(set_, set_.find(text))
                           : place(vector_, std::ranges::find(vector_, text, &Entry::text));
  }
  int add(const std::string &text, const std::string &object) {
    if (mode_ == sorted) {
      set_.emplace(text, object);  // does nothing for one that is there
      return find(text);
    }
    vector_.push_back({text, object});
    return static_cast<int>(vector_.size()) - 1;
  }
  int remove(const std::string &text) {
    const int index = find(text);
    if (index >= 0 && mode_ == sorted) set_.erase(text);
    if (index >= 0 && mode_ != sorted) vector_.erase(vector_.begin() + index);
    return index;
  }
  void remove_last() { vector_.pop_back(); }
  void clear() {
    set_.clear();
    vector_.clear();
  }
  unsigned int size() const { return static_cast<unsigned int>(mode_ == sorted ? set_.size() : vector_.size()); }
  Entry at(unsigned int index) const {
    if (mode_ != sorted) return vector_[index];
    const auto &[text, object] = *std::next(set_.begin(), index);
    return {text, object};
  }
  std::vector<Entry> entries() const {
    if (mode_ != sorted) return vector_;
    std::vector<Entry> all;
    for (const auto &[text, object] : set_) all.push_back({text, object});
    return all;
  }

 private:
  Mode mode_;
  std::vector<Entry> vector_;
  std::map<std::string, std::string> set_;
};

class Random_Run {
 public:
  Random_Run(Mode mode, int object_size, unsigned int seed)
      : mode_(mode),
        object_size_(static_cast<size_t>(object_size)),
        random_(seed),
        holder_(mode, 0, object_size),
        model_(mode) {}

  void run() {
    for (int step = 0; step < 100'000 && !testing::Test::HasFailure(); ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      const unsigned int choice = below(100);
      const bool shrinks = below(60) < holder_.list->count;
      if (choice < 25) {
        find();
      } else if (choice == 99 && below(20) == 0) {
        reset();
      } else if (shrinks) {
        choice < 60 && mode_ == stack ? take_top() : remove();
      } else {
        add();
      }
      if (step % 8 == 0) compare();
    }
    compare();
  }

 private:
  unsigned int below(unsigned int limit) { return random_() % limit; }

  // Few letters, so that strings meet again; with bytes above 127.
  std::string any_text() {
    std::string text;
    const unsigned int length = below(50) == 0 ? below(300) : below(4);
    for (unsigned int i = 0; i < length; ++i) text += "ab\xff\x80"[below(4)];
    return text;
  }

  std::string object_at(const void *place) const { return {static_cast<const char *>(place), object_size_}; }

  void find() {
    const std::string text = any_text();
    void *object = nullptr;
    const int index = Str_Obj_List_Find(holder_.list, text.c_str(), &object);
    ASSERT_EQ(index, model_.find(text));
    if (index >= 0) {
      ASSERT_EQ(object_at(object), model_.at(static_cast<unsigned int>(index)).object);
    }
  }

  // At times the string is one that lies in the list, or the end of one.
  void add() {
    const std::string new_text = any_text();
    const std::string new_object(object_size_, static_cast<char>(below(256)));
    const char *given = new_text.c_str();
    const void *given_object = new_object.data();
    if (holder_.list->count > 0 && below(4) == 0) {
      const char *own = holder_.list->pointers[below(holder_.list->count)];
      if (below(2) == 0) given_object = own - object_size_;
      given = own + below(static_cast<unsigned int>(strlen(own)) + 1);
    } else if (last_taken_ != nullptr && below(2) == 0) {
      given = last_taken_;
      given_object = last_taken_ - object_size_;
    }
    const int expected = model_.add(given, object_at(given_object));
    const bool pushes = mode_ == stack && below(2) == 0;
    last_taken_ = nullptr;
    ASSERT_EQ(pushes ? Str_Obj_List_Push(&holder_.list, given, given_object)
                     : Str_Obj_List_Add(&holder_.list, given, given_object),
              expected);
  }

  void remove() {
    const bool meets = model_.size() > 0 && below(5) != 0;
    const std::string text = meets ? model_.at(below(model_.size())).text : any_text();
    const int place = model_.find(text);
    const char *where = place >= 0 ? holder_.list->pointers[place] : nullptr;
    void *object = this;
    ASSERT_EQ(Str_Obj_List_Remove(holder_.list, text.c_str(), &object), place);
    if (place < 0) {
      ASSERT_EQ(object, nullptr);
      return;
    }
    ASSERT_EQ(object_at(object), model_.at(static_cast<unsigned int>(place)).object);
    model_.remove(text);
    last_taken_ = where;
  }

  void take_top() {
    const Model::Entry top = model_.at(model_.size() - 1);
    const char *text = nullptr;
    void *object = nullptr;
    const bool pops = below(3) != 0;
    const int index =
        pops ? Str_Obj_List_Pop(holder_.list, &text, &object) : Str_Obj_List_Peek(holder_.list, &text, &object);
    ASSERT_EQ(index, static_cast<int>(model_.size()) - 1);
    ASSERT_EQ(text, top.text);
    ASSERT_EQ(object_at(object), top.object);
    if (!pops) return;
    last_taken_ = text;
    model_.remove_last();
  }

  void reset() {
    ASSERT_EQ(Str_Obj_List_Reset(holder_.list, mode_, static_cast<int>(object_size_)), 0);
    model_.clear();
    last_taken_ = nullptr;
  }

  void compare() {
    const Str_List *list = holder_.list;
    std::vector<Model::Entry> all;
    const char *lowest = reinterpret_cast<const char *>(list) + list->block_size;
    for (const std::string &text : strings_of(list)) {
      const char *place = list->pointers[all.size()];
      all.push_back({text, object_at(place - object_size_)});
      lowest = std::min(lowest, place - object_size_);
      ASSERT_EQ(reinterpret_cast<uintptr_t>(place) % 4, 0u);
    }
    ASSERT_EQ(all, model_.entries());
    ASSERT_LE(list->low_end, lowest) << "the low end has passed an entry";
    ASSERT_LE(static_cast<long>(list->free_bytes), room_between(list)) << "more is free than there is";
    ASSERT_EQ(list->block_size & (list->block_size - 1), 0u);
  }

  Mode mode_;
  size_t object_size_;
  std::mt19937 random_;
  Holder holder_;
  Model model_;
  const char *last_taken_ = nullptr;  // by the last removal, while nothing has changed since
};

class Str_List_Model : public testing::TestWithParam<Mode> {};

INSTANTIATE_TEST_SUITE_P(Modes, Str_List_Model, testing::Values(plain, sorted, stack));

TEST_P(Str_List_Model, Random_operations_do_what_the_standard_containers_do) {
  const unsigned int seeds[] = {1, 2, 3, std::random_device()()};
  for (const unsigned int seed : seeds) {
    const int object_size = std::array{0, 4, 12}[seed % 3];
    std::cout << "mode " << GetParam() << ", objects of " << object_size << ", seed " << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random_Run(GetParam(), object_size, seed).run();
  }
}

}  // namespace
