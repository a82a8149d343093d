// Backup settings, background tasks, discovery and the cluster's backup.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include "tests/cluster/ops/platform_doubles.h"
#include "tests/faults/families.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

// ------------------------------------------------------------------------------------------------------------ settings

const std::string settings = "[global]\nStatus = 1\nAddress = 10.0.0.1\n\n";
const std::string new_settings = "[global]\nStatus = 2\n\n";

// What calls work on and hand out; a call must not allocate for itself.
Tarn_Backup_Conf given_settings;
Backgrnd_Task_Conf given_task;
char shown[256];

void give_settings(World &) {
  Tarn_Backup_Conf_Preset(&given_settings);
  given_settings.Status = 2;
  given_settings.fields = TARN_BACKUP_STATUS;
}

int read_settings(World &w) {
  Tarn_Backup_Conf read;
  Tarn_Backup_Conf_Preset(&read);
  const int status = Tarn_Backup_Conf_Read(w.path(), &read);
  // A section for which no memory is left counts as one that is not there.
  if (status != 0 || read.fields == 0) return status;
  snprintf(shown, sizeof shown, "%u %d %s", read.fields, read.Status, read.Address);
  w.found = shown;
  return status;
}

// --------------------------------------------------------------------------------------------------------------- tasks

const std::string tasks = "[m1_b]\nstatus = 1\nprogress = 10.000000\n\n[m2_b]\nstatus = 2\nprogress = 10.000000\n\n";
const std::string tasks_shown = "m1_b 3 1;m2_b 3 2;";

void show(const Backgrnd_Task_Conf *list, World &w) {
  shown[0] = '\0';
  for (; list != nullptr; list = list->next) {
    const size_t used = strlen(shown);
    snprintf(shown + used, sizeof shown - used, "%s %u %d;", list->task_id, list->fields, list->status);
  }
  w.found = shown;
}

// Shows and gives back what a call hands out.
template <typename Call>
int show_tasks_of(World &w, Call call) {
  Backgrnd_Task_Conf *list = nullptr;
  const int status = call(&list);
  show(list, w);
  Release_Backgrnd_Task_Conf(list);
  return status;
}

void give_task_sections(World &w) {
  std::string text = tasks;
  Parse_Conf_Cache(text.data(), &w.given_sections);
}
void give_task(World &) {
  Backgrnd_Task_Conf_Preset(&given_task);
  given_task.status = 5;
  strcpy(given_task.task_id, "m1_b");
  given_task.fields = TARN_TASK_STATUS;
}
void give_task_section(World &w) {
  std::string text = "[m1_b]\nother = 1\n";
  Parse_Conf_Cache(text.data(), &w.sections);
  give_task(w);
}

// ------------------------------------------------------------------------------------- functions on files of their own

const std::string member_tasks = "/tmp/druvosrv/tarn_backup.conf";
const std::string cluster_folder = "/mnt/tarncluster/config";
const std::string kept_folder = "/etc/config/tarn_cluster";

void give_member_task(World &) {
  std::filesystem::create_directories("/tmp/druvosrv");
  write_file(member_tasks, "[s1_b]\nstatus = 1\nprogress = 1.000000\n\n");
}

void be_in_a_cluster(World &w) {
  static std::optional<Platform_Doubles> doubles;
  doubles.emplace();
  doubles->answer(0, "reply");
  give_member_task(w);
  for (const std::string &folder : {cluster_folder, kept_folder}) {
    std::filesystem::create_directories(folder);
    write_file(folder + "/tarn_service_s.conf", "[s1]\nStatus = 1\n\n");
  }
  write_file(cluster_folder + "/tarn_cluster_s.conf", "[global]\nMSKey = s1\n");
}

void install(const std::string &program, const std::string &script) {
  write_file(program, script);
  chmod(program.c_str(), 0755);
}

// What fails may be answered with many a code. The clock goes on with each look at it: a lock that could not be given
// back is soon no longer waited for.
Scenario in_haste(std::string function, void (*prepare)(World &), std::function<int(World &)> call,
                  std::string result) {
  const auto call_in_haste = [call](World &w) {
    Virtual_Clock clock(1'800'000'000'000);
    clock.on_read([&clock] { clock.advance(400); });
    return call(w);
  };
  return with(in_memory(function, prepare, call_in_haste, result), [](Scenario &s) {
    s.out_of_memory = {any_error};
    s.answer = any_error;
  });
}

// The code that a handler answers; -ENOMEM for none.
int code_of(char *answer) {
  int code = -ENOMEM;
  if (answer != nullptr) sscanf(answer, "{ \"return\": %d }", &code);
  free(answer);
  return code;
}

const std::string anothers_backup = R"({"slave_id":"s2","bak_path":"/b"})";
const std::string progress_argument = R"({"slave_id":"s1","progress":100})";

}  // namespace

std::vector<Scenario> backup_settings() {
  return {
      in_memory(
          "Tarn_Backup_Conf_To_Sect_Node",
          [](World &w) {
            give_settings(w);
            Create_Sect_Node(&w.sections, "global");
          },
          [](World &w) { return Tarn_Backup_Conf_To_Sect_Node(&given_settings, &w.sections); }, "[global]Status=2;"),
      with(reader("Tarn_Backup_Conf_Read", settings, read_settings, 0, "130 1 10.0.0.1"),
           [](Scenario &s) {
             s.answers = chain_answers;
             s.without_lock = -ENOLCK;
             s.may_be_cut = true;
           }),
      locked_writer("Tarn_Backup_Conf_Write", "", settings, new_settings, give_settings,
                    [](World &w) { return Tarn_Backup_Conf_Write(w.path(), &given_settings); }),
      locked_writer("Tarn_Backup_Conf_Write", "in a missing file", {}, new_settings, give_settings,
                    [](World &w) { return Tarn_Backup_Conf_Write(w.path(), &given_settings); }),
  };
}

std::vector<Scenario> background_tasks() {
  const std::string updated =
      "[m1_b]\nstatus = 5\nprogress = 10.000000\n\n[m2_b]\nstatus = 2\nprogress = 10.000000\n\n";
  const std::string one_left = "[m2_b]\nstatus = 2\nprogress = 10.000000\n\n";
  const auto locked_reader = [](std::string function, std::function<int(World &)> call, std::string result) {
    return with(reader(function, tasks, call, 0, result), [](Scenario &s) {
      s.answers = chain_answers;
      s.without_lock = -ENOLCK;
    });
  };
  const auto may_be_cut = [](Scenario &s) { s.may_be_cut = true; };
  const auto set = [](World &w) { return Backgrnd_Task_Set(w.path(), "m1_b", &given_task); };
  return {
      with(in_memory(
               "Backgrnd_Task_All_Task_From_Sect_Node", give_task_sections,
               [](World &w) {
                 return show_tasks_of(w, [&](Backgrnd_Task_Conf **list) {
                   return Backgrnd_Task_All_Task_From_Sect_Node(w.given_sections, list);
                 });
               },
               tasks_shown),
           may_be_cut),
      with(in_memory(
               "Backgrnd_Task_All_Task_To_Sect_Node", give_task,
               [](World &w) { return Backgrnd_Task_All_Task_To_Sect_Node(&given_task, &w.sections); },
               "[m1_b]status=5;"),
           may_be_cut),
      in_memory(
          "Backgrnd_Task_Task_To_Sect_Node", give_task_section,
          [](World &w) { return Backgrnd_Task_Task_To_Sect_Node(&given_task, w.sections); }, "[m1_b]other=1;status=5;"),
      in_memory(
          "Backgrnd_Task_From_Sect_Node", give_task_sections,
          [](World &w) {
            return show_tasks_of(
                w, [&](Backgrnd_Task_Conf **task) { return Backgrnd_Task_From_Sect_Node(w.given_sections, task); });
          },
          " 3 1;"),
      with(locked_reader(
               "Backgrnd_Task_Conf_Read",
               [](World &w) {
                 return show_tasks_of(
                     w, [&](Backgrnd_Task_Conf **list) { return Backgrnd_Task_Conf_Read(w.path(), list); });
               },
               tasks_shown),
           may_be_cut),
      with(locked_reader(
               "Backgrnd_Task_Get",
               [](World &w) {
                 return show_tasks_of(
                     w, [&](Backgrnd_Task_Conf **task) { return Backgrnd_Task_Get(w.path(), "m2_b", task); });
               },
               " 3 2;"),
           [](Scenario &s) {
             s.out_of_memory = {-ENOMEM, -ENOANO};
             s.may_be_cut = true;
           }),
      locked_writer("Backgrnd_Task_Conf_Write", "", tasks, "[m1_b]\nstatus = 5\n\n", give_task,
                    [](World &w) { return Backgrnd_Task_Conf_Write(w.path(), &given_task); }),
      locked_writer("Backgrnd_Task_Set", "", tasks, updated, give_task, set),
      locked_writer("Backgrnd_Task_Set", "in a missing file", {}, "[m1_b]\nstatus = 5\n\n", give_task, set),
      locked_writer("Backgrnd_Task_Set", "deleted", tasks, one_left, nullptr,
                    [](World &w) { return Backgrnd_Task_Set(w.path(), "m1_b", nullptr); }),
      in_haste(
          "Set_Backgrnd_Task_Progress", give_member_task,
          [](World &) { return Set_Backgrnd_Task_Progress("s1", 1, 50); }, ""),
      in_haste(
          "Update_Backgrnd_Task_Status", give_member_task,
          [](World &) { return Update_Backgrnd_Task_Status("s1", 1, 0); }, ""),
      // It answers -1 whatever comes of it. An answer would be parsed, and the JSON library crashes when memory ends
      // there; so there is none.
      with(in_haste(
               "backup_restore_set_remote_bg_task", [](World &) { install("/sbin/curl", "#!/bin/sh\n"); },
               [](World &) { return backup_restore_set_remote_bg_task("h", "s", 80, 1, 1, 1, nullptr, nullptr); }, ""),
           [](Scenario &s) {
             s.success = -1;
             s.silent = true;
           }),
  };
}

std::vector<Scenario> discovery() {
  return {
      with(in_haste(
               "Tarn_Cluster_Browse_Slave",
               [](World &) {
                 install("/usr/sbin/avahi-browse",
                         "#!/bin/sh\ncat <<'TEXT'\nhostname = [nas1.local]\naddress = [10.77.9.9]\nport = [1]\n"
                         "txt = [\"webport=2,sslwebport=3,master=0\"]\nTEXT\n");
               },
               [](World &w) {
                 Tarn_Browse_Serv *list = nullptr;
                 const int status = Tarn_Cluster_Browse_Slave(&list);
                 if (list != nullptr) snprintf(w.buffer, sizeof w.buffer, "%s", list->hostname);
                 Free_Browse_Serv(list);
                 return status;
               },
               "nas1/0"),
           [](Scenario &s) {
             s.success = 1;
             s.answers = {{Call::read, Place::other, 0}};  // the browser's output counts as ended
             s.may_be_cut = true;  // the records are there although the own addresses could not be read
           }),
  };
}

std::vector<Scenario> backups() {
  return {
      in_haste(
          "Tarn_Cluster_Backup", be_in_a_cluster, [](World &w) { return Tarn_Cluster_Backup("s1", "/b", &w.text); },
          "reply"),
      in_haste(
          "Tarn_Cluster_Backup_Set_Pack_Prg", be_in_a_cluster,
          [](World &w) { return Tarn_Cluster_Backup_Set_Pack_Prg("0", 50, &w.text); }, "reply"),
      // A worker would outlive the call.
      with(in_haste(
               "Tarn_Cluster_Backup_Cb", be_in_a_cluster,
               [](World &) { return code_of(Tarn_Cluster_Backup_Cb(anothers_backup.c_str())); }, ""),
           [](Scenario &s) {
             s.situation = "of another";
             s.success = -EINVAL;
             s.parses = anothers_backup;
           }),
      with(in_haste(
               "Tarn_Cluster_Backup_Set_Pack_Prg_Cb", be_in_a_cluster,
               [](World &) { return code_of(Tarn_Cluster_Backup_Set_Pack_Prg_Cb(progress_argument.c_str())); }, ""),
           [](Scenario &s) { s.parses = progress_argument; }),
  };
}

}  // namespace tarn::test
