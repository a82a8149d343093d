#include "include/tarncluster_util.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "foundation/owners.h"

static_assert(sizeof(Str_List) == 32 && offsetof(Str_List, low_end) == 24 && offsetof(Str_List, pointers) == 32);

namespace tarn {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr char list_magic[] = {'t', 's', 'i', 'l'};
constexpr size_t pointer_size = sizeof(char *);
constexpr size_t fixed_size = sizeof(Str_List) + pointer_size;  // with the terminating null pointer
constexpr size_t least_block = 64;
constexpr size_t greatest_block = 1073741824;
constexpr int plain = 0;
constexpr int sorted = 1;
constexpr int stack = 2;
constexpr int greatest_mode = 3;  // records of mode 3 are taken, and are plain
constexpr size_t alignment = 4;

bool is_mode(int mode) {
  return mode >= plain && mode <= stack;
}

bool is_object_size(int size) {
  return size >= 0 && size <= UINT16_MAX && static_cast<size_t>(size) % alignment == 0;
}

// Not std::has_single_bit, which calls a function to count all bits.
inline bool is_power_of_two(unsigned int number) {
  return number != 0 && (number & (number - 1)) == 0;
}

// A record that says something else of itself than a list would is not touched; the count bounds every walk.
inline bool is_list(const Str_List *list) {
  return list != nullptr && memcmp(list->magic, list_magic, sizeof list_magic) == 0 &&
         is_power_of_two(list->block_size) && list->mode <= greatest_mode &&
         fixed_size + pointer_size * list->count <= list->block_size;
}

inline bool is_stack(const Str_List *list) {
  return is_list(list) && list->mode == stack;
}

const char *block_end(const Str_List *list) {
  return reinterpret_cast<const char *>(list) + list->block_size;
}

char *block_end(Str_List *list) {
  return reinterpret_cast<char *>(list) + list->block_size;
}

void make_empty(Str_List *list, int mode, int object_size) {
  list->mode = static_cast<uint16_t>(mode);
  list->object_size = static_cast<uint16_t>(object_size);
  list->free_bytes = list->block_size - static_cast<unsigned int>(fixed_size);
  list->count = 0;
  list->low_end = block_end(list);
  list->pointers[0] = nullptr;
}

// Object and padded string.
size_t entry_size(const Str_List *list, size_t length) {
  return ((length + alignment) & ~(alignment - 1)) + list->object_size;
}

void give_object(const Str_List *list, char *text, void **object) {
  if (object != nullptr) *object = text - list->object_size;
}

// ------------------------------------------------------------------------------------------------------------- finding

// Eight bytes of a string as a number: numbers are in the order that strcmp gives the strings.
using Word = uint64_t;
constexpr size_t word_size = sizeof(Word);

Word read_word(const char *text) {
  Word word;
  memcpy(&word, text, word_size);
  return __builtin_bswap64(word);
}

Word read_half_word(const char *text) {
  uint32_t half;
  memcpy(&half, text, sizeof half);
  return __builtin_bswap32(half);
}

// Of fewer bytes, by halves that may overlap; zeros follow.
Word read_word(const char *text, size_t size) {
  if (size >= 4) return read_half_word(text) << 32 | read_half_word(text + size - 4) << 8 * (word_size - size);
  Word word = 0;
  for (size_t i = 0; i < size; ++i) word |= static_cast<Word>(static_cast<unsigned char>(text[i])) << (56 - 8 * i);
  return word;
}

// A string that is looked for, by its words.
class Wanted {
 public:
  // A word with the bits that count: in the last one, those as far as the terminator.
  struct Piece {
    Word word;
    Word mask;
  };

  explicit Wanted(const char *text)
      : text_(text), length_(strlen(text)), last_(last_piece(text, length_)), first_(piece_at(0)) {}

  size_t length() const { return length_; }
  const Piece &first() const { return first_; }
  Piece piece_at(size_t offset) const {
    return offset + word_size <= length_ ? Piece{read_word(text_ + offset), ~Word{0}} : last_;
  }

 private:
  // Nothing is read beyond the string.
  static Piece last_piece(const char *text, size_t length) {
    const size_t rest = length % word_size;
    const size_t unused = word_size - 1 - rest;  // bits are shifted by no more than 63 at once
    const Word word =
        length < word_size ? read_word(text, length) : read_word(text + length - word_size) << 8 * unused << 8;
    return {word, ~Word{0} << 8 * unused};
  }

  const char *text_;
  size_t length_;
  Piece last_;
  Piece first_;
};

// As strcmp, without its call: most strings differ in their first words. The entry lies in a block that ends at `end`.
inline int compare(const char *entry, const char *end, const Wanted &wanted) {
  Wanted::Piece piece = wanted.first();
  for (size_t offset = 0;;) {
    const auto left = static_cast<size_t>(end - entry) - offset;
    const Word read = left >= word_size ? read_word(entry + offset) : read_word(entry + offset, left);
    const Word word = read & piece.mask;
    if (word != piece.word) return word < piece.word ? -1 : 1;
    offset += word_size;
    if (offset > wanted.length()) return 0;
    piece = wanted.piece_at(offset);
  }
}

struct Position {
  unsigned int index;
  bool found;
};

// Where a string is, or would have to be put.
inline Position find_sorted(const Str_List *list, const Wanted &wanted) {
  const char *end = block_end(list);
  unsigned int low = 0;
  unsigned int high = list->count;
  while (low < high) {
    const unsigned int middle = low + (high - low) / 2;
    const int order = compare(list->pointers[middle], end, wanted);
    if (order == 0) return {middle, true};
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return {low, false};
}

inline Position find(const Str_List *list, const char *text) {
  if (list->mode == sorted) return find_sorted(list, Wanted(text));
  for (unsigned int index = 0; index < list->count; ++index) {
    if (strcmp(list->pointers[index], text) == 0) return {index, true};
  }
  return {list->count, false};
}

// -------------------------------------------------------------------------------------------------------------- adding

struct Entry {
  const char *text;
  size_t length;
  const void *object;
};

// Puts an entry at the low end; the list's pointers are the caller's to set.
inline char *place(Str_List *list, const Entry &entry) {
  const size_t size = entry_size(list, entry.length);
  list->low_end -= size;
  list->free_bytes -= static_cast<unsigned int>(size + pointer_size);
  char *text = list->low_end + list->object_size;
  if (list->object_size > 0) memcpy(list->low_end, entry.object, list->object_size);
  memcpy(text, entry.text, entry.length + 1);
  return text;
}

// A new list with the same entries, packed anew.
int copy_grown(const Str_List *list, size_t need, Str_List **grown) {
  const size_t wanted = list->block_size + need;
  if (wanted > greatest_block) return -EINVAL;
  const int status = Str_Obj_List_Init(grown, static_cast<int>(wanted), list->mode, list->object_size);
  if (status != 0) return status;
  for (unsigned int index = 0; index < list->count; ++index) {
    const char *text = list->pointers[index];
    (*grown)->pointers[index] = place(*grown, {text, strlen(text), text - list->object_size});
  }
  (*grown)->count = list->count;
  (*grown)->pointers[list->count] = nullptr;
  return 0;
}

inline void insert(Str_List *list, unsigned int index, const Entry &entry) {
  char **slot = list->pointers + index;
  if (index < list->count) {
    memmove(slot + 1, slot, (list->count - index + 1) * pointer_size);
  } else {
    slot[1] = nullptr;
  }
  *slot = place(list, entry);
  ++list->count;
}

// What was popped or removed lies where the next entry goes.
inline bool lies_in_free_part(const Str_List *list, const void *address) {
  const std::less<const void *> before;
  return address != nullptr && !before(address, list) && before(address, list->low_end);
}

// Copies that outlive the place that they are taken from.
class Kept_Entry {
 public:
  int keep(const Str_List *list, const Entry &entry) {
    bytes_.reset(static_cast<char *>(malloc(list->object_size + entry.length + 1)));
    if (bytes_ == nullptr) return -ENOMEM;
    if (list->object_size > 0) memcpy(bytes_.get(), entry.object, list->object_size);
    memcpy(bytes_.get() + list->object_size, entry.text, entry.length + 1);
    kept_ = {bytes_.get() + list->object_size, entry.length, bytes_.get()};
    return 0;
  }
  const Entry &entry() const { return kept_; }

 private:
  Heap_Text bytes_;
  Entry kept_ = {};
};

int insert_kept(Str_List *list, unsigned int index, const char *text, size_t length, const void *object) {
  Kept_Entry kept;
  const int status = kept.keep(list, {text, length, object});
  if (status == 0) insert(list, index, kept.entry());
  return status;
}

int insert_grown(Str_List **holder, unsigned int index, const char *text, size_t length, const void *object) {
  Str_List *list = *holder;
  Str_List *grown = nullptr;
  const int status = copy_grown(list, entry_size(list, length) + pointer_size, &grown);
  if (status != 0) return status;
  insert(grown, index, {text, length, object});
  free(list);  // only now: text and object may lie in it
  *holder = grown;
  return 0;
}

// Answers the index. Most entries find room and come from elsewhere: what they need is all that this does itself.
inline int add_at(Str_List **holder, unsigned int index, const char *text, size_t length, const void *object) {
  Str_List *list = *holder;
  int status = 0;
  if (entry_size(list, length) + pointer_size > list->free_bytes) {
    status = insert_grown(holder, index, text, length, object);
  } else if (lies_in_free_part(list, text) || lies_in_free_part(list, object)) {
    status = insert_kept(list, index, text, length, object);
  } else {
    insert(list, index, {text, length, object});
  }
  return status == 0 ? static_cast<int>(index) : status;
}

int add_sorted(Str_List **holder, const char *text, const void *object) {
  const Wanted wanted(text);
  const Position position = find_sorted(*holder, wanted);
  if (position.found) return static_cast<int>(position.index);
  return add_at(holder, position.index, text, wanted.length(), object);
}

inline int add(Str_List **holder, const char *text, const void *object) {
  const Str_List *list = *holder;
  if (list->object_size > 0 && object == nullptr) return -EINVAL;
  if (list->mode == sorted) return add_sorted(holder, text, object);
  return add_at(holder, list->count, text, strlen(text), object);
}

// Gives the room of the lowest entry back.
inline void give_back(Str_List *list, const char *text) {
  const size_t size = entry_size(list, strlen(text));
  list->low_end += size;
  list->free_bytes += static_cast<unsigned int>(size + pointer_size);
}

inline int top_of(Str_List *list, const char **text, void **object) {
  if (list->count == 0) return -ENOENT;
  char *top = list->pointers[list->count - 1];
  if (text != nullptr) *text = top;
  give_object(list, top, object);
  return static_cast<int>(list->count - 1);
}

// ---------------------------------------------------------------------------------- what both families of names do

inline int find_checked(Str_List *list, const char *text, void **object) {
  if (!is_list(list) || text == nullptr) return -EINVAL;
  const Position position = find(list, text);
  if (!position.found) return -ENOENT;
  give_object(list, list->pointers[position.index], object);
  return static_cast<int>(position.index);
}

inline int add_checked(Str_List **holder, const char *text, const void *object) {
  if (holder == nullptr || !is_list(*holder) || text == nullptr) return -EINVAL;
  return add(holder, text, object);
}

inline int push_checked(Str_List **holder, const char *text, const void *object) {
  if (holder == nullptr || !is_stack(*holder) || text == nullptr) return -EINVAL;
  return add(holder, text, object);
}

inline int pop_checked(Str_List *list, const char **text, void **object) {
  if (!is_stack(list)) return -EINVAL;
  const int index = top_of(list, text, object);
  if (index < 0) return index;
  give_back(list, list->pointers[index]);
  list->pointers[index] = nullptr;
  --list->count;
  return index;
}

}  // namespace
}  // namespace tarn

int Str_Obj_List_Init(Str_List **list, int size, int mode, int object_size) {
  if (list == nullptr || size < 0 || static_cast<size_t>(size) > tarn::greatest_block || !tarn::is_mode(mode) ||
      !tarn::is_object_size(object_size)) {
    return -EINVAL;
  }
  const size_t block = std::bit_ceil(std::max(static_cast<size_t>(size), tarn::least_block));
  auto *made = static_cast<Str_List *>(malloc(block));
  if (made == nullptr) return -ENOMEM;
  memcpy(made->magic, tarn::list_magic, sizeof made->magic);
  made->block_size = static_cast<unsigned int>(block);
  tarn::make_empty(made, mode, object_size);
  *list = made;
  return 0;
}

int Str_Obj_List_Reset(Str_List *list, int mode, int object_size) {
  if (!tarn::is_list(list) || !tarn::is_mode(mode) || !tarn::is_object_size(object_size)) return -EINVAL;
  tarn::make_empty(list, mode, object_size);
  return 0;
}

void Str_Obj_List_Free(Str_List *list) {
  free(list);
}

int Str_Obj_List_Find(Str_List *list, const char *text, void **object) {
  return tarn::find_checked(list, text, object);
}

int Str_Obj_List_Add(Str_List **list, const char *text, const void *object) {
  return tarn::add_checked(list, text, object);
}

int Str_Obj_List_Remove(Str_List *list, const char *text, void **object) {
  if (!tarn::is_list(list) || text == nullptr) return -EINVAL;
  if (object != nullptr) *object = nullptr;
  const tarn::Position position = tarn::find(list, text);
  if (!position.found) return -ENOENT;
  char **slot = list->pointers + position.index;
  char *removed = *slot;
  tarn::give_object(list, removed, object);
  memmove(slot, slot + 1, (list->count - position.index) * tarn::pointer_size);
  --list->count;
  if (removed - list->object_size == list->low_end) tarn::give_back(list, removed);
  return static_cast<int>(position.index);
}

int Str_Obj_List_Push(Str_List **list, const char *text, const void *object) {
  return tarn::push_checked(list, text, object);
}

int Str_Obj_List_Pop(Str_List *list, const char **text, void **object) {
  return tarn::pop_checked(list, text, object);
}

int Str_Obj_List_Peek(Str_List *list, const char **text, void **object) {
  if (!tarn::is_stack(list)) return -EINVAL;
  return tarn::top_of(list, text, object);
}

int Str_List_Init(Str_List **list, int size, int mode) {
  return Str_Obj_List_Init(list, size, mode, 0);
}

int Str_List_Reset(Str_List *list, int mode) {
  return Str_Obj_List_Reset(list, mode, 0);
}

void Str_List_Free(Str_List *list) {
  Str_Obj_List_Free(list);
}

int Str_List_Find(Str_List *list, const char *text) {
  return tarn::find_checked(list, text, nullptr);
}

int Str_List_Add(Str_List **list, const char *text) {
  return tarn::add_checked(list, text, nullptr);
}

int Str_List_Remove(Str_List *list, const char *text) {
  return Str_Obj_List_Remove(list, text, nullptr);
}

int Str_List_Push(Str_List **list, const char *text) {
  return tarn::push_checked(list, text, nullptr);
}

int Str_List_Pop(Str_List *list, const char **text) {
  return tarn::pop_checked(list, text, nullptr);
}

int Str_List_Peek(Str_List *list, const char **text) {
  return Str_Obj_List_Peek(list, text, nullptr);
}
