#include <gmock/gmock.h>
#include <malloc.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/standard_output.h"

extern "C" void run_example_of_the_header(void);

namespace {

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<Log_Line>;

// Programs compiled earlier read blocks by these places.
static_assert(sizeof(Trace_Mem_Node) == 64);
static_assert(offsetof(Trace_Mem_Node, next) == 0 && offsetof(Trace_Mem_Node, prev) == 8);
static_assert(offsetof(Trace_Mem_Node, magic) == 16 && sizeof(Trace_Mem_Node::magic) == 4);
static_assert(offsetof(Trace_Mem_Node, file) == 20 && sizeof(Trace_Mem_Node::file) == 16);
static_assert(offsetof(Trace_Mem_Node, line) == 36 && sizeof(Trace_Mem_Node::line) == 4);
static_assert(offsetof(Trace_Mem_Node, size) == 40 && sizeof(Trace_Mem_Node::size) == 4);
static_assert(offsetof(Trace_Mem_Node, front) == 44 && sizeof(Trace_Mem_Node::front) == 16);
static_assert(offsetof(Trace_Mem_Node, data) == 60);

constexpr unsigned int magic = 0x5a8888a5;
constexpr size_t guard_size = 16;
constexpr char whole_guard[] = "ZZZZZZZZZZZZZZZZ";
constexpr const char *whole_dump =
    "5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, "
    "\n";

// As they are before anything has run.
const Trace_Mem_Node default_head = g_tmnHead;
const struct {
  std::string preface;
  unsigned int allocated, freed;
  int output;
  FILE *debug, *error;
} defaults = {std::string(g_stPreface, sizeof g_stPreface), g_cnAlloc, g_cnFree, g_bDebugOutput, g_pfDebug, g_pfError};

char *allocate(int size, const char *file = "file.c", int line = 7) {
  return static_cast<char *>(Trace_Mem_Alloc(size, 0, file, line));
}

// Where Trace_Mem_Check and Trace_Mem_Free want a block's address.
char *checked(char *data) {
  return data + 4;
}

void release(char *data) {
  Trace_Mem_Free(checked(data), "release.c", 1);
}

Trace_Mem_Node *block_of(char *data) {
  return reinterpret_cast<Trace_Mem_Node *>(data - offsetof(Trace_Mem_Node, data));
}

std::string dump_of(const std::string &guard) {
  std::string text;
  for (const char byte : guard) {
    char shown[16];
    snprintf(shown, sizeof shown, "%2X, ", static_cast<unsigned char>(byte));
    text += std::string(shown) + byte + ", ";
  }
  return text + "\n";
}

std::string with_byte(size_t index, char byte) {
  std::string guard = whole_guard;
  guard[index] = byte;
  return guard;
}

// The bytes of a number as they lie in memory.
std::string bytes_of(int value) {
  std::string bytes(sizeof value, '\0');
  memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

// At the data's own address, everything is read four bytes too early.
std::string front_as_read_at_the_data(int size) {
  return bytes_of(size) + std::string(whole_guard, 12);
}

// What is written to the stream that programs set for reports.
template <typename Body>
std::string stream_reports_of(Body body) {
  char *text = nullptr;
  size_t size = 0;
  g_pfError = open_memstream(&text, &size);
  body();
  fclose(std::exchange(g_pfError, nullptr));
  const std::string all(text, size);
  free(text);
  return all;
}

class Traced_Memory : public testing::Test {
 protected:
  Traced_Memory() {
    Trace_Mem_Init();
    g_cnAlloc = 0;
    g_cnFree = 0;
    g_bDebugOutput = 0;
  }
  ~Traced_Memory() override {
    Trace_Mem_Destroy();
    g_bDebugOutput = 1;
  }

  static bool mutex_is_free() {
    if (pthread_mutex_trylock(&g_mtxMem) != 0) return false;
    pthread_mutex_unlock(&g_mtxMem);
    return true;
  }

  static std::vector<char *> live() {
    std::vector<char *> found;
    for (Trace_Mem_Node *node = g_tmnHead.next; node != &g_tmnHead; node = node->next) {
      EXPECT_EQ(node->next->prev, node);
      EXPECT_EQ(node->prev->next, node);
      found.push_back(node->data);
    }
    return found;
  }
};

// --------------------------------------------------------------------------------------------------------------
// globals

TEST(Traced_Memory_Globals, Have_their_defaults) {
  EXPECT_EQ(default_head.next, &g_tmnHead);
  EXPECT_EQ(default_head.prev, &g_tmnHead);
  EXPECT_EQ(default_head.magic, magic);
  EXPECT_EQ(std::string(default_head.file, 16), std::string(16, '\0'));
  EXPECT_EQ(default_head.line, 0);
  EXPECT_EQ(default_head.size, 0);
  EXPECT_EQ(std::string(default_head.front, 16), std::string(16, '\0'));
  EXPECT_EQ(defaults.preface, whole_guard);
  EXPECT_EQ(sizeof g_stPreface, 16u);
  EXPECT_EQ(defaults.allocated, 0u);
  EXPECT_EQ(defaults.freed, 0u);
  EXPECT_EQ(defaults.output, 1);
  EXPECT_EQ(defaults.debug, nullptr);
  EXPECT_EQ(defaults.error, nullptr);
}

// Callers that never call Init work all the same.
TEST(Traced_Memory_Globals, Are_ready_without_Init) {
  const pthread_mutex_t as_defined = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EQ(in_child([&] {
              memcpy(&g_mtxMem, &as_defined, sizeof g_mtxMem);
              char *data = allocate(10);
              EXPECT_EQ(Trace_Mem_Check(checked(data)), 0);
              release(data);
              EXPECT_EQ(g_cnAlloc, g_cnFree);
              EXPECT_EQ(Trace_Mem_Destroy(), 0);
            }),
            0);
}

TEST_F(Traced_Memory, Init_answers_0_and_leaves_list_and_counts) {
  char *data = allocate(1);

  EXPECT_EQ(Trace_Mem_Init(), 0);

  EXPECT_THAT(live(), ElementsAre(data));
  EXPECT_EQ(g_cnAlloc, 1u);
  release(data);
}

TEST_F(Traced_Memory, Example_of_the_header_runs_without_complaint) {
  const Log_Capture log;

  const std::string reports = stream_reports_of(run_example_of_the_header);

  EXPECT_EQ(g_cnAlloc, 1u);
  EXPECT_EQ(g_cnFree, 1u);
  EXPECT_EQ(reports, "");
  EXPECT_THAT(log.lines(), IsEmpty());
}

// --------------------------------------------------------------------------------------------------------------- alloc

TEST_F(Traced_Memory, Alloc_writes_header_and_guards_around_the_data) {
  char *data = static_cast<char *>(Trace_Mem_Alloc(20, 0x12345678, "main.c", 321));
  ASSERT_NE(data, nullptr);

  const Trace_Mem_Node *block = block_of(data);
  EXPECT_EQ(block->next, &g_tmnHead);
  EXPECT_EQ(block->prev, &g_tmnHead);
  EXPECT_EQ(block->magic, magic);
  EXPECT_EQ(std::string(block->file, 16), std::string("main.c") + std::string(10, '\0'));
  EXPECT_EQ(block->line, 321);
  EXPECT_EQ(block->size, 20);
  EXPECT_EQ(std::string(block->front, guard_size), whole_guard);
  EXPECT_EQ(std::string(data + 20, guard_size), whole_guard);
  release(data);
}

TEST_F(Traced_Memory, Alloc_takes_80_bytes_more_than_asked_for) {
  for (int size = 0; size <= 64; ++size) {
    char *data = allocate(size);
    EXPECT_GE(malloc_usable_size(block_of(data)), static_cast<size_t>(size) + 80) << size;
    release(data);
  }
}

TEST_F(Traced_Memory, Alloc_appends_at_the_tail_and_counts) {
  char *first = allocate(1);
  char *second = allocate(2);
  char *third = allocate(3);

  EXPECT_THAT(live(), ElementsAre(first, second, third));
  EXPECT_EQ(g_tmnHead.prev, block_of(third));
  EXPECT_EQ(g_cnAlloc, 3u);
  EXPECT_EQ(g_cnFree, 0u);
  EXPECT_TRUE(mutex_is_free());
}

TEST_F(Traced_Memory, File_names_are_cut_at_15_characters_and_filled_with_zeros) {
  const auto stored = [](const char *name) {
    char *data = allocate(1, name);
    const std::string field(block_of(data)->file, 16);
    release(data);
    return field;
  };
  const auto filled = [](std::string text) { return text.append(16 - text.size(), '\0'); };

  EXPECT_EQ(stored("123456789abcdef"), filled("123456789abcdef"));
  EXPECT_EQ(stored("123456789abcdefg"), filled("123456789abcdef"));
  EXPECT_EQ(stored(std::string(5000, 'n').c_str()), filled(std::string(15, 'n')));
  EXPECT_EQ(stored("x"), filled("x"));
  EXPECT_EQ(stored(""), filled(""));
  EXPECT_EQ(stored(nullptr), filled(""));
}

TEST_F(Traced_Memory, Alloc_without_memory_answers_null_and_counts_nothing) {
  char *data = &g_stPreface[0];

  const int allocations = with_each_allocation_failing(
      [&] {
        data = allocate(100);
        return data;
      },
      [](const char *answer, int) {
        EXPECT_EQ(answer, nullptr);
        EXPECT_EQ(g_cnAlloc, 0u);
        EXPECT_THAT(live(), IsEmpty());
        EXPECT_TRUE(mutex_is_free());
      });

  EXPECT_EQ(allocations, 1);
  EXPECT_EQ(g_cnAlloc, 1u);
  release(data);
}

TEST_F(Traced_Memory, Alloc_refuses_negative_sizes_before_it_asks_for_memory) {
  for (const int size : {-1, -20, -21, -79, -80, -81, INT_MIN}) {
    const Allocation_Failure failure(1);
    EXPECT_EQ(allocate(size), nullptr) << size;
    EXPECT_FALSE(allocation_failed()) << size;
  }
  EXPECT_EQ(g_cnAlloc, 0u);
}

TEST_F(Traced_Memory, Alloc_of_the_greatest_size_does_not_overflow) {
  char *data = allocate(INT_MAX);
  if (data == nullptr) GTEST_SKIP() << "this machine has no 2 GiB of addresses to give";

  EXPECT_EQ(block_of(data)->size, INT_MAX);
  EXPECT_EQ(std::string(data + INT_MAX, guard_size), whole_guard);
  EXPECT_EQ(Trace_Mem_Check(checked(data)), 0);
  release(data);
}

// --------------------------------------------------------------------------------------------------------------- check

TEST_F(Traced_Memory, Check_of_a_whole_block_answers_0_and_is_silent) {
  for (const int size : {0, 1, 3, 4, 100, 100'000}) {
    char *data = allocate(size);
    memset(data, 'x', static_cast<size_t>(size));
    int answer = -1;
    EXPECT_EQ(stream_reports_of([&] { answer = Trace_Mem_Check(checked(data)); }), "");
    EXPECT_EQ(answer, 0) << size;
    release(data);
  }
}

TEST_F(Traced_Memory, Check_of_no_address_answers_0) {
  EXPECT_EQ(stream_reports_of([] { EXPECT_EQ(Trace_Mem_Check(nullptr), 0); }), "");
}

TEST_F(Traced_Memory, Check_reports_the_first_damaged_byte_of_either_guard_and_dumps_it) {
  for (const int size : {0, 33}) {
    char *data = allocate(size, "damage.c", 12);
    const std::string head = "damage.c (12) allocate " + std::to_string(size) + " byte buffer is corrupted! ";
    for (size_t index = 0; index < guard_size; ++index) {
      for (const bool front : {true, false}) {
        char *guard = front ? block_of(data)->front : data + size;
        guard[index] = 'q';
        const std::string place = std::string(front ? "(prefix:" : "(postfix:") + std::to_string(index) + ")\n";
        int answer = 0;
        EXPECT_EQ(stream_reports_of([&] { answer = Trace_Mem_Check(checked(data)); }),
                  head + place + dump_of(with_byte(index, 'q')));
        EXPECT_EQ(answer, 1);
        guard[index] = 'Z';
      }
    }
    release(data);
  }
}

TEST_F(Traced_Memory, One_byte_written_past_the_data_is_postfix_0) {
  char *data = allocate(5, "past.c", 3);
  data[5] = '!';

  EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(checked(data)), 1); }),
            "past.c (3) allocate 5 byte buffer is corrupted! (postfix:0)\n"
            "21, !, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, 5A, Z, "
            "5A, Z, \n");
}

TEST_F(Traced_Memory, Check_reports_both_guards_the_front_one_first) {
  char *data = allocate(5, "both.c", 3);
  block_of(data)->front[15] = 'a';
  data[5 + 2] = 'b';
  data[5 + 9] = 'c';
  std::string back = with_byte(2, 'b');
  back[9] = 'c';

  EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(checked(data)), 1); }),
            "both.c (3) allocate 5 byte buffer is corrupted! (prefix:15)\n" + dump_of(with_byte(15, 'a')) +
                "both.c (3) allocate 5 byte buffer is corrupted! (postfix:2)\n" + dump_of(back));
}

TEST_F(Traced_Memory, Dumps_show_bytes_as_unsigned_and_as_they_are) {
  char *data = allocate(5);
  const char bytes[] = {'\xff', '\0', '\x07', '\x80'};
  memcpy(data + 5, bytes, sizeof bytes);

  const std::string reports = stream_reports_of([&] { Trace_Mem_Check(checked(data)); });

  using namespace std::string_literals;
  EXPECT_THAT(reports, testing::HasSubstr("\nFF, \xff,  0, \0,  7, \x07, 80, \x80, 5A, Z, "s));
}

TEST_F(Traced_Memory, Reports_go_to_standard_output_to_the_stream_to_both_or_nowhere) {
  char *data = allocate(5, "where.c", 3);
  data[5] = '!';
  const std::string report =
      "where.c (3) allocate 5 byte buffer is corrupted! (postfix:0)\n" + dump_of(with_byte(0, '!'));
  const auto check_block = [&] { EXPECT_EQ(Trace_Mem_Check(checked(data)), 1); };

  EXPECT_EQ(output_of(check_block), "");
  g_bDebugOutput = -1;
  EXPECT_EQ(output_of(check_block), report);
  std::string on_stream;
  EXPECT_EQ(output_of([&] { on_stream = stream_reports_of(check_block); }), report);
  EXPECT_EQ(on_stream, report);
  g_bDebugOutput = 0;
  EXPECT_EQ(output_of([&] { on_stream = stream_reports_of(check_block); }), "");
  EXPECT_EQ(on_stream, report);
}

TEST_F(Traced_Memory, Nothing_is_written_to_the_debug_stream) {
  char *text = nullptr;
  size_t size = 0;
  g_pfDebug = open_memstream(&text, &size);
  char *data = allocate(5);
  data[5] = '!';

  Trace_Mem_Check(checked(data));
  Trace_Mem_Usage();
  release(data);
  fclose(std::exchange(g_pfDebug, nullptr));

  EXPECT_EQ(size, 0u);
  free(text);
}

TEST_F(Traced_Memory, Check_takes_no_lock) {
  char *data = allocate(5);
  pthread_mutex_lock(&g_mtxMem);
  EXPECT_EQ(Trace_Mem_Check(checked(data)), 0);
  pthread_mutex_unlock(&g_mtxMem);
}

// ------------------------------------------------------------------------- check at the data's own address, 4 bytes
// off

// Programs have lived with what is read there.
TEST_F(Traced_Memory, Check_at_the_data_reports_the_fields_4_bytes_off) {
  char *data = allocate(20, "name12345678", 40);
  EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(data), 1); }),
            "\xa5\x88\x88\x5aname12345678 (0) allocate 40 byte buffer is corrupted! (prefix:0)\n" +
                dump_of(front_as_read_at_the_data(20)));
}

TEST_F(Traced_Memory, Check_at_the_data_reads_the_end_of_a_long_name_as_the_line) {
  char *data = allocate(20, "name12345678xyz", 40);
  const int line = 'x' + ('y' << 8) + ('z' << 16);
  EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(data), 1); }),
            "\xa5\x88\x88\x5aname12345678xyz (" + std::to_string(line) + ") allocate 40 byte buffer is corrupted! " +
                "(prefix:0)\n" + dump_of(front_as_read_at_the_data(20)));
}

TEST_F(Traced_Memory, Check_at_the_data_finds_a_later_index_while_the_size_looks_like_a_guard) {
  const struct {
    int size;
    const char *place;
  } cases[] = {{0x5b, "(prefix:0)"},
               {0x5a, "(prefix:1)"},
               {0x015a, "(prefix:1)"},
               {0x5a5a, "(prefix:2)"},
               {0x5a5a5a, "(prefix:3)"}};
  for (const auto &[size, place] : cases) {
    char *data = allocate(size, "f.c", 5000 + size);  // no place in the block for a back guard
    EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(data), 1); }),
              "\xa5\x88\x88\x5a"
              "f.c (0) allocate " +
                  std::to_string(5000 + size) + " byte buffer is corrupted! " + place + "\n" +
                  dump_of(front_as_read_at_the_data(size)));
    release(data);
  }
}

// The line stands for the size there: it says where the back guard would be.
TEST_F(Traced_Memory, Check_at_the_data_looks_for_the_back_guard_by_the_line_and_only_in_the_block) {
  constexpr int size = 40;
  const auto looks_at_back_guard = [](int line) {
    char *data = allocate(size, "f.c", line);
    memset(data, 'x', size);
    memset(data + size + guard_size, 'x', 4);  // the block's last bytes, which are nobody's
    const std::string reports = stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(data), 1); });
    release(data);
    EXPECT_THAT(reports, testing::HasSubstr("(prefix:0)"));
    return reports.find("(postfix:") != std::string::npos;
  };

  EXPECT_FALSE(looks_at_back_guard(size + 4));  // there it is
  EXPECT_TRUE(looks_at_back_guard(size + 3));
  EXPECT_TRUE(looks_at_back_guard(size + 8));  // up to the very end
  EXPECT_TRUE(looks_at_back_guard(4));
  EXPECT_TRUE(looks_at_back_guard(-56));  // the block's first byte
  EXPECT_FALSE(looks_at_back_guard(-57));
  EXPECT_FALSE(looks_at_back_guard(INT_MIN));
  for (const int line : {size + 9, size + 20, 5000, INT_MAX}) EXPECT_FALSE(looks_at_back_guard(line)) << line;
}

// A block whose size itself looks like a guard; it is made by hand and shorter than it says.
struct Guard_Sized {
  explicit Guard_Sized(int line) {
    auto *node = reinterpret_cast<Trace_Mem_Node *>(bytes.data());
    node->magic = magic;
    strcpy(node->file, "f.c");
    node->line = line;
    node->size = 0x5a5a5a5a;
    memcpy(node->front, whole_guard, guard_size);
    data = node->data;
  }
  alignas(16) std::array<char, 256> bytes = {};
  char *data;
};

TEST_F(Traced_Memory, Check_at_the_data_answers_0_when_everything_read_looks_like_a_guard) {
  Guard_Sized block(20);
  memcpy(block.data - 4 + 20, whole_guard, guard_size);
  EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(block.data), 0); }), "");

  block.data[-4 + 20 + 15] = 'x';
  EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(block.data), 1); }),
            "\xa5\x88\x88\x5a"
            "f.c (0) allocate 20 byte buffer is corrupted! (postfix:15)\n" +
                dump_of(with_byte(15, 'x')));
}

// A guard that does not lie in the block cannot be whole.
TEST_F(Traced_Memory, Check_at_the_data_answers_1_without_a_report_when_only_the_front_could_be_looked_at) {
  for (const int line : {-57, INT_MIN, INT_MAX}) {
    Guard_Sized block(line);
    EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(block.data), 1) << line; }), "");
  }
}

// ---------------------------------------------------------------------------------- addresses that are not a block's

TEST_F(Traced_Memory, Check_of_a_foreign_address_looks_no_further_than_a_header) {
  alignas(16) std::array<char, 64> foreign = {};  // ends where the data would begin
  const int far = INT_MAX;
  memcpy(foreign.data() + offsetof(Trace_Mem_Node, size), &far, sizeof far);

  const std::string reports = stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(foreign.data() + 64), 1); });

  EXPECT_EQ(reports,
            " (0) allocate 2147483647 byte buffer is corrupted! (prefix:0)\n" + dump_of(std::string(16, '\0')));
}

TEST_F(Traced_Memory, Check_of_a_block_without_its_magic_does_not_trust_its_size) {
  char *data = allocate(5);
  Trace_Mem_Node *block = block_of(data);
  block->magic = 0;
  block->size = INT_MAX;

  EXPECT_EQ(stream_reports_of([&] { EXPECT_EQ(Trace_Mem_Check(checked(data)), 0); }), "");
}

TEST_F(Traced_Memory, Free_logs_a_null_address) {
  const Log_Capture log(1);

  Trace_Mem_Free(nullptr, "caller.c", 55);
  Trace_Mem_Free(nullptr, nullptr, -1);

  EXPECT_EQ(log.lines(), (Lines{error_line("Trace_Mem_Free", "caller.c (55) free a NULL buffer!"),
                                error_line("Trace_Mem_Free", " (-1) free a NULL buffer!")}));
  EXPECT_EQ(g_cnFree, 0u);
}

Log_Line invalid(const char *caller, const void *address) {
  char shown[32];
  snprintf(shown, sizeof shown, "%p", address);
  return error_line("Trace_Mem_Free", std::string(caller) + " free an invalid or a corrcupted buffer " + shown + "!");
}

// Programs give the data's own address, too: then the block stays.
TEST_F(Traced_Memory, Free_at_the_data_logs_an_invalid_buffer_and_leaves_the_block) {
  char *data = allocate(5);
  const Log_Capture log(1);

  const std::string reports = stream_reports_of([&] {
    Trace_Mem_Free(data, "caller.c", 55);
    Trace_Mem_Free(data, nullptr, 56);
  });

  EXPECT_EQ(log.lines(), (Lines{invalid("caller.c (55)", data), invalid(" (56)", data)}));
  EXPECT_EQ(reports, "");
  EXPECT_THAT(live(), ElementsAre(data));
  EXPECT_EQ(g_cnFree, 0u);
  EXPECT_EQ(Trace_Mem_Check(checked(data)), 0);
  EXPECT_TRUE(mutex_is_free());
}

TEST_F(Traced_Memory, Free_leaves_a_block_whose_magic_is_damaged) {
  char *data = allocate(5);
  const Log_Capture log(1);
  for (int byte = 0; byte < 4; ++byte) {
    block_of(data)->magic = magic ^ (1u << (8 * byte));
    Trace_Mem_Free(checked(data), "caller.c", 55);
  }
  EXPECT_EQ(log.lines(), Lines(4, invalid("caller.c (55)", checked(data))));
  EXPECT_THAT(live(), ElementsAre(data));
  EXPECT_EQ(g_cnFree, 0u);
}

TEST_F(Traced_Memory, Free_leaves_a_foreign_address) {
  alignas(16) std::array<char, 128> foreign = {};
  const Log_Capture log(1);

  Trace_Mem_Free(foreign.data() + 64, "caller.c", 55);

  EXPECT_EQ(log.lines(), (Lines{invalid("caller.c (55)", foreign.data() + 64)}));
  EXPECT_EQ(g_cnFree, 0u);
}

#if !defined(__SANITIZE_ADDRESS__)
// Found out only while nobody else has the memory; the sanitizer finds it out by itself.
TEST_F(Traced_Memory, Free_of_a_block_that_was_just_freed_is_logged_and_not_counted) {
  char *data = allocate(5);
  release(data);
  const Log_Capture log(1);
  ASSERT_EQ(g_cnFree, 1u);

  Trace_Mem_Free(checked(data), "caller.c", 55);

  EXPECT_EQ(log.lines(), (Lines{invalid("caller.c (55)", checked(data))}));
  EXPECT_EQ(g_cnFree, 1u);
  EXPECT_THAT(live(), IsEmpty());
}
#endif

TEST_F(Traced_Memory, Free_is_silent_at_log_level_0) {
  char *data = allocate(5);
  const Log_Capture log(0);
  Trace_Mem_Free(nullptr, "caller.c", 55);
  Trace_Mem_Free(data, "caller.c", 55);
  EXPECT_THAT(log.lines(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------------------------- free

TEST_F(Traced_Memory, Free_takes_blocks_out_anywhere_in_the_list) {
  std::vector<char *> blocks;
  for (int i = 0; i < 5; ++i) blocks.push_back(allocate(i));

  release(blocks[2]);
  EXPECT_THAT(live(), ElementsAre(blocks[0], blocks[1], blocks[3], blocks[4]));
  release(blocks[0]);
  EXPECT_THAT(live(), ElementsAre(blocks[1], blocks[3], blocks[4]));
  release(blocks[4]);
  EXPECT_THAT(live(), ElementsAre(blocks[1], blocks[3]));
  EXPECT_EQ(g_tmnHead.prev, block_of(blocks[3]));
  release(blocks[1]);
  release(blocks[3]);
  EXPECT_THAT(live(), IsEmpty());
  EXPECT_EQ(g_tmnHead.prev, &g_tmnHead);
  EXPECT_EQ(g_cnAlloc, 5u);
  EXPECT_EQ(g_cnFree, 5u);
  EXPECT_TRUE(mutex_is_free());
}

TEST_F(Traced_Memory, Free_of_a_whole_block_is_silent) {
  char *data = allocate(5);
  const Log_Capture log;
  EXPECT_EQ(stream_reports_of([&] { release(data); }), "");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Traced_Memory, Free_reports_damaged_guards_and_frees_all_the_same) {
  char *data = allocate(5, "mine.c", 9);
  block_of(data)->front[1] = '<';
  data[5 + 15] = '>';
  const Log_Capture log;

  EXPECT_EQ(stream_reports_of([&] { release(data); }),
            "mine.c (9) allocate 5 byte buffer is corrupted! (prefix:1)\n" + dump_of(with_byte(1, '<')) +
                "mine.c (9) allocate 5 byte buffer is corrupted! (postfix:15)\n" + dump_of(with_byte(15, '>')));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(live(), IsEmpty());
  EXPECT_EQ(g_cnFree, 1u);
}

TEST_F(Traced_Memory, Free_gives_the_memory_back) {
  const auto in_use = [] {
    const auto state = mallinfo2();
    return state.uordblks + state.hblkhd;
  };
  const size_t before = in_use();
  for (int i = 0; i < 1000; ++i) release(allocate(4000));
  EXPECT_LT(in_use(), before + 100'000);
}

// --------------------------------------------------------------------------------------------------------------- usage

TEST_F(Traced_Memory, Usage_without_live_blocks_logs_the_allocations_twice) {
  for (int i = 0; i < 3; ++i) release(allocate(1));
  const Log_Capture log;

  EXPECT_EQ(stream_reports_of(Trace_Mem_Usage), "");

  EXPECT_EQ(log.lines(),
            (Lines{debug_line("Trace_Mem_Usage",
                              "Mem Usage: No memory block allocated now! (Alloc: 3 times, Free: 3 times)")}));
}

// Usage looks at the data's own address, so blocks that are whole are reported as damaged.
TEST_F(Traced_Memory, Usage_logs_the_counts_and_reports_every_ordinary_block_as_damaged_newest_first) {
  release(allocate(1));
  allocate(20, "old.c", 500);
  allocate(30, "new.c", 600);
  const Log_Capture log;

  EXPECT_EQ(stream_reports_of(Trace_Mem_Usage),
            "\xa5\x88\x88\x5anew.c (0) allocate 600 byte buffer is corrupted! (prefix:0)\n" +
                dump_of(front_as_read_at_the_data(30)) +
                "\xa5\x88\x88\x5aold.c (0) allocate 500 byte buffer is corrupted! (prefix:0)\n" +
                dump_of(front_as_read_at_the_data(20)));
  EXPECT_EQ(log.lines(), (Lines{debug_line("Trace_Mem_Usage",
                                           "Mem Usage: 2 memory block allocated now! (Alloc: 3 "
                                           "times, Free: 1 times)")}));
}

TEST_F(Traced_Memory, Usage_prints_a_block_that_looks_whole_4_bytes_off) {
  Guard_Sized block(20);
  memcpy(block.data - 4 + 20, whole_guard, guard_size);
  Trace_Mem_Node *node = block_of(block.data);
  node->next = node->prev = &g_tmnHead;
  g_tmnHead.next = g_tmnHead.prev = node;
  g_cnAlloc = 1;
  const std::string line = "f.c (20) allocate 1515870810 byte buffer.\n";

  EXPECT_EQ(stream_reports_of(Trace_Mem_Usage), line);
  g_bDebugOutput = 1;
  EXPECT_EQ(output_of(Trace_Mem_Usage), line);

  g_tmnHead.next = g_tmnHead.prev = &g_tmnHead;
}

TEST_F(Traced_Memory, Usage_reports_blocks_at_any_log_level_and_logs_at_the_debug_level_only) {
  allocate(20, "f.c", 500);
  const Log_Capture log(2);
  EXPECT_NE(stream_reports_of(Trace_Mem_Usage), "");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Traced_Memory, Usage_takes_no_lock) {
  allocate(5);
  pthread_mutex_lock(&g_mtxMem);
  Trace_Mem_Usage();
  pthread_mutex_unlock(&g_mtxMem);
}

// ------------------------------------------------------------------------------------------------------------- destroy

TEST_F(Traced_Memory, Destroy_without_live_blocks_logs_GOOD_at_the_debug_level) {
  release(allocate(1));
  release(allocate(1));
  Log_Capture log(3);

  EXPECT_EQ(Trace_Mem_Destroy(), 0);

  EXPECT_EQ(log.lines(), (Lines{debug_line("Trace_Mem_Destroy", "Mem Usage: GOOD, Alloc: 2 times, Free: 2 times")}));
  log.clear();
  g_idLogLevel = 2;
  Trace_Mem_Init();
  Trace_Mem_Destroy();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Traced_Memory, Destroy_logs_BAD_and_each_live_block_newest_first_and_makes_the_counts_equal) {
  release(allocate(1));
  allocate(20, "old.c", 500);
  allocate(30, "a_very_long_name.c", 600);
  const Log_Capture log(1);

  EXPECT_EQ(Trace_Mem_Destroy(), 0);

  EXPECT_EQ(log.lines(),
            (Lines{error_line("Trace_Mem_Destroy", "Mem Usage:  BAD, Alloc: 3 times, Free: 1 times"),
                   error_line("Trace_Mem_Destroy", "a_very_long_nam (600) allocate 30 byte but not freed!"),
                   error_line("Trace_Mem_Destroy", "old.c (500) allocate 20 byte but not freed!")}));
  EXPECT_EQ(g_cnAlloc, 3u);
  EXPECT_EQ(g_cnFree, 3u);
  EXPECT_THAT(live(), IsEmpty());
}

TEST_F(Traced_Memory, Destroy_tells_of_a_damaged_front_guard_and_not_of_the_back_one) {
  for (const int index : {0, 15}) block_of(allocate(1, "front.c", index))->front[index] = 'x';
  char *back = allocate(1, "back.c", 3);
  back[1] = 'x';
  const Log_Capture log(1);

  EXPECT_EQ(stream_reports_of(Trace_Mem_Destroy), "");

  EXPECT_EQ(log.lines(),
            (Lines{error_line("Trace_Mem_Destroy", "Mem Usage:  BAD, Alloc: 3 times, Free: 0 times"),
                   error_line("Trace_Mem_Destroy", "back.c (3) allocate 1 byte but not freed!"),
                   error_line("Trace_Mem_Destroy", "front.c (15) allocate 1 byte but not freed and is corrupted !"),
                   error_line("Trace_Mem_Destroy", "front.c (0) allocate 1 byte but not freed and is corrupted !")}));
}

TEST_F(Traced_Memory, Destroy_compares_front_guards_with_the_preface) {
  allocate(1, "f.c", 1);
  g_stPreface[15] = 'Y';
  const Log_Capture log(1);

  Trace_Mem_Destroy();
  g_stPreface[15] = 'Z';

  EXPECT_EQ(log.lines().back(),
            error_line("Trace_Mem_Destroy", "f.c (1) allocate 1 byte but not freed and is corrupted !"));
}

TEST_F(Traced_Memory, Destroy_takes_no_lock_and_answers_that_the_mutex_is_held) {
  allocate(5);
  pthread_mutex_lock(&g_mtxMem);

  EXPECT_EQ(Trace_Mem_Destroy(), EBUSY);  // as it is, not negated

  EXPECT_THAT(live(), IsEmpty());
  EXPECT_EQ(g_cnAlloc, g_cnFree);
  pthread_mutex_unlock(&g_mtxMem);
}

TEST_F(Traced_Memory, Can_be_used_again_after_Destroy_and_Init) {
  allocate(5);
  EXPECT_EQ(Trace_Mem_Destroy(), 0);
  EXPECT_EQ(Trace_Mem_Init(), 0);
  char *data = allocate(5);
  EXPECT_THAT(live(), ElementsAre(data));
  EXPECT_EQ(g_cnAlloc, 2u);
  release(data);
}

// ------------------------------------------------------------------------------------------------------------- threads

// Whether the call waits while this thread has the mutex.
template <typename Call>
bool waits_for_mutex(Call call) {
  std::atomic<bool> ended = false;
  pthread_mutex_lock(&g_mtxMem);
  std::jthread other([&] {
    call();
    ended = true;
  });
  for (int i = 0; i < 50 && !ended; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const bool waited = !ended;
  pthread_mutex_unlock(&g_mtxMem);
  return waited;
}

TEST_F(Traced_Memory, Allocation_and_release_lock_the_mutex) {
  char *data = nullptr;
  EXPECT_TRUE(waits_for_mutex([&] { data = allocate(5); }));
  EXPECT_TRUE(waits_for_mutex([&] { release(data); }));
  EXPECT_EQ(g_cnAlloc, 1u);
  EXPECT_EQ(g_cnFree, 1u);
}

}  // namespace
