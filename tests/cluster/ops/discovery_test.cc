#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_calls.h"
#include "tests/support/own_network.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char function[] = "Tarn_Cluster_Browse_Slave";

const std::string browser = "/usr/sbin/avahi-browse";
const std::string call_file = "/tmp/avahi.call", output_file = "/tmp/avahi.output";

// Two interfaces; the second one has addresses of both kinds.
void give_addresses() {
  static const bool given = [] {
    enter_fresh_network();
    ip({"link set lo up", "address flush dev lo", "address add 127.0.0.1/8 dev lo"});
    make_pair("tarn0", "tarn1");
    make_pair("tarn2", "tarn3");
    ip({"address add 10.77.0.25/24 dev tarn0", "address add 10.78.0.1/24 dev tarn2",
        "address add fd00:77::24/64 dev tarn2 nodad", "address add fd00:77::25/64 dev tarn2 nodad"});
    return true;
  }();
  static_cast<void>(given);
}

struct Announcement {
  std::string host = "nas1.local";
  std::string address = "10.77.0.9";
  std::string port = "8888";
  std::string text = "webport=8080,sslwebport=443,master=0";
};

std::string lines_of(const Announcement &shown) {
  return "+  tarn0 IPv4 nas _tarncluster._tcp local\n=  tarn0 IPv4 nas _tarncluster._tcp local\n   hostname = [" +
         shown.host + "]\n   address = [" + shown.address + "]\n   port = [" + shown.port + "]\n   txt = [\"" +
         shown.text + "\"]\n";
}

std::string listed(const Announcement &shown, const std::string &host, int port = 8888, int webport = 8080,
                   int sslwebport = 443, int master = 0) {
  return host + " " + shown.address + " " + std::to_string(port) + " " + std::to_string(webport) + " " +
         std::to_string(sslwebport) + " " + std::to_string(master);
}

const std::string usual = listed({}, "nas1");

std::vector<std::string> shown(const Tarn_Browse_Serv *list) {
  std::vector<std::string> found;
  for (; list != nullptr; list = list->next) {
    Announcement same;
    same.address = list->address;
    found.push_back(listed(same, list->hostname, list->port, list->webport, list->sslwebport, list->master));
  }
  return found;
}

// The browser notes how it is called and prints what the test says.
class Discovery : public testing::Test {
 protected:
  Discovery() {
    if (!on_a_throw_away_root()) throw std::runtime_error("this would change the machine's own files");
    give_addresses();
    write_file(browser,
               "#!/bin/sh\necho \"$# $* > $(readlink /proc/$$/fd/2)\" >> /tmp/avahi.call\ncat /tmp/avahi.output\n");
    chmod(browser.c_str(), 0755);
  }
  ~Discovery() override {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process was left";
    EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors leak";
    for (const std::string &file : {browser, call_file, output_file}) std::filesystem::remove(file);
  }

  // The records of what the browser prints.
  std::vector<std::string> browse(const std::string &output) {
    write_file(output_file, output);
    Tarn_Browse_Serv never;
    Tarn_Browse_Serv *list = &never;
    result_ = Tarn_Cluster_Browse_Slave(&list);
    EXPECT_NE(list, &never);
    const std::vector<std::string> found = shown(list);
    Free_Browse_Serv(list);
    return found;
  }

  std::vector<Log_Line> said() const {
    std::vector<Log_Line> found;
    for (const Log_Line &line : log_.lines()) {
      if (line.function == function) found.push_back(line);
    }
    return found;
  }

  int result_ = 0;

  Log_Capture log_;
  const int descriptors_ = open_descriptors();
};

TEST_F(Discovery, An_Announcement_Is_Listed_With_All_It_Says) {
  EXPECT_THAT(browse(lines_of({.host = "nas7.local",
                               .address = "10.77.0.7",
                               .port = "8889",
                               .text = "webport=81,sslwebport=444,master=1"})),
              ElementsAre("nas7 10.77.0.7 8889 81 444 1"));
  EXPECT_EQ(result_, 1);
  EXPECT_THAT(said(), ElementsAre(debug_line(function, "hostname = nas7"), debug_line(function, "address = 10.77.0.7"),
                                  debug_line(function, "port = 8889"), debug_line(function, "webport = 81"),
                                  debug_line(function, "sslwebport = 444"), debug_line(function, "master = 1")));
}

TEST_F(Discovery, The_Browser_Is_Run_Once_Without_Its_Errors) {
  browse("");
  EXPECT_EQ(read_file(call_file), "2 -rt _tarncluster._tcp > /dev/null\n");
}

TEST_F(Discovery, Without_Announcements_The_List_Is_None) {
  EXPECT_THAT(browse(""), IsEmpty());
  EXPECT_EQ(result_, 0);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(Discovery, Without_A_Browser_Nothing_Is_Found) {
  std::filesystem::remove(browser);
  EXPECT_THAT(browse(""), IsEmpty());
  EXPECT_EQ(result_, 0);
}

TEST_F(Discovery, A_Thousand_Announcements_Are_Listed_In_Their_Order) {
  std::string output;
  std::vector<std::string> expected;
  for (int i = 1; i <= 1000; ++i) {
    const Announcement one = {.host = "h" + std::to_string(i) + ".local", .address = "10.79.0." + std::to_string(i)};
    output += lines_of(one);
    expected.push_back(listed(one, "h" + std::to_string(i)));
  }
  EXPECT_EQ(browse(output), expected);
  EXPECT_EQ(result_, 1000);
}

TEST_F(Discovery, A_Missing_Output_Is_Refused_Before_Anything_Is_Run) {
  EXPECT_EQ(Tarn_Cluster_Browse_Slave(nullptr), -EINVAL);
  EXPECT_FALSE(exists(call_file));
  EXPECT_THAT(log_.lines(), IsEmpty());
  Free_Browse_Serv(nullptr);
}

// ------------------------------------------------------------------------------------------------------- own addresses

TEST_F(Discovery, Its_Own_Announcements_Are_Never_Listed) {
  for (const char *own : {"127.0.0.1", "10.77.0.25", "10.78.0.1", "fd00:77::24", "fd00:77::25"}) {
    SCOPED_TRACE(own);
    EXPECT_THAT(browse(lines_of({.address = own}) + lines_of({})), ElementsAre(usual));
    EXPECT_EQ(result_, 1);
  }
}

TEST_F(Discovery, Addresses_That_Only_Look_Like_Its_Own_Are_Listed) {
  for (const char *far : {"10.77.0.2", "10.77.0.250", " 10.77.0.25", "10.77.0.25 ", "FD00:77::24", "fd00:77::2",
                          "10.77.0.025", "10.77.1.25"}) {
    EXPECT_THAT(browse(lines_of({.address = far})), SizeIs(1)) << far;
  }
}

TEST_F(Discovery, An_Empty_Address_Is_Not_That_Of_An_Interface_Without_One) {
  Network_Calls calls;
  calls.getifaddrs = [](ifaddrs **list) {
    *list = nullptr;
    return 0;
  };
  EXPECT_THAT(browse("hostname = [nas1.local]\naddress = []\naddress = [10.77.0.9]\nport = [8888]\n"
                     "txt = [\"webport=8080,sslwebport=443,master=0\"]\n"),
              ElementsAre(usual));
}

TEST_F(Discovery, What_Follows_An_Own_Address_Lists_Nothing_And_Is_Forgotten) {
  EXPECT_THAT(browse("hostname = [nas1.local]\naddress = [10.77.0.25]\nport = [1]\n"
                     "txt = [\"webport=2,sslwebport=3,master=1\"]\n" +
                     lines_of({})),
              ElementsAre(usual));
  EXPECT_THAT(said(), Not(Contains(debug_line(function, "address = 10.77.0.25"))));
  EXPECT_THAT(said(), Contains(debug_line(function, "port = 1")));
}

TEST_F(Discovery, Without_Its_Own_Addresses_It_Goes_On_And_Its_Result_Is_The_Scans) {
  Network_Calls calls;
  calls.getifaddrs = [](ifaddrs **) {
    errno = EIO;
    return -1;
  };
  EXPECT_THAT(browse(lines_of({.address = "10.77.0.25"})), SizeIs(1));
  EXPECT_EQ(result_, -EIO);
  EXPECT_EQ(said().at(0), error_line(function, "Can't scan network interface! (-5)"));
}

TEST_F(Discovery, An_Empty_Scan_Is_Said_And_Does_Not_Change_The_Result) {
  Network_Calls calls;
  calls.getifaddrs = [](ifaddrs **list) {
    *list = nullptr;
    return 0;
  };
  calls.ioctl = [](int, unsigned long, void *argument) {
    static_cast<ifconf *>(argument)->ifc_len = 0;
    return 0;
  };
  EXPECT_THAT(browse(lines_of({.address = "10.77.0.25"})), SizeIs(1));
  EXPECT_EQ(result_, 1);
  EXPECT_EQ(said().at(0), error_line(function, "Can't scan network interface! (0)"));
}

// -------------------------------------------------------------------------------------------------------------
// failures

TEST_F(Discovery, A_Browser_That_Cannot_Be_Started_Is_Told) {
  const auto without_descriptors = [] {
    const int next = dup(STDIN_FILENO);
    close(next);
    const rlimit none = {static_cast<rlim_t>(next), static_cast<rlim_t>(next)};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    Tarn_Browse_Serv never;
    Tarn_Browse_Serv *list = &never;
    EXPECT_EQ(Tarn_Cluster_Browse_Slave(&list), -EMFILE);
    EXPECT_EQ(list, nullptr);
  };
  EXPECT_EQ(in_child(without_descriptors), 0);
  EXPECT_THAT(said(), Contains(error_line(function, "Can't browse tarn cluster service! (-24)")));
}

TEST_F(Discovery, When_Memory_Ends_Reading_Stops_And_The_Records_So_Far_Stay) {
  const std::string output = lines_of({}) + lines_of({.host = "nas2.local"}) + lines_of({.host = "nas3.local"});
  write_file(output_file, output);
  std::vector<size_t> kept;
  Tarn_Browse_Serv *list = nullptr;
  const Log_Line no_memory = error_line(function, "Can't allocate memory for service browsing! (-12)");
  with_each_allocation_failing([&] { return Tarn_Cluster_Browse_Slave(&list); },
                               [&](int result, int) {
                                 const auto lines = said();
                                 if (!lines.empty() && lines.back() == no_memory) {
                                   EXPECT_EQ(result, -ENOMEM);
                                   kept.push_back(shown(list).size());
                                 }
                                 Free_Browse_Serv(std::exchange(list, nullptr));
                                 log_.clear();
                               });
  EXPECT_THAT(kept, ElementsAre(0, 1, 2));
  EXPECT_THAT(shown(list), SizeIs(3));
  Free_Browse_Serv(list);
}

TEST_F(Discovery, The_End_Of_Memory_Comes_Before_The_Scans_Failure) {
  write_file(output_file, lines_of({}));
  Network_Calls calls;
  calls.getifaddrs = [](ifaddrs **) {
    errno = EIO;
    return -1;
  };
  std::vector<int> results;
  Tarn_Browse_Serv *list = nullptr;
  with_each_allocation_failing([&] { return Tarn_Cluster_Browse_Slave(&list); },
                               [&](int result, int) {
                                 results.push_back(result);
                                 Free_Browse_Serv(std::exchange(list, nullptr));
                               });
  ASSERT_FALSE(results.empty());
  EXPECT_EQ(results.back(), -ENOMEM) << "of the record";
  Free_Browse_Serv(list);
}

// ------------------------------------------------------------------------------------------------ incomplete and
// hostile

TEST_F(Discovery, An_Announcement_That_Lacks_A_Part_Is_Left_Out) {
  for (const Announcement &lacking :
       {Announcement{.host = "nas1"}, Announcement{.host = ""}, Announcement{.host = ".local"},
        Announcement{.address = ""}, Announcement{.port = "0"}, Announcement{.port = "x"}, Announcement{.port = ""},
        Announcement{.text = "webport=0,sslwebport=443,master=0"},
        Announcement{.text = "webport=8080,sslwebport=0,master=0"}, Announcement{.text = "webport=8080,master=0"},
        Announcement{.text = "webport=x,sslwebport=443,master=0"}, Announcement{.text = ""},
        Announcement{.text = "sslwebport=443,master=0"}, Announcement{.text = "master=0"}}) {
    SCOPED_TRACE(lines_of(lacking));
    EXPECT_THAT(browse(lines_of(lacking)), IsEmpty());
    EXPECT_EQ(result_, 0);
  }
}

// Announcers depend on it: "webport" is found within "sslwebport", too.
TEST_F(Discovery, The_Web_Port_Has_To_Come_First) {
  EXPECT_THAT(browse(lines_of({.text = "sslwebport=443,webport=8080,master=0"})), IsEmpty());
  EXPECT_THAT(said(), Contains(debug_line(function, "webport = 443")));
  EXPECT_THAT(browse(lines_of({.text = "sslwebport=443,sslwebport=444,master=0"})),
              ElementsAre(listed({}, "nas1", 8888, 443, 444)));
  EXPECT_THAT(browse(lines_of({.text = "webport=0,sslwebport=443,sslwebport=444,master=2"})),
              ElementsAre(listed({}, "nas1", 8888, 443, 444, 2)));
}

TEST_F(Discovery, Pieces_Without_A_Value_Or_A_Meaning_Are_Passed_Over) {
  EXPECT_THAT(browse(lines_of({.text = "webport,x=1,webport=8080,sslwebport,,sslwebport=443,y,master,master=0"})),
              ElementsAre(usual));
  EXPECT_THAT(browse(lines_of({.text = "master=5,webport=8080,master5,sslwebport=443,master=0"})), ElementsAre(usual));
}

TEST_F(Discovery, What_Stands_Before_The_First_Web_Port_Of_The_Line_Does_Not_Count) {
  EXPECT_THAT(browse(lines_of({.text = "master=1,a=2,xwebport=8080,sslwebport=443,master=0"})), ElementsAre(usual));
}

TEST_F(Discovery, Behind_Master_A_New_Announcement_Begins) {
  const std::string twice =
      "hostname = [nas1.local]\naddress = [10.77.0.9]\nport = [8888]\n"
      "txt = [\"webport=8080,sslwebport=443,master=0\"]\ntxt = [\"webport=8080,sslwebport=443,master=0\"]\n";
  EXPECT_THAT(browse(twice), ElementsAre(usual));
  EXPECT_THAT(browse("hostname = [nas1.local]\naddress = [10.77.0.9]\nport = [8888]\n"
                     "txt = [\"webport=8080,sslwebport=0,master=0\"]\nport = [8888]\n"
                     "txt = [\"webport=8080,sslwebport=443,master=0\"]\n"),
              IsEmpty())
      << "of the one left out nothing stays";
}

// Its ports go to the next announcement, as they always did.
TEST_F(Discovery, An_Announcement_Without_Master_Is_Not_Ended) {
  EXPECT_THAT(browse(lines_of({.port = "1", .text = "webport=2,sslwebport=3"}) + lines_of({.host = "nas2.local"})),
              ElementsAre(listed({}, "nas2", 1, 2, 443)));
  EXPECT_THAT(
      browse(lines_of({.port = "1", .text = "webport=0,sslwebport=0,master=1"}) + lines_of({.host = "nas2.local"})),
      ElementsAre(listed({}, "nas2", 1, 8080, 443)));
}

TEST_F(Discovery, Without_A_Port_The_Text_Counts_As_The_Line_Of_The_Port) {
  EXPECT_THAT(browse("hostname = [nas1.local]\naddress = [10.77.0.9]\n"
                     "txt = [\"webport=8080,sslwebport=443,master=0\"]\nport = [8888]\n"
                     "txt = [\"webport=8080,sslwebport=443,master=0\"]\n"),
              ElementsAre(usual));
  EXPECT_THAT(said(), Contains(debug_line(function, "port = 0")));
}

TEST_F(Discovery, Lines_With_A_Plus_Are_Skipped_Whatever_They_Hold) {
  EXPECT_THAT(browse("hostname = [nas1.local]\naddress = [10.77.0.9]\nhostname = [x+y.local]\naddress = [1+1]\n"
                     "+ port = [7]\nport = [8888]\ntxt = [\"webport=8080,sslwebport=443,master=0\"]\n"),
              ElementsAre(usual));
}

TEST_F(Discovery, Brackets_Count_Only_In_Their_Order) {
  for (const char *line : {"hostname = ]x[\n", "hostname = ]x.y\n", "hostname = .[x\n", "hostname\n", "address = ]x[\n",
                           "address = [x\n", "address = x]\n", "address\n", "port = ]5[\n", "port = [5\n", "port\n"}) {
    SCOPED_TRACE(line);
    EXPECT_THAT(browse("hostname = [nas1.local]\naddress = [10.77.0.9]\n" + std::string(line) +
                       "port = [8888]\ntxt = [\"webport=8080,sslwebport=443,master=0\"]\n"),
                ElementsAre(usual));
  }
  EXPECT_THAT(browse(lines_of({.host = "a]b[c.d.e"})), ElementsAre(listed({}, "a]b[c")));
  EXPECT_THAT(browse("hostname = ]a[b.c]\naddress = ]x[10.77.0.9]\nport = [8888]\n"
                     "txt = [\"webport=8080,sslwebport=443,master=0\"]\n"),
              ElementsAre(listed({}, "b")));
}

TEST_F(Discovery, Long_Texts_Are_Cut_To_Their_Fields) {
  const std::string h15(15, 'h'), a63(63, 'a');
  EXPECT_THAT(browse(lines_of({.host = h15 + ".local", .address = a63})), ElementsAre(listed({.address = a63}, h15)));
  EXPECT_THAT(browse(lines_of({.host = h15 + "h.local", .address = a63 + "a"})),
              ElementsAre(listed({.address = a63}, h15)));
  EXPECT_THAT(browse(lines_of({.host = std::string(200, 'h') + ".local", .address = std::string(230, 'a')})),
              ElementsAre(listed({.address = a63}, h15)));
}

TEST_F(Discovery, A_Shorter_Text_Over_A_Longer_One_Ends_Where_It_Ends) {
  EXPECT_THAT(browse("hostname = [averylongname.local]\naddress = [fd00:77:1234:5678::9999]\n" + lines_of({})),
              ElementsAre(usual));
}

TEST_F(Discovery, Lines_Are_Read_Up_To_254_Characters) {
  const std::string beginning = "   txt = [\"webport=8080,sslwebport=443,", end = "master=0";
  const std::string head = "hostname = [nas1.local]\naddress = [10.77.0.9]\nport = [8888]\n";
  const auto line = [&](size_t length) {
    return beginning + std::string(length - beginning.size() - end.size() - 1, 'x') + "," + end;
  };
  EXPECT_THAT(browse(head + line(254) + "\n"), ElementsAre(usual));
  EXPECT_THAT(browse(head + line(254 + end.size()) + "\n"), IsEmpty()) << "the rest is a line of its own";
  EXPECT_THAT(browse(head + line(254).substr(0, 253) + "7\"]\n"), ElementsAre(listed({}, "nas1", 8888, 8080, 443, 7)));
  EXPECT_THAT(browse(head + line(255).substr(0, 254) + "7\"]\n"), ElementsAre(usual)) << "one too far";
  EXPECT_THAT(browse(std::string(100'000, '[') + "\n" + lines_of({}) + std::string(100'000, ']')), ElementsAre(usual));
}

TEST_F(Discovery, Whatever_A_Name_Holds_It_Is_Text) {
  for (const std::string name : {"%s%n%d", "$(touch /)", "'`\"", "\x80\xff\x01", "a,b=c", "\t \\"}) {
    SCOPED_TRACE(name);
    EXPECT_THAT(browse(lines_of({.host = name + ".local", .address = name})),
                ElementsAre(listed({.address = name}, name)));
    EXPECT_THAT(said(), Contains(debug_line(function, "hostname = " + name)));
    EXPECT_THAT(said(), Contains(debug_line(function, "address = " + name)));
  }
}

// The browser writes a service's name unmasked into a line; it stays within the fields.
TEST_F(Discovery, A_Service_Name_Can_Look_Like_A_Line_Of_Its_Own) {
  const auto named = [](const std::string &name) { return "= tarn0 IPv4 " + name + " _tarncluster._tcp local\n"; };
  EXPECT_THAT(browse(named("airport [7]") + lines_of({})), ElementsAre(listed({}, "nas1", 7)));
  EXPECT_THAT(browse(named("hostname [evil.x]") + lines_of({})), ElementsAre(usual));
  EXPECT_THAT(browse(named("address [10.77.0.25]") + lines_of({})), ElementsAre(usual));
}

TEST_F(Discovery, Lines_With_A_Zero_Byte_End_There) {
  using namespace std::string_literals;
  EXPECT_THAT(browse("hostname = [nas1\0.local]\n"s + lines_of({}) + "address\0 = [x]\n"s), ElementsAre(usual));
}

}  // namespace
}  // namespace tarn::test
