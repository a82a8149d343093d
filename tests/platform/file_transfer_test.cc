// Files moved between a master and a slave: real services, the real bus.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "tarncluster_util.h"
#include "tests/platform/member.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

void write_random_file(const std::string &path, int mebibytes) {
  const std::string command = "head -c " + std::to_string(mebibytes) + "M /dev/urandom > " + path;
  ASSERT_EQ(system(command.c_str()), 0);
}

bool are_equal(const std::string &a, const std::string &b) {
  return system(("cmp -s " + a + " " + b).c_str()) == 0;
}

// A file of zeroes that takes no room and is long enough to be caught half-way.
void write_sparse_file(const std::string &path, off_t size) {
  write_file(path, "");
  ASSERT_EQ(truncate(path.c_str(), size), 0);
}

constexpr off_t kLongEnough = 1 << 30;

class File_Transfer : public testing::Test {
 protected:
  static void SetUpTestSuite() { members = new Pair_Of_Members; }
  static void TearDownTestSuite() { delete members; }
  static Pair_Of_Members *members;

  // No temporary file is left in this folder, nor a link to one on either member.
  void expect_nothing_left(const std::string &path) const {
    EXPECT_THAT(names_in(path), IsEmpty());
    for (const Member *member : {&members->master, &members->slave}) {
      const std::string links = member->path("/var/lib/tarncluster/partial");
      EXPECT_TRUE(comes_true([&] { return names_in(links).empty(); })) << "links to temporary files";
    }
  }

  // Starts to send a long file from the member and returns when the transfer is well under way.
  Process start_long_transfer(const Member &from, bool is_master, int *code_pipe) {
    write_sparse_file(source, kLongEnough);
    EXPECT_EQ(mkdir(target_folder.c_str(), 0755), 0);
    int answer[2];
    EXPECT_EQ(pipe2(answer, O_CLOEXEC), 0);
    Process caller = from.start_on_member([&, is_master] {
      char *reply = nullptr;
      const int code = Tarn_Cluster_Send_File(is_master ? 0 : 1, is_master ? "S1" : "0", source.c_str(), target.c_str(),
                                              progress.c_str(), &reply);
      [[maybe_unused]] const ssize_t written = write(answer[1], &code, sizeof(code));
    });
    close(answer[1]);
    *code_pipe = answer[0];
    EXPECT_TRUE(comes_true([&] { return exists(progress) && atoi(read_file(progress).c_str()) >= 2; }));
    EXPECT_FALSE(exists(target));
    EXPECT_EQ(names_in(target_folder).size(), 1u) << "the temporary file";
    return caller;
  }

  static int code_from(int code_pipe) {
    int code = 1;
    if (read(code_pipe, &code, sizeof(code)) != sizeof(code)) code = 1;
    close(code_pipe);
    return code;
  }

  Temporary_Folder folder;
  const std::string source = folder / "source";
  const std::string target_folder = folder / "there";
  const std::string target = target_folder + "/target";
  const std::string progress = folder / "progress";
};
Pair_Of_Members *File_Transfer::members = nullptr;

TEST_F(File_Transfer, master_sends_64_mebibytes) {
  write_random_file(source, 64);
  ASSERT_EQ(members->master.send_file(0, "S1", source, folder / "target").code, 0);
  EXPECT_TRUE(are_equal(source, folder / "target"));
}

TEST_F(File_Transfer, slave_sends_64_mebibytes) {
  write_random_file(source, 64);
  ASSERT_EQ(members->slave.send_file(1, "0", source, folder / "target").code, 0);
  EXPECT_TRUE(are_equal(source, folder / "target"));
}

TEST_F(File_Transfer, master_fetches_64_mebibytes) {
  write_random_file(source, 64);
  ASSERT_EQ(members->master.fetch_file(0, "S1", source, folder / "target").code, 0);
  EXPECT_TRUE(are_equal(source, folder / "target"));
}

TEST_F(File_Transfer, slave_fetches_64_mebibytes_in_the_name_of_itself) {
  write_random_file(source, 64);
  ASSERT_EQ(members->slave.fetch_file(2, "S1", source, folder / "target").code, 0);
  EXPECT_TRUE(are_equal(source, folder / "target"));
}

TEST_F(File_Transfer, source_is_here_and_destination_there) {
  members->master.on_member([] { return write_file("/run/only_on_master", "from the master"), ""; });
  ASSERT_EQ(members->master.send_file(0, "S1", "/run/only_on_master", "/run/sent").code, 0);
  EXPECT_EQ(read_file(members->slave.path("/run/sent")), "from the master");
  EXPECT_FALSE(exists(members->master.path("/run/sent")));

  ASSERT_EQ(members->slave.fetch_file(1, "0", "/run/only_on_master", "/run/fetched").code, 0);
  EXPECT_EQ(read_file(members->slave.path("/run/fetched")), "from the master");
  EXPECT_FALSE(exists(members->master.path("/run/fetched")));
}

TEST_F(File_Transfer, sizes_around_a_piece) {
  for (const int size : {0, 1, 524287, 524288, 524289, 4194304, 4194305}) {
    write_file(source, std::string(static_cast<size_t>(size), 'x'));
    unlink((folder / "target").c_str());
    ASSERT_EQ(members->master.send_file(0, "S1", source, folder / "target").code, 0) << size;
    EXPECT_TRUE(are_equal(source, folder / "target")) << size;
    unlink((folder / "target").c_str());
    ASSERT_EQ(members->master.fetch_file(0, "S1", source, folder / "target").code, 0) << size;
    EXPECT_TRUE(are_equal(source, folder / "target")) << size;
  }
}

TEST_F(File_Transfer, permission_bits_are_kept) {
  write_file(source, "x");
  chmod(source.c_str(), 04751);
  ASSERT_EQ(members->master.send_file(0, "S1", source, folder / "sent").code, 0);
  EXPECT_EQ(mode_of(folder / "sent"), 0751u);
  ASSERT_EQ(members->master.fetch_file(0, "S1", source, folder / "fetched").code, 0);
  EXPECT_EQ(mode_of(folder / "fetched"), 0751u);
}

TEST_F(File_Transfer, reply_tells_status_and_path) {
  write_file(source, "x");
  const Outcome sent = members->master.send_file(0, "S1", source, folder / "target");
  int status = -1;
  char *path = nullptr;
  EXPECT_EQ(Parse_Cluster_Cmd_Status(sent.reply.c_str(), &status), 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Parse_Result_Path(sent.reply.c_str(), 0, "S1", &path), 0);
  EXPECT_STREQ(path, (folder / "target").c_str());
  free(path);

  const Outcome fetched = members->slave.fetch_file(1, "0", source, folder / "fetched");
  path = nullptr;
  EXPECT_EQ(Parse_Result_Path(fetched.reply.c_str(), 1, "0", &path), 0);
  EXPECT_STREQ(path, (folder / "fetched").c_str());
  free(path);

  json_object *reply = json_tokener_parse(sent.reply.c_str());
  json_object *member = nullptr;
  ASSERT_TRUE(json_object_object_get_ex(reply, "cluster_cmd_status", &member));
  EXPECT_TRUE(json_object_is_type(member, json_type_string));
  ASSERT_TRUE(json_object_object_get_ex(reply, "return", &member));
  EXPECT_EQ(json_object_get_int(member), 0);
  json_object_put(reply);
}

TEST_F(File_Transfer, existing_file_is_replaced_as_a_whole) {
  write_file(source, "new");
  write_file(folder / "target", "old content");
  const ino_t old = inode_of(folder / "target");
  ASSERT_EQ(members->master.send_file(0, "S1", source, folder / "target").code, 0);
  EXPECT_EQ(read_file(folder / "target"), "new");
  EXPECT_NE(inode_of(folder / "target"), old);
}

TEST_F(File_Transfer, progress_file_grows_to_100) {
  write_random_file(source, 16);
  EXPECT_EQ(members->master.send_file(0, "S1", source, folder / "target", progress.c_str()).code, 0);
  EXPECT_EQ(read_file(progress), "100");
  unlink(progress.c_str());
  EXPECT_EQ(members->slave.fetch_file(1, "0", source, folder / "target", progress.c_str()).code, 0);
  EXPECT_EQ(read_file(progress), "100");
  EXPECT_THAT(names_in(folder.path()), ElementsAre("progress", "source", "target"));
}

TEST_F(File_Transfer, progress_is_always_a_whole_number_that_grows) {
  write_random_file(source, 64);
  Process caller = members->master.start_on_member([&] {
    char *reply = nullptr;
    _exit(Tarn_Cluster_Send_File(0, "S1", source.c_str(), (folder / "target").c_str(), progress.c_str(), &reply));
  });
  int last = 0;
  EXPECT_TRUE(comes_true([&] {
    if (!exists(progress)) return false;
    const std::string text = read_file(progress);
    EXPECT_THAT(text, testing::MatchesRegex("[0-9]+"));
    EXPECT_GE(atoi(text.c_str()), last);
    last = atoi(text.c_str());
    return last == 100;
  }));
  EXPECT_EQ(caller.wait(), 0);
}

TEST_F(File_Transfer, progress_does_not_say_100_for_a_file_that_failed) {
  write_file(source, "x");
  mkdir(target_folder.c_str(), 0755);
  EXPECT_EQ(members->master.send_file(0, "S1", source, target_folder, progress.c_str()).code, -EISDIR);
  EXPECT_EQ(read_file(progress), "0");
}

TEST_F(File_Transfer, missing_target_folder) {
  write_file(source, "x");
  const Outcome sent = members->master.send_file(0, "S1", source, folder / "missing/target");
  EXPECT_EQ(sent.code, -ENOENT);
  EXPECT_FALSE(sent.has_reply);
  EXPECT_EQ(members->master.fetch_file(0, "S1", source, folder / "missing/target").code, -ENOENT);
  unlink(source.c_str());
  expect_nothing_left(folder.path());
}

TEST_F(File_Transfer, source_that_is_no_regular_file) {
  mkdir(target_folder.c_str(), 0755);
  ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
  for (const bool is_sent : {true, false}) {
    const auto move = [&](const std::string &path) {
      return is_sent ? members->master.send_file(0, "S1", path, target).code
                     : members->master.fetch_file(0, "S1", path, target).code;
    };
    EXPECT_EQ(move(folder / "missing"), -ENOENT);
    EXPECT_EQ(move(folder.path()), -EISDIR);
    EXPECT_EQ(move(folder / "fifo"), -EINVAL);
    EXPECT_EQ(move("/dev/zero"), -EINVAL);
  }
  expect_nothing_left(target_folder);
}

TEST_F(File_Transfer, paths_must_be_absolute) {
  write_file(source, "x");
  EXPECT_EQ(members->master.send_file(0, "S1", "source", folder / "target").code, -EINVAL);
  EXPECT_EQ(members->master.send_file(0, "S1", source, "target").code, -EINVAL);
  EXPECT_EQ(members->master.send_file(0, "S1", source, folder / "target", "progress").code, -EINVAL);
  EXPECT_EQ(members->master.fetch_file(0, "S1", "source", folder / "target").code, -EINVAL);
  EXPECT_EQ(members->master.fetch_file(0, "S1", source, "target").code, -EINVAL);
  EXPECT_EQ(members->master.fetch_file(0, "S1", source, "").code, -EINVAL);
}

TEST_F(File_Transfer, malformed_argument_object) {
  const std::string command = R"({"op_code": 5, "slave_id": "S1"})";
  for (const char *argument : {"", "{}", "[]", "null", R"({"src_path": "/x"})", R"({"src_path": 5, "dst_path": "/x"})",
                               R"({"src_path": "/etc/hostname\u0000x", "dst_path": "/run/x"})"}) {
    EXPECT_EQ(members->master.master_command(command, argument).code, -EINVAL) << argument;
  }
}

TEST_F(File_Transfer, member_that_is_down_is_told_at_once) {
  write_file(source, "x");
  EXPECT_EQ(members->master.send_file(0, "S2", source, folder / "target").code, -EHOSTUNREACH);
  EXPECT_EQ(members->master.fetch_file(0, "S2", source, folder / "target").code, -EHOSTUNREACH);
}

TEST_F(File_Transfer, full_disk_leaves_the_old_file_and_nothing_else) {
  write_random_file(source, 4);
  const auto mount_small = [] {
    mkdir("/run/small", 0755);
    if (mount("small", "/run/small", "tmpfs", 0, "size=1m") != 0) return "failed";
    write_file("/run/small/target", "old");
    return "mounted";
  };
  ASSERT_EQ(members->slave.on_member(mount_small), "mounted");
  EXPECT_EQ(members->master.send_file(0, "S1", source, "/run/small/target").code, -ENOSPC);
  EXPECT_EQ(members->slave.fetch_file(1, "0", source, "/run/small/target").code, -ENOSPC);
  EXPECT_EQ(read_file(members->slave.path("/run/small/target")), "old");
  EXPECT_THAT(names_in(members->slave.path("/run/small")), ElementsAre("target"));
  EXPECT_EQ(members->master.send_file(0, "S1", "/etc/hostname", "/run/small/target").code, 0);
}

// A limit on the size of the service's files stands for a disk that is found full on the way.
void limit_file_size(const Member &member, const std::string &bytes) {
  const std::string pid = std::to_string(member.service().pid());
  ASSERT_EQ(system(("prlimit --pid " + pid + " --fsize=" + bytes + ":unlimited").c_str()), 0);
}

TEST_F(File_Transfer, disk_that_fills_up_on_the_way_leaves_nothing) {
  int code_pipe;
  Process caller = start_long_transfer(members->master, true, &code_pipe);
  limit_file_size(members->slave, "1");
  EXPECT_EQ(code_from(code_pipe), -EFBIG);
  limit_file_size(members->slave, "unlimited");
  expect_nothing_left(target_folder);
  EXPECT_EQ(members->master.send_file(0, "S1", "/etc/hostname", target).code, 0);
}

TEST_F(File_Transfer, file_that_shrinks_while_it_is_sent_is_not_delivered) {
  int code_pipe;
  Process caller = start_long_transfer(members->master, true, &code_pipe);
  ASSERT_EQ(truncate(source.c_str(), 10), 0);
  EXPECT_EQ(code_from(code_pipe), -EIO);
  EXPECT_TRUE(comes_true([&] { return names_in(target_folder).empty(); }));
  expect_nothing_left(target_folder);
}

TEST_F(File_Transfer, time_out_ends_the_transfer_and_leaves_nothing) {
  write_sparse_file(source, off_t{16} << 30);
  mkdir(target_folder.c_str(), 0755);
  members->slave.service().signal(SIGSTOP);
  const std::string argument = R"({"src_path": ")" + source + R"(", "dst_path": ")" + target + "\"}";
  EXPECT_EQ(members->master.master_command(R"({"op_code": 5, "slave_id": "S1"})", argument, 1000).code, -ETIME);
  members->slave.service().signal(SIGCONT);
  EXPECT_TRUE(comes_true([&] { return names_in(target_folder).empty(); }));
}

TEST_F(File_Transfer, death_of_the_calling_program_ends_the_transfer) {
  int code_pipe;
  Process caller = start_long_transfer(members->master, true, &code_pipe);
  caller.end(SIGKILL);
  close(code_pipe);
  EXPECT_TRUE(comes_true([&] { return names_in(target_folder).empty(); }));
  expect_nothing_left(target_folder);
}

TEST_F(File_Transfer, death_of_the_senders_service_leaves_nothing) {
  int code_pipe;
  Process caller = start_long_transfer(members->slave, false, &code_pipe);
  members->slave.service().end(SIGKILL);
  EXPECT_EQ(code_from(code_pipe), -ECONNRESET);
  EXPECT_TRUE(comes_true([&] { return names_in(target_folder).empty(); }));
  EXPECT_FALSE(exists(target));
  members->slave.start();
  ASSERT_TRUE(members->slave.comes_to_be_connected());
  expect_nothing_left(target_folder);
}

TEST_F(File_Transfer, death_of_the_receivers_service_is_told_and_its_next_start_cleans_up) {
  int code_pipe;
  Process caller = start_long_transfer(members->master, true, &code_pipe);
  members->slave.service().end(SIGKILL);
  EXPECT_EQ(code_from(code_pipe), -EHOSTUNREACH);
  EXPECT_FALSE(exists(target));
  members->slave.start();
  ASSERT_TRUE(members->slave.comes_to_be_connected());
  expect_nothing_left(target_folder);
}

TEST_F(File_Transfer, end_of_the_receivers_service_leaves_nothing) {
  int code_pipe;
  Process caller = start_long_transfer(members->master, true, &code_pipe);
  members->slave.service().end(SIGTERM);
  EXPECT_EQ(code_from(code_pipe), -EHOSTUNREACH);
  EXPECT_THAT(names_in(target_folder), IsEmpty());
  members->slave.start();
  ASSERT_TRUE(members->slave.comes_to_be_connected());
}

TEST_F(File_Transfer, death_of_the_bus_leaves_nothing) {
  int code_pipe;
  Process caller = start_long_transfer(members->master, true, &code_pipe);
  members->master.bus().end(SIGKILL);
  EXPECT_EQ(code_from(code_pipe), -ECONNRESET);
  EXPECT_TRUE(comes_true([&] { return names_in(target_folder).empty(); }));
  members->master.start_bus();
  ASSERT_TRUE(members->master.comes_to_be_connected());
  ASSERT_TRUE(members->slave.comes_to_be_connected());
  expect_nothing_left(target_folder);
}

TEST_F(File_Transfer, many_at_once) {
  write_random_file(source, 8);
  std::vector<Process> callers;
  for (int i = 0; i < 8; ++i) {
    const std::string path = folder / ("target" + std::to_string(i));
    const Member &from = i % 2 == 0 ? members->master : members->slave;
    callers.push_back(from.start_on_member([&, path, i] {
      char *reply = nullptr;
      const char *id = i % 2 == 0 ? "S1" : "0";
      _exit(i < 4 ? Tarn_Cluster_Send_File(i % 2, id, source.c_str(), path.c_str(), nullptr, &reply)
                  : Tarn_Cluster_Recv_File(i % 2, id, source.c_str(), path.c_str(), nullptr, &reply));
    }));
  }
  for (Process &caller : callers) EXPECT_EQ(caller.wait(), 0);
  for (int i = 0; i < 8; ++i) EXPECT_TRUE(are_equal(source, folder / ("target" + std::to_string(i))));
}

}  // namespace
}  // namespace tarn::test
