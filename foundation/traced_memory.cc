#include "include/tarncluster_util.h"

#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "foundation/bounded_text.h"
#include "foundation/owners.h"
#include "foundation/report.h"

static_assert(sizeof(Trace_Mem_Node) == 64 && offsetof(Trace_Mem_Node, data) == 60);
static_assert(offsetof(Trace_Mem_Node, magic) == 16 && offsetof(Trace_Mem_Node, file) == 20 &&
              offsetof(Trace_Mem_Node, line) == 36 && offsetof(Trace_Mem_Node, size) == 40 &&
              offsetof(Trace_Mem_Node, front) == 44);

namespace tarn {
namespace {

constexpr unsigned int block_magic = 0x5a8888a5;
constexpr size_t guard_size = 16;
constexpr char guard_byte = 'Z';
constexpr size_t data_offset = offsetof(Trace_Mem_Node, data);
constexpr size_t overhead = data_offset + guard_size + 4;  // as every block has had

// Where Check and Free take a block to begin. Alloc answers an address that is four bytes nearer; callers add them.
constexpr size_t distance_to_block = 64;

}  // namespace
}  // namespace tarn

Trace_Mem_Node g_tmnHead = {&g_tmnHead, &g_tmnHead, tarn::block_magic, "", 0, 0, ""};
char g_stPreface[16] = {'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z'};
pthread_mutex_t g_mtxMem = PTHREAD_MUTEX_INITIALIZER;
unsigned int g_cnAlloc = 0;
unsigned int g_cnFree = 0;
int g_bDebugOutput = 1;
FILE *g_pfDebug = nullptr;
FILE *g_pfError = nullptr;

namespace tarn {
namespace {

class Memory_Lock {
 public:
  Memory_Lock() { pthread_mutex_lock(&g_mtxMem); }
  ~Memory_Lock() { pthread_mutex_unlock(&g_mtxMem); }
  Memory_Lock(const Memory_Lock &) = delete;
  Memory_Lock &operator=(const Memory_Lock &) = delete;
};

TARN_PRINTF(1, 2) void print_report(const char *format, ...) {
  va_list values;
  va_start(values, format);
  if (g_bDebugOutput != 0) {
    va_list for_output;
    va_copy(for_output, values);
    vprintf(format, for_output);
    va_end(for_output);
  }
  if (g_pfError != nullptr) vfprintf(g_pfError, format, values);
  va_end(values);
}

// A block as it is read from an address that need not be its own: field by field, wherever they lie.
class Block_View {
 public:
  explicit Block_View(const char *block) : block_(block) {}

  template <typename Value>
  Value read(size_t offset) const {
    Value value;
    memcpy(&value, block_ + offset, sizeof value);
    return value;
  }
  bool has_magic() const { return read<unsigned int>(offsetof(Trace_Mem_Node, magic)) == block_magic; }
  const char *file() const { return block_ + offsetof(Trace_Mem_Node, file); }
  int line() const { return read<int>(offsetof(Trace_Mem_Node, line)); }
  int size() const { return read<int>(offsetof(Trace_Mem_Node, size)); }
  const char *front() const { return block_ + offsetof(Trace_Mem_Node, front); }
  const char *back() const { return block_ + data_offset + size(); }

 private:
  const char *block_;
};

constexpr char whole_guard[] = {'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z', 'Z'};
static_assert(sizeof whole_guard == guard_size);

// Reports the first byte of a guard that is not as it was written.
bool is_whole(const Block_View &block, const char *guard, const char *name) {
  if (memcmp(guard, whole_guard, guard_size) == 0) return true;
  for (size_t i = 0; i < guard_size; ++i) {
    if (guard[i] == guard_byte) continue;
    print_report("%s (%d) allocate %d byte buffer is corrupted! (%s:%d)\n", block.file(), block.line(), block.size(),
                 name, static_cast<int>(i));
    for (size_t k = 0; k < guard_size; ++k) {
      print_report("%2X, %c, ", static_cast<unsigned char>(guard[k]), guard[k]);
    }
    print_report("\n");
    return false;
  }
  return true;
}

// At the data's own address the fields are read four bytes off, and the back guard would lie anywhere: it is looked at
// only within the real block, and elsewhere cannot be whole. Where there is no block, nothing says how far to look.
bool back_is_whole(const char *address, const Block_View &block) {
  if (!block.has_magic()) {
    const Block_View real_block(address - data_offset);
    if (!real_block.has_magic()) return true;
    const ptrdiff_t position = static_cast<ptrdiff_t>(data_offset) - 4 + block.size();
    const ptrdiff_t last = static_cast<ptrdiff_t>(overhead) + real_block.size() - static_cast<ptrdiff_t>(guard_size);
    if (position < 0 || position > last) return false;
  }
  return is_whole(block, block.back(), "postfix");
}

int check(const char *address) {
  const Block_View block(address - distance_to_block);
  const bool front = is_whole(block, block.front(), "prefix");
  const bool back = back_is_whole(address, block);
  return front && back ? 0 : 1;
}

void link_at_tail(Trace_Mem_Node *node) {
  node->next = &g_tmnHead;
  node->prev = g_tmnHead.prev;
  g_tmnHead.prev->next = node;
  g_tmnHead.prev = node;
  ++g_cnAlloc;
}

void unlink(Trace_Mem_Node *node) {
  node->prev->next = node->next;
  node->next->prev = node->prev;
  // Freed once more, it is found out while its memory is nobody else's; volatile, or the store before free() is
  // dropped.
  static_cast<volatile Trace_Mem_Node *>(node)->magic = 0;
  ++g_cnFree;
}

}  // namespace
}  // namespace tarn

int Trace_Mem_Init(void) {
  return pthread_mutex_init(&g_mtxMem, nullptr);
}

void *Trace_Mem_Alloc(int size, int, const char *file, int line) {
  if (size < 0) return nullptr;
  const auto bytes = static_cast<size_t>(size);
  auto *node = static_cast<Trace_Mem_Node *>(malloc(bytes + tarn::overhead));
  if (node == nullptr) return nullptr;
  node->magic = tarn::block_magic;
  memset(node->file, 0, sizeof node->file);
  tarn::copy_bounded(node->file, file != nullptr ? file : "");
  node->line = line;
  node->size = size;
  memset(node->front, tarn::guard_byte, tarn::guard_size);
  memset(node->data + bytes, tarn::guard_byte, tarn::guard_size);
  const tarn::Memory_Lock lock;
  tarn::link_at_tail(node);
  return node->data;
}

int Trace_Mem_Check(const void *address) {
  return address != nullptr ? tarn::check(static_cast<const char *>(address)) : 0;
}

void Trace_Mem_Free(void *address, const char *file, int line) {
  if (file == nullptr) file = "";
  if (address == nullptr) {
    TARN_ERROR("%s (%d) free a NULL buffer!", file, line);
    return;
  }
  char *block = static_cast<char *>(address) - tarn::distance_to_block;
  if (!tarn::Block_View(block).has_magic()) {
    TARN_ERROR("%s (%d) free an invalid or a corrcupted buffer %p!", file, line, address);
    return;
  }
  tarn::check(static_cast<char *>(address));
  const tarn::Heap<char> owner(block);
  const tarn::Memory_Lock lock;
  tarn::unlink(reinterpret_cast<Trace_Mem_Node *>(block));
}

void Trace_Mem_Usage(void) {
  if (g_cnAlloc == g_cnFree) {
    TARN_DEBUG("Mem Usage: No memory block allocated now! (Alloc: %d times, Free: %d times)",
               static_cast<int>(g_cnAlloc), static_cast<int>(g_cnAlloc));
    return;
  }
  TARN_DEBUG("Mem Usage: %d memory block allocated now! (Alloc: %d times, Free: %d times)",
             static_cast<int>(g_cnAlloc - g_cnFree), static_cast<int>(g_cnAlloc), static_cast<int>(g_cnFree));
  for (const Trace_Mem_Node *node = g_tmnHead.prev; node != &g_tmnHead; node = node->prev) {
    if (Trace_Mem_Check(node->data) != 0) continue;
    tarn::print_report("%s (%d) allocate %d byte buffer.\n", node->file, node->line, node->size);
  }
}

int Trace_Mem_Destroy(void) {
  if (g_cnAlloc == g_cnFree) {
    TARN_DEBUG("Mem Usage: GOOD, Alloc: %d times, Free: %d times", static_cast<int>(g_cnAlloc),
               static_cast<int>(g_cnFree));
  } else {
    TARN_ERROR("Mem Usage:  BAD, Alloc: %d times, Free: %d times", static_cast<int>(g_cnAlloc),
               static_cast<int>(g_cnFree));
  }
  while (g_tmnHead.prev != &g_tmnHead) {
    Trace_Mem_Node *node = g_tmnHead.prev;
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the one before was unlinked, so this is another
    tarn::unlink(node);
    const bool whole = memcmp(node->front, g_stPreface, sizeof g_stPreface) == 0;
    TARN_ERROR("%s (%d) allocate %d byte but not freed%s!", node->file, node->line, node->size,
               whole ? "" : " and is corrupted ");
    free(node);
  }
  return pthread_mutex_destroy(&g_mtxMem);
}
