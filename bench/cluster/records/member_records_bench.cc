// The cluster's member records: there is no peer, the figures show how cost grows with the number of members.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "bench/support/sample_files.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

// The sample text is that of member records.
void members_read(benchmark::State &state, int members) {
  const Sample_File file(memory_folder, "members.conf", conf_text(members));
  for (auto _ : state) {
    Tarn_Serv_Conf *list = nullptr;
    if (Tarn_Cluster_Serv_Conf_Read(file.path(), &list) != 0) state.SkipWithError("the members were not read");
    Release_Serv_List_Conf(list);
  }
}

void member_set(benchmark::State &state, int members) {
  constexpr unsigned status_bit = 0x40;
  const Sample_File file(memory_folder, "members.conf", conf_text(members));
  const std::string name = section_name(members / 2);
  Tarn_Serv_Conf record;
  Tarn_Cluster_Serv_Conf_Preset(&record);
  for (auto _ : state) {
    record.fields = status_bit;
    record.Status = 1 - record.Status;
    if (Tarn_Cluster_Service_Set(file.path(), name.c_str(), &record) != 0)
      state.SkipWithError("the member was not set");
  }
}

BENCHMARK_CAPTURE(members_read, 64, 64);
BENCHMARK_CAPTURE(members_read, 640, 640);
BENCHMARK_CAPTURE(member_set, 64, 64);
BENCHMARK_CAPTURE(member_set, 640, 640);

}  // namespace
}  // namespace tarn::bench
