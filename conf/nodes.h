// What the rooms above need of the node chains beyond the exported functions.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string_view>

#include "include/tarncluster_util.h"

namespace tarn {

// Owner of a chain of sections. The first link is open to all, since changing a chain may change its first node.
struct Sections {
  Sections() = default;
  ~Sections() { Free_Sect_Node(first); }
  Sections(const Sections &) = delete;
  Sections &operator=(const Sections &) = delete;

  Sect_Node *first = nullptr;
};

// Every section node has at least this room for its name with terminator, so that a record's rename can be made where
// the node stands: who holds the node's address goes on holding it.
inline constexpr size_t section_name_room = 128;

// Bytes that a node takes.
size_t section_node_size(size_t name_length);
size_t pair_node_size(size_t key_length, size_t value_length);

// New nodes, linked with nothing; null when memory ends.
Sect_Node *allocate_section_node(std::string_view name);
Pair_Node *allocate_pair_node(std::string_view key, std::string_view value);

// The link that holds the first node of a name or key; the chain's last link, which holds null, when there is none.
Sect_Node **find_section_link(Sect_Node **chain, const char *name);
Pair_Node **find_pair_link(Pair_Node **chain, const char *key);

// Takes the node that a link holds out of its chain; the owner has it alone.
template <typename Node>
Node *unlink_node(Node **link) {
  Node *node = *link;
  *link = node->next;
  node->next = nullptr;
  return node;
}

// Appends to a chain through its remembered end.
template <typename Node>
class Chain_End {
 public:
  explicit Chain_End(Node **chain) : end_(chain) {}
  void append(Node *node) {
    *end_ = node;
    end_ = &node->next;
  }
  Node **link() const { return end_; }  // holds null: a node that is put there is appended

  // Goes on behind a node that was put into link().
  void advance() { end_ = &(*end_)->next; }

 private:
  Node **end_;
};

// Stores a number cut to a width and tells whether it lies in the width's range. The most negative value of each width
// is outside on purpose: callers depend on symmetric ranges.
template <typename Number>
int narrow_number(int64_t wide, Number *value) {
  constexpr auto limit = static_cast<int64_t>((UINT64_C(1) << (8 * sizeof(Number) - 1)) - 1);
  *value = static_cast<Number>(wide);
  return wide < -limit || wide > limit ? -EOVERFLOW : 0;
}

// A number of a narrower width through a getter of 64 bits, which stores through the pointer that it is called with.
template <typename Number, typename Getter>
int get_narrow_number(Number *value, Getter get_wide) {
  if (value == nullptr) return -EINVAL;
  int64_t wide = 0;
  const int status = get_wide(&wide);
  return status == 0 ? narrow_number(wide, value) : status;
}

// Whether a text would end its line in a file.
bool has_newline(const char *text);

// Whether every name and value can be written and read back as what it is; a record file takes nothing else.
bool fits_text_format(const Pair_Node &pair);
bool fits_text_format(const Sect_Node &section);

}  // namespace tarn
