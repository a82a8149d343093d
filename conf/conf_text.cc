#include "conf/conf_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "conf/line_scanner.h"
#include "conf/nodes.h"
#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {
namespace {

// What the two parsers say differently, at levels that are the reverse of each other.
struct Parser_Reports {
  const char *function;
  void (*bad_section)(const char *function, const char *line);
  void (*bad_pair)(const char *function, const char *line);
};

constexpr Parser_Reports text_reports = {
    "Parse_Conf_Cache",
    [](const char *function, const char *line) {
      TARN_DEBUG_AS(function, "Bad section definition line: \"%s\"!", line);
    },
    [](const char *function, const char *line) {
      TARN_ERROR_AS(function, "Bad key-value definition line: \"%s\"!", line);
    },
};

constexpr Parser_Reports stream_reports = {
    "Parse_Conf_Stream",
    [](const char *function, const char *line) { TARN_ERROR_AS(function, "Bad section definition line: %s!", line); },
    [](const char *function, const char *line) {
      TARN_DEBUG_AS(function, "Bad key-value definition line: \"%s\"!", line);
    },
};

// Builds the chain of sections line by line.
class Conf_Parser {
 public:
  enum class Progress { goes_on, cut_short, out_of_memory };

  explicit Conf_Parser(const Parser_Reports &reports) : reports_(reports) {}

  bool begin();  // false when memory ends
  Progress add_line(const char *line, const Conf_Line &scanned);
  int finish(Sect_Node **sections);  // hands the chain over; the number of sections

 private:
  Progress add_section(std::string_view name);
  Progress add_pair(std::string_view key, std::string_view value);

  const Parser_Reports &reports_;
  Sections chain_;  // the nameless section first
  Chain_End<Sect_Node> sections_end_{nullptr};
  Chain_End<Pair_Node> pairs_end_{nullptr};
  int named_sections_ = 0;
};

bool Conf_Parser::begin() {
  chain_.first = allocate_section_node("");
  if (chain_.first == nullptr) {
    TARN_ERROR_AS(reports_.function, "Can't allocate buffer for section node error!");
    return false;
  }
  sections_end_ = Chain_End<Sect_Node>(&chain_.first->next);
  pairs_end_ = Chain_End<Pair_Node>(&chain_.first->pairs);
  return true;
}

Conf_Parser::Progress Conf_Parser::add_line(const char *line, const Conf_Line &scanned) {
  switch (scanned.kind) {
    case Conf_Line::Kind::ignored:
      return Progress::goes_on;
    case Conf_Line::Kind::section:
      return add_section(scanned.name);
    case Conf_Line::Kind::bad_section:
      reports_.bad_section(reports_.function, line);
      return Progress::goes_on;
    case Conf_Line::Kind::pair:
      if (!scanned.name.empty()) return add_pair(scanned.name, scanned.value);
      break;
    case Conf_Line::Kind::no_pair:
      break;
  }
  reports_.bad_pair(reports_.function, line);
  return Progress::goes_on;
}

Conf_Parser::Progress Conf_Parser::add_section(std::string_view name) {
  Sect_Node *section = allocate_section_node(name);
  if (section == nullptr) {
    TARN_ERROR_AS(reports_.function, "Can't allocate %d bytes buffer for section node error!",
                  static_cast<int>(section_node_size(name.size())));
    return Progress::cut_short;
  }
  sections_end_.append(section);
  pairs_end_ = Chain_End<Pair_Node>(&section->pairs);
  ++named_sections_;
  return Progress::goes_on;
}

Conf_Parser::Progress Conf_Parser::add_pair(std::string_view key, std::string_view value) {
  Pair_Node *pair = allocate_pair_node(key, value);
  if (pair == nullptr) {
    TARN_ERROR_AS(reports_.function, "Can't allocate %d bytes buffer for string pair node error!",
                  static_cast<int>(pair_node_size(key.size(), value.size())));
    return Progress::out_of_memory;
  }
  pairs_end_.append(pair);
  return Progress::goes_on;
}

int Conf_Parser::finish(Sect_Node **sections) {
  const bool nameless_used = chain_.first->pairs != nullptr;
  if (!nameless_used) Free_Sect_Node(unlink_node(&chain_.first));
  *sections = std::exchange(chain_.first, nullptr);
  return named_sections_ + (nameless_used ? 1 : 0);
}

// Feeds a parser with what next_line delivers (false at the end) and hands the chain over.
template <typename Next_Line>
int parse_lines(const Parser_Reports &reports, std::string_view blank_set, Sect_Node **sections, bool *cut_short,
                Next_Line next_line) {
  using Progress = Conf_Parser::Progress;
  *sections = nullptr;
  *cut_short = false;
  Conf_Parser parser(reports);
  if (!parser.begin()) return -ENOMEM;
  for (std::string_view line; next_line(&line);) {
    const Progress progress = parser.add_line(line.data(), scan_line(line, blank_set));
    if (progress == Progress::out_of_memory) return -ENOMEM;
    *cut_short = progress == Progress::cut_short;
    if (*cut_short) break;
  }
  return parser.finish(sections);
}

// Reads the whole of an open file, in one piece: a file that is shorter or longer than it said is being changed by
// someone who does not replace it.
int read_whole(const char *path, const Descriptor &file, size_t size, Heap_Text *text) {
  constexpr const char *function = "Cache_Conf_File";
  text->reset(static_cast<char *>(malloc(size + 2)));
  if (!*text) {
    TARN_DEBUG_AS(function, "Can't allocate %lld byte to cache the conf file \"%s\" error!",
                  static_cast<long long>(size + 2), path);
    return -ENOMEM;
  }
  errno = 0;
  const ssize_t got = read(file.get(), text->get(), size);
  if (got == static_cast<ssize_t>(size)) return 0;
  const int failure = errno;
  TARN_DEBUG_AS(function, "Read \"%s\" %lld bytes but got %d bytes error! (%d)", path, static_cast<long long>(size),
                static_cast<int>(got), -failure);
  text->reset();
  return failure != 0 ? failure : -EIO;  // the positive number is kept: callers know it, and look at the text
}

}  // namespace

int parse_conf_text(char *text, Sect_Node **sections, bool *cut_short) {
  Line_Reader reader({text, strlen(text)});
  return parse_lines(text_reports, blanks, sections, cut_short, [&](std::string_view *line) {
    if (!reader.next(line)) return false;
    text[reader.end() - 1] = '\0';  // ends the line for the log, too
    return true;
  });
}

}  // namespace tarn

int Cache_Conf_File(const char *path, char **text) {
  if (path == nullptr || text == nullptr) {
    TARN_DEBUG("Bad parameters!");
    return -EINVAL;
  }
  *text = nullptr;
  // Looked at before it is opened: opening a FIFO or a device would already do something.
  struct stat status;
  if (stat(path, &status) != 0) {
    const int failure = -errno;
    if (failure != -ENOENT) TARN_DEBUG("Can't stat the conf file \"%s\" error! (%d)", path, failure);
    return failure;
  }
  const tarn::Descriptor file(S_ISREG(status.st_mode) ? open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1);
  if (S_ISREG(status.st_mode) && !file) {
    const int failure = -errno;
    TARN_DEBUG("Can't open the conf file \"%s\" error! (%d)", path, failure);
    return failure;
  }
  // A writer may have put another file there in between; what was opened is what counts.
  if (file && fstat(file.get(), &status) != 0) return -errno;
  if (!S_ISREG(status.st_mode)) {
    TARN_DEBUG("The specified file \"%s\" is not a regular file error! (%X)", path, status.st_mode);
    return -ENOMEDIUM;
  }

  const auto size = static_cast<size_t>(status.st_size);
  if (size > INT_MAX - 2) {
    TARN_DEBUG("Read \"%s\" %lld bytes but got %d bytes error! (%d)", path, static_cast<long long>(size), 0, -EFBIG);
    return -EFBIG;
  }
  tarn::Heap_Text loaded;
  const int failure = tarn::read_whole(path, file, size, &loaded);
  if (failure != 0) return failure;
  size_t length = size;
  if (length == 0 || loaded.get()[length - 1] != '\n') loaded.get()[length++] = '\n';
  loaded.get()[length] = '\0';
  *text = loaded.release();
  return static_cast<int>(length);
}

int Parse_Conf_Cache(char *text, Sect_Node **sections) {
  if (text == nullptr || sections == nullptr) return -EINVAL;
  bool cut_short = false;
  return tarn::parse_conf_text(text, sections, &cut_short);
}

int Parse_Conf_Stream(FILE *stream, Sect_Node **sections) {
  if (stream == nullptr || sections == nullptr) return -EINVAL;
  char buffer[4096];  // a longer line counts as several lines: callers depend on the limit
  bool cut_short = false;
  return tarn::parse_lines(tarn::stream_reports, tarn::blanks_and_newline, sections, &cut_short,
                           [&](std::string_view *line) {
                             if (fgets(buffer, sizeof buffer, stream) == nullptr) return false;
                             *line = buffer;
                             return true;
                           });
}

int Write_Pair_Node(FILE *stream, const Pair_Node *first) {
  if (stream == nullptr) return -EINVAL;
  for (const Pair_Node *pair = first; pair != nullptr; pair = pair->next) {
    if (pair->value != nullptr) fprintf(stream, "%s = %s\n", pair->key, pair->value);
  }
  return 0;
}

int Write_Sect_Node(FILE *stream, const Sect_Node *first) {
  if (stream == nullptr) return -EINVAL;
  for (const Sect_Node *section = first; section != nullptr; section = section->next) {
    if (section->name[0] != '\0') fprintf(stream, "[%s]\n", section->name);
    Write_Pair_Node(stream, section->pairs);
    fputc('\n', stream);
  }
  return 0;
}
