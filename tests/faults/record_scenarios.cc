// The records of members and of shares.
#include <cerrno>
#include <cstring>
#include <utility>

#include "tests/conf/chains.h"
#include "tests/faults/families.h"

namespace tarn::test {
namespace {

const std::string members =
    "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n"
    "[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
const std::string members_shown = "m1 193 1 10.0.0.1;m2 193 2 10.0.0.2;";
const std::string members_made = "[m1]Address=10.0.0.1;Status=1;[m2]Address=10.0.0.2;Status=2;";
const std::string members_written =
    "[m1]\nAddress = 10.0.0.1\nStatus = 1\n\n"
    "[m2]\nAddress = 10.0.0.2\nStatus = 2\n\n";

void give_record(World &w) {
  strcpy(w.given_record.Name, "m1");
  w.given_record.Status = 5;
  w.given_record.fields = TARN_SERV_STATUS;
}
void give_list(World &w) {
  w.sections = nullptr;
  char text[] = "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
  Parse_Conf_Cache(text, &w.given_sections);
  Tarn_Cluster_All_Serv_From_Sect_Node(w.given_sections, &w.records);
}

const std::string shares =
    "[s1]\nread list = r1\npath = /share/s1\n\n"
    "[s2]\nwrite list = w2\ninvalid users = i2\n\n";
const std::string shares_shown = "s1 18|r1|||/share/s1;s2 12||w2|i2|;";
const std::string shares_made = "[s1]read list=r1;path=/share/s1;[s2]write list=w2;invalid users=i2;";

void give_share(World &w) {
  static char users[] = "new users";
  strcpy(w.given_share.Name, "s1");
  w.given_share.invalid_users = users;
  w.given_share.fields = TARN_SHARE_INVALID_USERS;
}
void give_share_sections(World &w) {
  std::string text = shares;
  Parse_Conf_Cache(text.data(), &w.given_sections);
}
void give_shares(World &w) {
  give_share_sections(w);
  Tarn_Cluster_All_Share_From_Sect_Node(w.given_sections, &w.shares);
}
void give_share_section(World &w) {
  w.sections = make_sections({{"s1", {{"invalid users", "i"}, {"path", "p"}}}}).release();
}

}  // namespace

std::vector<Scenario> member_records() {
  const std::string updated = "[m1]\nStatus = 5\nAddress = 10.0.0.1\n\n[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
  const std::string one_left = "[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
  const std::string other = "[old]\nStatus = 9\n\n";
  const auto set = [](World &w) { return Tarn_Cluster_Service_Set(w.path(), "m1", &w.given_record); };
  const auto give_member_section = [](World &w) { w.sections = make_sections({{"m1", {{"Status", "1"}}}}).release(); };
  const auto hands_out_records = [](Scenario &s) { s.result = members_shown; };
  return {
      with(in_memory(
               "Tarn_Cluster_All_Serv_From_Sect_Node",
               [](World &w) {
                 give_list(w);
                 Release_Serv_List_Conf(std::exchange(w.records, nullptr));
               },
               [](World &w) { return Tarn_Cluster_All_Serv_From_Sect_Node(w.given_sections, &w.records); },
               members_shown),
           [](Scenario &s) { s.may_be_cut = true; }),
      with(in_memory(
               "Tarn_Cluster_All_Serv_To_Sect_Node", give_list,
               [](World &w) { return Tarn_Cluster_All_Serv_To_Sect_Node(w.records, &w.sections); },
               members_made + members_shown),
           [](Scenario &s) { s.may_be_cut = true; }),
      in_memory(
          "Tarn_Cluster_Serv_To_Sect_Node",
          [=](World &w) { give_member_section(w), give_record(w), w.given_record.Status = 55; },
          [](World &w) { return Tarn_Cluster_Serv_To_Sect_Node(&w.given_record, w.sections); }, "[m1]Status=55;"),
      in_memory(
          "Tarn_Service_From_Sect_Node", give_member_section,
          [](World &w) { return Tarn_Service_From_Sect_Node(w.sections, &w.records); }, "[m1]Status=1;m1 64 1 ;"),
      with(reader(
               "Tarn_Cluster_Serv_Conf_Read", members,
               [](World &w) { return Tarn_Cluster_Serv_Conf_Read(w.path(), &w.records); }, 0, members_shown),
           [](Scenario &s) {
             s.may_be_cut = true;
             s.answers = chain_answers;
           }),
      with(locked_writer("Tarn_Cluster_Serv_Conf_Write", "", other, members_written, give_list,
                         [](World &w) { return Tarn_Cluster_Serv_Conf_Write(w.path(), w.records); }),
           hands_out_records),
      with(writer("Tarn_Cluster_Serv_Conf_Write_NoLock", other, members_written, give_list,
                  [](World &w) { return Tarn_Cluster_Serv_Conf_Write_NoLock(w.path(), w.records); }),
           hands_out_records),
      with(reader(
               "Tarn_Cluster_Service_Get", members,
               [](World &w) { return Tarn_Cluster_Service_Get(w.path(), "m1", &w.records); }, 0, "m1 192 1 10.0.0.1;"),
           [](Scenario &s) {
             s.answers = chain_answers;
             s.out_of_memory = {-ENOMEM, -ENOANO};
           }),
      locked_writer("Tarn_Cluster_Service_Set", "", members, updated, give_record, set),
      locked_writer("Tarn_Cluster_Service_Set", "in a missing file", {}, "[m1]\nStatus = 5\n\n", give_record, set),
      locked_writer("Tarn_Cluster_Service_Set", "deleted", members, one_left, nullptr,
                    [](World &w) { return Tarn_Cluster_Service_Set(w.path(), "m1", nullptr); }),
      writer("Tarn_Cluster_Service_Set_NoLock", members, updated, give_record,
             [](World &w) { return Tarn_Cluster_Service_Set_NoLock(w.path(), "m1", &w.given_record); }),
  };
}

std::vector<Scenario> share_records() {
  const std::string updated =
      "[s1]\nread list = r1\npath = /share/s1\ninvalid users = new users\n\n"
      "[s2]\nwrite list = w2\ninvalid users = i2\n\n";
  const std::string added = "[s1]\ninvalid users = new users\n\n";
  const std::string one_left = "[s2]\nwrite list = w2\ninvalid users = i2\n\n";
  const std::string other = "[old]\npath = x\n\n";
  const auto set = [](World &w) { return Tarn_Cluster_Share_Set(w.path(), "s1", &w.given_share); };
  const auto may_be_cut = [](Scenario &s) { s.may_be_cut = true; };
  // Unlike the members' readers these take the lock.
  const auto locked_reader = [](std::string function, std::function<int(World &)> call, std::string result) {
    return with(reader(function, shares, call, 0, result), [](Scenario &s) {
      s.answers = chain_answers;
      s.without_lock = -ENOLCK;
    });
  };
  return {
      with(in_memory(
               "Tarn_Cluster_All_Share_From_Sect_Node", give_share_sections,
               [](World &w) { return Tarn_Cluster_All_Share_From_Sect_Node(w.given_sections, &w.shares); },
               shares_shown),
           may_be_cut),
      with(in_memory(
               "Tarn_Cluster_All_Share_To_Sect_Node", give_shares,
               [](World &w) { return Tarn_Cluster_All_Share_To_Sect_Node(w.shares, &w.sections); },
               shares_made + shares_shown),
           may_be_cut),
      in_memory(
          "Tarn_Cluster_Share_To_Sect_Node", [](World &w) { give_share_section(w), give_share(w); },
          [](World &w) { return Tarn_Cluster_Share_To_Sect_Node(&w.given_share, w.sections); },
          "[s1]invalid users=new users;path=p;"),
      in_memory(
          "Tarn_Share_From_Sect_Node", give_share_section,
          [](World &w) { return Tarn_Share_From_Sect_Node(w.sections, &w.shares); },
          "[s1]invalid users=i;path=p;s1 24|||i|p;"),
      with(locked_reader(
               "Tarn_Cluster_Share_Conf_Read",
               [](World &w) { return Tarn_Cluster_Share_Conf_Read(w.path(), &w.shares); }, shares_shown),
           may_be_cut),
      with(locked_reader(
               "Tarn_Cluster_Share_Get", [](World &w) { return Tarn_Cluster_Share_Get(w.path(), "s2", &w.shares); },
               "s2 12||w2|i2|;"),
           [](Scenario &s) {
             s.out_of_memory = {-ENOMEM, -ENOANO};
           }),
      with(locked_writer("Tarn_Cluster_Share_Conf_Write", "", other, shares, give_shares,
                         [](World &w) { return Tarn_Cluster_Share_Conf_Write(w.path(), w.shares); }),
           [](Scenario &s) { s.result = shares_shown; }),
      locked_writer("Tarn_Cluster_Share_Set", "", shares, updated, give_share, set),
      locked_writer("Tarn_Cluster_Share_Set", "in a missing file", {}, added, give_share, set),
      locked_writer("Tarn_Cluster_Share_Set", "deleted", shares, one_left, nullptr,
                    [](World &w) { return Tarn_Cluster_Share_Set(w.path(), "s1", nullptr); }),
  };
}

}  // namespace tarn::test
