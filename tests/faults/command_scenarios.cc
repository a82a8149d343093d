// Commands between members; doubles stand in for the platform.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "tests/cluster/ops/platform_doubles.h"
#include "tests/faults/families.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

const char identity_file[] = "/mnt/tarncluster/config/tarn_cluster_s.conf";
const std::string json_reply = R"({"cluster_cmd_status":"7","r":[{"slave_id":"s1","result_path":"\\/p"}]})";
const std::string json_argument = R"({"slave_id":"s1","Test":"hello"})";

void answer_commands(const char *reply) {
  static std::optional<Platform_Doubles> doubles;
  doubles.emplace();
  doubles->answer(0, reply);
}

void stand_in_for_the_platform(World &) {
  answer_commands("reply");
  write_file(identity_file, "[global]\nMSKey = s1\n");
}

// ---------------------------------------------------------------------- commands that tell members of one another

const std::string cluster_folder = "/mnt/tarncluster/config";
const std::string kept_folder = "/etc/config/tarn_cluster";
const std::string own_address = "127.0.0.1", far_address = "10.77.9.9";

const std::string shares_argument =
    R"({"slave_id":"s1","share_list":[{"share_name":"a","invalid users":"i","read list":"r","write list":"w",)"
    R"("path":"/a"}]})";
const std::string info_argument =
    R"({"slave_id":"s1","Type":1,"WebPort":1,"SslWebPort":1,"UsrCnt":1,"Quota":1,"Address":"10.77.9.1","MSKey":"s1",)"
    R"("SID":"s","HostName":"h","Model":"m","Firmware":"f"})";
const std::string leaving_argument = R"({"slave_id":"s1","MSKey":"NULL"})";
const std::string own_address_argument = R"({"slave_id":"s1","Address":"127.0.0.1"})";
const std::string masters_address_argument = R"({"slave_id":"m","Address":"10.77.9.8"})";

// A slave of the master m, beside another one that runs. What they answer would be parsed, and the JSON library crashes
// when memory ends there; so they do not answer.
void be_among_members(const char *role_flag) {
  namespace fs = std::filesystem;
  for (const char *folder : {"/etc/config", "/mnt/tarncluster/config", "/var/zopel"}) {
    for (const auto &entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
  }
  fs::create_directories(cluster_folder + "/share_list");
  fs::create_directories(kept_folder);
  answer_commands(nullptr);
  write_file(role_flag, "");
  const std::string far = "Address = " + far_address + "\nStatus = 1\nPID = " + std::to_string(getpid()) + "\n\n";
  for (const std::string &folder : {cluster_folder, kept_folder}) {
    write_file(folder + "/tarn_cluster_s.conf", "[global]\nMSKey = s1\n");
    write_file(folder + "/tarn_service_s.conf", "[m]\n" + far + "[s1]\n" + far + "[s2]\n" + far);
    write_file(folder + "/tarn_service_m.conf", "[s1]\nAddress = " + far_address + "\n");
  }
  write_file("/etc/config/smb.conf", "[a]\ntarn = yes\nread list = r\npath = /a\n");
  write_file("/etc/config/Gavrix.conf",
             "[System]\nServer Name = n\nVersion = 1\nWeb Access Port = 1\n[Stunnel]\nEnable = 0\n");
  write_file("/etc/config/usr_quota.conf", "User Enable = TRUE\nUser Size = 1\n");
}

void be_a_slave(World &) {
  be_among_members("/var/zopel/tarn_cluster_s.enable");
}

void be_the_master(World &) {
  be_among_members("/var/zopel/tarn_cluster_m.enable");
}

// The code that a handler answers; the answer is handed out when it is 0.
int code_of(char *answer, World &w) {
  int code = -ENOMEM;
  if (answer == nullptr) return code;
  if (sscanf(answer, "{ \"return\": %d }", &code) == 1 && code == 0) {
    w.text = answer;
  } else {
    free(answer);
  }
  return code;
}

// What fails may be answered with many a code, or be passed over and make no difference. The clock goes on with each
// look at it: a lock that could not be given back is soon no longer waited for.
Scenario among_members(std::string function, std::string situation, void (*prepare)(World &),
                       std::function<int(World &)> call, std::string result) {
  const auto call_in_haste = [call](World &w) {
    Virtual_Clock clock(1'800'000'000'000);
    clock.on_read([&clock] { clock.advance(400); });
    return call(w);
  };
  Scenario made = in_memory(function, prepare, call_in_haste, result);
  made.situation = situation;
  made.out_of_memory = {any_error};
  made.answer = any_error;
  return made;
}

Scenario handler(std::string function, std::string situation, void (*prepare)(World &),
                 char *(*handle)(const char *argument), const std::string &argument) {
  Scenario made = among_members(
      function, situation, prepare, [=, &argument](World &w) { return code_of(handle(argument.c_str()), w); },
      R"({ "return": 0 })");
  made.parses = argument;
  return made;
}

}  // namespace

std::vector<Scenario> commands() {
  return {
      in_memory(
          "Tarn_Cluster_Send_File", stand_in_for_the_platform,
          [](World &w) { return Tarn_Cluster_Send_File(0, "s1", "/here", "/there", "progress", &w.text); }, "reply"),
      in_memory(
          "Tarn_Cluster_Recv_File", stand_in_for_the_platform,
          [](World &w) { return Tarn_Cluster_Recv_File(1, "0", "/there", "/here", nullptr, &w.text); }, "reply"),
      with(in_memory(
               "Parse_Cluster_Cmd_Status", nullptr,
               [](World &w) {
                 int parsed = 0;
                 const int status = Parse_Cluster_Cmd_Status(json_reply.c_str(), &parsed);
                 return w.number = parsed, status;
               },
               "7"),
           [](Scenario &s) { s.parses = json_reply; }),
      with(in_memory(
               "Parse_Result_Path", nullptr,
               [](World &w) { return Parse_Result_Path(json_reply.c_str(), 0, "s1", &w.text); }, "/p"),
           [](Scenario &s) { s.parses = json_reply; }),
      reader(
          "Polling_Result", "text", [](World &w) { return Polling_Result(w.path(), 1); }, 0, ""),
      reader(
          "Polling_Int_Result", "1234",
          [](World &w) {
            int value = 0;
            const int status = Polling_Int_Result(w.path(), &value);
            return w.number = value, status;
          },
          0, "1234"),
      in_memory(
          "System_Log_Append", stand_in_for_the_platform,
          [](World &) { return System_Log_Append(0, "us\"er", "a %s", "message"); }, ""),
      in_memory(
          "Tarn_Cluster_Test", stand_in_for_the_platform,
          [](World &w) { return Tarn_Cluster_Test(0, "s1", "hello", &w.text); }, "reply"),
      with(in_memory(
               "Tarn_Cluster_Test_Cb", nullptr,
               [](World &w) {
                 w.text = Tarn_Cluster_Test_Cb(json_argument.c_str());
                 return w.text != nullptr ? 0 : -ENOMEM;
               },
               R"({ "return": 0, "received": "hello" })"),
           [](Scenario &s) { s.parses = json_argument; }),
      among_members(
          "Tarn_Cluster_Add_Slave", "", be_the_master,
          [](World &w) { return Tarn_Cluster_Add_Slave(far_address.c_str(), 0, nullptr, "password", &w.text); }, ""),
      among_members(
          "Tarn_Cluster_Remove_Slave", "", be_the_master,
          [](World &w) { return Tarn_Cluster_Remove_Slave("s1", &w.text); }, ""),
      among_members(
          "Tarn_Cluster_Update_Network_Info", "", be_a_slave,
          [](World &w) { return Tarn_Cluster_Update_Network_Info("0", &w.text); }, ""),
      among_members(
          "Tarn_Cluster_Send_Share_List", "", be_a_slave,
          [](World &w) { return Tarn_Cluster_Send_Share_List("0", &w.text); }, ""),
      handler("Tarn_Cluster_Send_Share_List_Cb", "on a slave", be_a_slave, Tarn_Cluster_Send_Share_List_Cb,
              shares_argument),
      handler("Tarn_Cluster_Send_Share_List_Cb", "on the master", be_the_master, Tarn_Cluster_Send_Share_List_Cb,
              shares_argument),
      among_members(
          "Tarn_Cluster_Send_Slave_Info", "", be_a_slave,
          [](World &w) { return Tarn_Cluster_Send_Slave_Info("0", &w.text); }, ""),
      handler("Tarn_Cluster_Send_Slave_Info_Cb", "on the master", be_the_master, Tarn_Cluster_Send_Slave_Info_Cb,
              info_argument),
      handler("Tarn_Cluster_Send_Slave_Info_Cb", "of one that leaves", be_a_slave, Tarn_Cluster_Send_Slave_Info_Cb,
              leaving_argument),
      among_members(
          "Tarn_Cluster_Update_Bind_Addr", "of a slave", be_the_master,
          [](World &w) { return Tarn_Cluster_Update_Bind_Addr("s2", own_address.c_str(), &w.text); }, ""),
      // A scan that finds no interface, or a read that finds no member, is said and ends it with the 0 that it answers.
      // What goes wrong with a slave leaves the list of answers.
      with(among_members(
               "Tarn_Cluster_Update_Bind_Addr", "of the master", be_the_master,
               [](World &w) { return Tarn_Cluster_Update_Bind_Addr("s1", own_address.c_str(), &w.text); },
               R"({ "result_list": [ ] })"),
           [](Scenario &s) {
             s.lesser_results = {""};
             s.may_be_cut = true;
           }),
      handler("Tarn_Cluster_Update_Bind_Addr_Cb", "of its own", be_a_slave, Tarn_Cluster_Update_Bind_Addr_Cb,
              own_address_argument),
      handler("Tarn_Cluster_Update_Bind_Addr_Cb", "of the master", be_a_slave, Tarn_Cluster_Update_Bind_Addr_Cb,
              masters_address_argument),
  };
}

}  // namespace tarn::test
