#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/child_process.h"
#include "tests/support/command.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;

constexpr char guard[] = "########################";  // a hash of 22 characters, its end, and one byte more

// The hash, or what is left in the output when there is none.
std::string encrypted(const std::string &text, int status = 0) {
  char hash[sizeof guard];
  memcpy(hash, guard, sizeof guard);
  EXPECT_EQ(Encrypt_String(text.c_str(), hash), status);
  if (status == 0) {
    EXPECT_EQ(strlen(hash), 22u);
    EXPECT_EQ(hash[23], '#');
  }
  return hash;
}

std::string quoted(const std::string &text) {
  std::string all = "'";
  for (const char c : text) all += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return all + "'";
}

// Another implementation's answer.
std::string md5_crypt(const std::string &salt, const std::string &text) {
  const Command_Result result = run_command("openssl passwd -1 -salt " + quoted(salt) + " " + quoted(text));
  EXPECT_EQ(result.status, 0);
  return result.output.substr(0, result.output.find('\n'));
}

std::string md5_hash(const std::string &salt, const std::string &text) {
  return md5_crypt(salt, text).substr(salt.size() + 4);  // "$1$", the salt, "$"
}

// ---------------------------------------------------------------------------------------------------- Encrypt_String

TEST(Encrypt_String, Is_the_hash_under_the_texts_own_first_8_characters) {
  for (const std::string text : {"a", "secret", "12345678", "123456789", "alongertext, with blanks behind the salt",
                                 "./AZaz09", "\"#%&'()+", ",-./<=>?", "@[]^_`{|", "}~"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(encrypted(text), md5_hash(text.substr(0, 8), text));
  }
}

TEST(Encrypt_String, Keeps_its_answers) {
  EXPECT_EQ(encrypted("secret"), "fuQ4/JIZWHXOtr6SiYUNE1");
  EXPECT_EQ(encrypted(""), "qRPK7m23GJusamGpoGLby/");
}

TEST(Encrypt_String, Ends_the_salt_at_a_dollar_among_the_first_8_characters) {
  EXPECT_EQ(encrypted("ab$cd"), md5_hash("ab", "ab$cd"));
  EXPECT_EQ(encrypted("abcdefg$h"), md5_hash("abcdefg", "abcdefg$h"));
  EXPECT_EQ(encrypted("a$$b$c$"), md5_hash("a", "a$$b$c$"));
  EXPECT_EQ(encrypted("$abc").size(), 22u);
  EXPECT_NE(encrypted("$abc"), encrypted(""));
}

TEST(Encrypt_String, Takes_a_dollar_behind_the_salt_as_any_other) {
  EXPECT_EQ(encrypted("abcdefgh$i"), md5_hash("abcdefgh", "abcdefgh$i"));
}

TEST(Encrypt_String, Takes_any_character_behind_the_salt) {
  const std::string text = "abcdefgh :;*!\\\n\x7f\xc3\xa9";
  EXPECT_EQ(encrypted(text), md5_hash("abcdefgh", text));
}

TEST(Encrypt_String, Refuses_characters_that_no_salt_may_hold_and_leaves_the_output) {
  for (const std::string c : {" ", ":", ";", "*", "!", "\\", "\n", "\t", "\x01", "\x1f", "\x7f", "\xc3", "\xff"}) {
    for (const std::string &text : {c, "a" + c, "abcdefg" + c + "h"}) {
      SCOPED_TRACE(text);
      EXPECT_EQ(encrypted(text, -EINVAL), guard);
    }
  }
}

TEST(Encrypt_String, Refuses_a_text_that_is_too_long_for_crypt_and_leaves_the_output) {
  EXPECT_EQ(encrypted(std::string(100'000, 'x'), -EINVAL), guard);
}

TEST(Encrypt_String, Refuses_missing_arguments) {
  char hash[23] = "#";
  EXPECT_EQ(Encrypt_String(nullptr, hash), -EINVAL);
  EXPECT_EQ(Encrypt_String("text", nullptr), -EINVAL);
  EXPECT_EQ(Encrypt_String(nullptr, nullptr), -EINVAL);
  EXPECT_STREQ(hash, "#");
}

// ---------------------------------------------------------------------------------------------- Authentication_Check

constexpr char shadow[] = "/etc/shadow";

// Has the shadow database to itself.
class Authentication_Check_Test : public Descriptor_Count {
 protected:
  Authentication_Check_Test() {
    if (!on_a_throw_away_root()) throw std::runtime_error("run it in tests/appliance");
    old_ = read_file(shadow);
    mode_ = mode_of(shadow);
  }
  ~Authentication_Check_Test() override {
    write_file(shadow, old_);
    chmod(shadow, mode_);
  }

  // One user with this stored hash, between others.
  void store(const std::string &hash) {
    write_file(shadow, "root:*:19000:0:99999:7:::\ntarn-user:" + hash + ":19000:0:99999:7:::\nlast:!:19000:::::\n");
  }

  std::string old_;
  mode_t mode_ = 0;
};

TEST_F(Authentication_Check_Test, Accepts_the_right_password_and_no_other) {
  const std::string stored = md5_crypt("Salt1234", "right word");
  ASSERT_EQ(stored.substr(0, 12), "$1$Salt1234$");
  store(stored);
  EXPECT_EQ(Authentication_Check("tarn-user", "right word"), 0);
  for (const std::string &wrong : {std::string("wrong"), std::string(""), std::string("right wor"),
                                   std::string("right word "), std::string("Right word"), stored, stored.substr(12)}) {
    EXPECT_EQ(Authentication_Check("tarn-user", wrong.c_str()), -EBADSLT) << wrong;
  }
}

TEST_F(Authentication_Check_Test, Knows_every_way_of_hashing_that_crypt_knows) {
  for (const char *method : {"-5", "-6"}) {
    const Command_Result hash = run_command(std::string("openssl passwd ") + method + " -salt abc right");
    ASSERT_EQ(hash.status, 0);
    store(hash.output.substr(0, hash.output.find('\n')));
    EXPECT_EQ(Authentication_Check("tarn-user", "right"), 0) << method;
    EXPECT_EQ(Authentication_Check("tarn-user", "wrong"), -EBADSLT) << method;
  }
}

TEST_F(Authentication_Check_Test, Accepts_an_empty_password_only_where_one_was_hashed) {
  store(md5_crypt("Salt1234", ""));
  EXPECT_EQ(Authentication_Check("tarn-user", ""), 0);
  EXPECT_EQ(Authentication_Check("tarn-user", "x"), -EBADSLT);
}

TEST_F(Authentication_Check_Test, Accepts_a_long_password) {
  const std::string password(250, 'p');
  store(md5_crypt("Salt1234", password));
  EXPECT_EQ(Authentication_Check("tarn-user", password.c_str()), 0);
  EXPECT_EQ(Authentication_Check("tarn-user", (password + "p").c_str()), -EBADSLT);
}

TEST_F(Authentication_Check_Test, Refuses_a_password_that_is_too_long_for_crypt) {
  store(md5_crypt("Salt1234", "right"));
  EXPECT_EQ(Authentication_Check("tarn-user", std::string(100'000, 'p').c_str()), -EBADSLT);
}

TEST_F(Authentication_Check_Test, Refuses_every_password_of_an_entry_without_a_valid_hash) {
  const std::string valid = md5_crypt("Salt1234", "right");
  const std::vector<std::string> entries = {"",
                                            "!",
                                            "!!",
                                            "*",
                                            "x",
                                            "*0",
                                            "*1",
                                            "!" + valid,
                                            "*" + valid,
                                            "!*",
                                            "$",
                                            "$1",
                                            "$1$",
                                            "$1$Salt1234",
                                            "$1$Salt1234$",
                                            valid.substr(0, valid.size() - 1),
                                            valid + "x",
                                            "$9$Salt1234$" + valid.substr(12),
                                            valid.substr(12)};
  for (const std::string &stored : entries) {
    SCOPED_TRACE("\"" + stored + "\"");
    store(stored);
    for (const std::string &password : {std::string("right"), std::string(""), stored, std::string("*0"),
                                        std::string("*1"), std::string("!"), std::string("x")}) {
      EXPECT_EQ(Authentication_Check("tarn-user", password.c_str()), -EBADSLT) << password;
    }
  }
}

TEST_F(Authentication_Check_Test, Does_not_know_a_user_without_an_entry) {
  store(md5_crypt("Salt1234", "right"));
  for (const char *user : {"nobody-here", "", "tarn-use", "tarn-user2", "TARN-USER", "tarn-user:", "+", "bin"}) {
    EXPECT_EQ(Authentication_Check(user, "right"), -ENOANO) << user;
  }
}

TEST_F(Authentication_Check_Test, Does_not_know_any_user_of_a_database_that_is_missing_or_may_not_be_read) {
  store(md5_crypt("Salt1234", "right"));
  ASSERT_EQ(chmod(shadow, 0600), 0);
  EXPECT_EQ(in_child([] {
              become_nobody();
              EXPECT_EQ(Authentication_Check("tarn-user", "right"), -ENOANO);
            }),
            0);
  EXPECT_EQ(Authentication_Check("tarn-user", "right"), 0);
  unlink(shadow);
  EXPECT_EQ(Authentication_Check("tarn-user", "right"), -ENOANO);
}

TEST_F(Authentication_Check_Test, Refuses_missing_arguments) {
  EXPECT_EQ(Authentication_Check(nullptr, "right"), -EINVAL);
  EXPECT_EQ(Authentication_Check("tarn-user", nullptr), -EINVAL);
  EXPECT_EQ(Authentication_Check(nullptr, nullptr), -EINVAL);
}

TEST_F(Authentication_Check_Test, Says_nothing) {
  store(md5_crypt("Salt1234", "right"));
  const Log_Capture log;
  Authentication_Check("tarn-user", "right");
  Authentication_Check("tarn-user", "wrong");
  Authentication_Check("unknown", "right");
  EXPECT_EQ(log.text(), "");
}

}  // namespace
