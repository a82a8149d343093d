// Files that a crash has cut, with NULs, with lines of 1 MiB, with the line ends of another system: every reader and
// every function that changes a file makes of them what the model makes of them.
#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "tests/conf/chains.h"
#include "tests/faults/conf_model.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;

const std::string conf_file =
    "\n"
    "top = 0\n"
    "# comment = 1\n"
    "[a]\n"
    "k = 1\n"
    "  long\t=  some = text \n"
    "\n"
    "[bad\n"
    "no pair\n"
    " = 2\n"
    "[b] rest\n"
    "k=3\n"
    "\n"
    "\n"
    "[]\n"
    "k = 4\n"
    "[a]\n"
    "k = 5\n"
    "\n";

const std::string member_file =
    "[m1]\n"
    "Status = 1\n"
    "Address = 10.0.0.1\n"
    "\n"
    "[m2]\n"
    "Address = 10.0.0.2\n"
    "Status = -2147483648\n"
    "\n"
    "[m3]\n"
    "Status = 3\n"
    "\n";

std::string with_other_line_ends(const std::string &text) {
  std::string all;
  for (const char byte : text) all += byte == '\n' ? "\r\n" : std::string(1, byte);
  return all;
}

struct Damage {
  std::string name;
  std::function<std::vector<std::string>(const std::string &)> apply;
};

std::vector<std::string> cut_anywhere(const std::string &text) {
  std::vector<std::string> all;
  for (size_t length = 0; length <= text.size(); ++length) all.push_back(text.substr(0, length));
  return all;
}

std::vector<std::string> with_a_NUL_anywhere(const std::string &text) {
  std::vector<std::string> all;
  for (size_t at = 0; at < text.size(); ++at) {
    all.push_back(text);
    all.back()[at] = '\0';
    all.push_back(text);
    all.back().insert(at, 1, '\0');
  }
  // What a journal leaves of a file whose blocks were never written.
  for (size_t at = 0; at < text.size(); ++at) all.push_back(text.substr(0, at) + std::string(text.size() - at, '\0'));
  return all;
}

std::vector<std::string> with_other_line_ends_cut_anywhere(const std::string &text) {
  return cut_anywhere(with_other_line_ends(text));
}

std::vector<std::string> with_a_line_of_1_MiB(const std::string &text) {
  const std::string mass(1 << 20, 'x');
  const std::string lines[] = {"#" + mass, "[" + mass + "]", "[" + mass, mass, mass + " = 1", "k = " + mass,
                               std::string(1 << 20, ' '), std::string(1 << 20, '='),
                               // The rest of a comment that is too long for a stream's line is a line of its own.
                               "#" + std::string(4094, 'x') + "k = 9"};
  const size_t middle = text.find("\n[") + 1;
  std::vector<std::string> all;
  for (const std::string &line : lines) {
    all.push_back(text.substr(0, middle) + line + "\n" + text.substr(middle));
    all.push_back(all.size() % 4 == 1 ? line + "\n" + text : text + line);
  }
  return all;
}

class A_Damaged_File : public testing::TestWithParam<Damage> {
 protected:
  // Runs the check with each damaged text in the file.
  void with_each(const std::string &text, const std::function<void(const std::string &)> &check) {
    for (const std::string &damaged : GetParam().apply(text)) {
      write_file(file_, damaged);
      check(damaged);
      ASSERT_FALSE(HasFailure()) << testing::PrintToString(damaged.substr(0, 400)) << " " << damaged.size();
    }
  }

  const Temporary_Folder folder_;
  const std::string path_ = folder_ / "damaged.conf";
  const char *const file_ = path_.c_str();
  const Log_Capture log_;
};

INSTANTIATE_TEST_SUITE_P(, A_Damaged_File,
                         testing::Values(Damage{"cut_anywhere", cut_anywhere},
                                         Damage{"with_a_NUL_anywhere", with_a_NUL_anywhere},
                                         Damage{"with_other_line_ends_cut_anywhere", with_other_line_ends_cut_anywhere},
                                         Damage{"with_a_line_of_1_MiB", with_a_line_of_1_MiB}),
                         [](const auto &test) { return test.param.name; });

TEST_P(A_Damaged_File, Is_read_into_sections) {
  with_each(conf_file, [&](const std::string &text) {
    const Model_File model = parsed_as_text(text);
    Sect_Node *chain = nullptr;
    EXPECT_EQ(Read_Conf_File(file_, &chain), static_cast<int>(model.size()));
    EXPECT_EQ(shown(Sections(chain)), shown(model));
  });
}

TEST_P(A_Damaged_File, Is_read_from_a_stream) {
  with_each(conf_file, [&](const std::string &text) {
    const Model_File model = parsed_as_stream(text);
    FILE *stream = fopen(file_, "re");
    Sect_Node *chain = nullptr;
    EXPECT_EQ(Parse_Conf_Stream(stream, &chain), static_cast<int>(model.size()));
    EXPECT_EQ(shown(Sections(chain)), shown(model));
    fclose(stream);
  });
}

TEST_P(A_Damaged_File, Gives_one_section) {
  with_each(conf_file, [&](const std::string &text) {
    const Model_File model = parsed_as_text(text);
    for (const char *name : {"a", "b", ""}) {
      const Model_Section *expected = find(model, name);
      Sect_Node *section = nullptr;
      EXPECT_EQ(Get_Conf_File_Section(file_, name, &section), expected != nullptr ? 0 : -ENOANO);
      EXPECT_EQ(shown(Sections(section)), expected != nullptr ? shown({*expected}) : "");
    }
  });
}

TEST_P(A_Damaged_File, Gives_single_values) {
  with_each(conf_file, [&](const std::string &text) {
    for (const char *section : {"a", "b", ""}) {
      for (const char *key : {"k", "long", "top"}) {
        std::string expected;
        const Lookup lookup = value_in(text, section, key, &expected);
        char buffer[32];
        int size = sizeof buffer;
        const int status = Get_Conf_File_String_Value(file_, section, key, buffer, &size);
        if (lookup == Lookup::no_section) {
          EXPECT_EQ(status, -ENOANO);
        } else if (lookup == Lookup::no_key) {
          EXPECT_EQ(status, -ENODATA);
        } else if (expected.size() >= sizeof buffer) {
          EXPECT_EQ(status, -EOVERFLOW);
          EXPECT_EQ(size, static_cast<int>(expected.size()));
        } else {
          ASSERT_EQ(status, 0);
          EXPECT_EQ(std::string(buffer, static_cast<size_t>(size)), expected);
        }
      }
    }
  });
}

TEST_P(A_Damaged_File, Takes_single_values) {
  for (const char *section : {"a", "b", "", "new"}) {
    for (const char *key : {"k", "other"}) {
      with_each(conf_file, [&](const std::string &text) {
        EXPECT_EQ(Set_Conf_File_String_Value(file_, section, key, "v"), 0);
        EXPECT_EQ(read_file(file_), with_value(text, section, key, "v"));
      });
    }
  }
}

TEST_P(A_Damaged_File, Loses_single_values) {
  for (const char *section : {"a", ""}) {
    with_each(conf_file, [&](const std::string &text) {
      std::string value;
      const Lookup lookup = value_in(text, section, "k", &value);
      const int expected = lookup == Lookup::found ? 0 : lookup == Lookup::no_key ? -ENODATA : -ENOANO;
      EXPECT_EQ(Set_Conf_File_String_Value(file_, section, "k", nullptr), expected);
      EXPECT_EQ(read_file(file_), without_key(text, section, "k"));
    });
  }
}

TEST_P(A_Damaged_File, Takes_pairs) {
  with_each(conf_file, [&](const std::string &text) {
    Model_File model = parsed_as_text(text);
    set_pairs(&model, "b", {{"k", "v"}, {"n", "5"}});
    const Pairs pairs = make_pairs({{"k", "v"}, {"n", "5"}});
    EXPECT_EQ(Set_Conf_File_Pair_Values(file_, "b", pairs.get()), 0);
    EXPECT_EQ(read_file(file_), written(model));
  });
}

TEST_P(A_Damaged_File, Takes_pairs_into_a_section_that_is_there) {
  with_each(conf_file, [&](const std::string &text) {
    Model_File model = parsed_as_text(text);
    const bool found = find(model, "b") != nullptr;
    if (found) set_pairs(&model, "b", {{"k", "v"}, {"n", "5"}});
    const Sections section = make_sections({{"b", {{"k", "v"}, {"n", "5"}}}});
    EXPECT_EQ(Update_Conf_File_Section(file_, "b", section.get()), found ? 0 : -ENOANO);
    EXPECT_EQ(read_file(file_), found ? written(model) : text);
  });
}

TEST_P(A_Damaged_File, Takes_a_section) {
  with_each(conf_file, [&](const std::string &text) {
    Model_File model = parsed_as_text(text);
    replace_section(&model, {"b", {{"n", "5"}}});
    const Sections section = make_sections({{"b", {{"n", "5"}}}});
    EXPECT_EQ(Set_Conf_File_Section(file_, "b", section.get()), 0);
    EXPECT_EQ(read_file(file_), written(model));
  });
}

TEST_P(A_Damaged_File, Loses_a_section) {
  with_each(conf_file, [&](const std::string &text) {
    Model_File model = parsed_as_text(text);
    const bool found = remove_section(&model, "b");
    EXPECT_EQ(Set_Conf_File_Section(file_, "b", nullptr), found ? 0 : -ENOANO);
    EXPECT_EQ(read_file(file_), found ? written(model) : text);
  });
}

// ---------------------------------------------------------------------------------------------- members

const std::string *value_of(const Model_Section &section, const std::string &key) {
  for (const auto &pair : section.pairs) {
    if (pair.first == key) return &pair.second;
  }
  return nullptr;
}

// A record by the model: what it holds of the three fields that the file has.
std::string shown_member(const Model_Section &section) {
  std::string text = section.name.substr(0, sizeof Tarn_Serv_Conf::Name);
  if (const std::string *status = value_of(section, "Status")) {
    const long long number = strtoll(status->c_str(), nullptr, 10);
    if (number >= -INT_MAX && number <= INT_MAX) text += " status " + std::to_string(number);
  }
  const std::string *address = value_of(section, "Address");
  if (address != nullptr && address->size() < sizeof Tarn_Serv_Conf::Address) text += " address " + *address;
  return text;
}

std::string shown_member(const Tarn_Serv_Conf &record) {
  std::string text(record.Name, strnlen(record.Name, sizeof record.Name));
  if ((record.fields & TARN_SERV_STATUS) != 0) text += " status " + std::to_string(record.Status);
  if ((record.fields & TARN_SERV_ADDRESS) != 0) text += std::string(" address ") + record.Address;
  return text;
}

TEST_P(A_Damaged_File, Is_read_as_a_list_of_members) {
  with_each(member_file, [&](const std::string &text) {
    const Model_File model = parsed_as_text(text);
    Tarn_Serv_Conf *list = nullptr;
    const bool refused = !model.empty() && model[0].pairs.empty();
    EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(file_, &list), refused ? -EINVAL : 0);
    std::vector<std::string> expected, found;
    if (!refused) {
      for (const Model_Section &section : model) expected.push_back(shown_member(section));
    }
    for (const Tarn_Serv_Conf *record = list; record != nullptr; record = record->next) {
      found.push_back(shown_member(*record));
    }
    EXPECT_EQ(found, expected);
    Release_Serv_List_Conf(list);
  });
}

TEST_P(A_Damaged_File, Gives_one_member) {
  with_each(member_file, [&](const std::string &text) {
    const Model_File model = parsed_as_text(text);
    for (const char *name : {"m1", "m2", "m3"}) {
      const Model_Section *expected = find(model, name);
      Tarn_Serv_Conf *record = nullptr;
      EXPECT_EQ(Tarn_Cluster_Service_Get(file_, name, &record), expected != nullptr ? 0 : -ENOANO);
      EXPECT_EQ(record != nullptr, expected != nullptr);
      if (record != nullptr && expected != nullptr) {
        EXPECT_EQ(shown_member(*record), shown_member(*expected));
      }
      Release_Serv_List_Conf(record);
    }
  });
}

TEST_P(A_Damaged_File, Takes_a_member) {
  for (const char *name : {"m1", "m3", "m4"}) {
    with_each(member_file, [&](const std::string &text) {
      Model_File model = parsed_as_text(text);
      set_pairs(&model, name, {{"Status", "7"}});
      Tarn_Serv_Conf record = {};
      strcpy(record.Name, name);
      record.Status = 7;
      record.fields = TARN_SERV_STATUS;
      EXPECT_EQ(Tarn_Cluster_Service_Set(file_, name, &record), 0);
      EXPECT_EQ(read_file(file_), written(model));
    });
  }
}

TEST_P(A_Damaged_File, Loses_a_member) {
  with_each(member_file, [&](const std::string &text) {
    Model_File model = parsed_as_text(text);
    const bool found = remove_section(&model, "m2");
    EXPECT_EQ(Tarn_Cluster_Service_Set(file_, "m2", nullptr), found ? 0 : -ENOANO);
    EXPECT_EQ(read_file(file_), found ? written(model) : text);
  });
}

}  // namespace
