// The cluster's share records: how the cost of storing a member's list grows with it.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/support/sample_files.h"
#include "foundation/owners.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

using Shares = std::unique_ptr<Tarn_Share_Conf, Give_Back<Release_Share_List_Conf>>;

Shares make_shares(int count) {
  Tarn_Share_Conf *first = nullptr;
  for (int i = count; i-- > 0;) {
    auto *share = static_cast<Tarn_Share_Conf *>(malloc(sizeof(Tarn_Share_Conf)));
    Tarn_Cluster_Share_List_Preset(share);
    share->next = first;
    share->fields = TARN_SHARE_ALL;
    snprintf(share->Name, sizeof share->Name, "share%05d", i);
    snprintf(share->path, sizeof share->path, "/share/VOLUME_DATA/share%05d", i);
    share->read_list = strdup("@everyone,anna");
    share->write_list = strdup("@administrators,bert");
    share->invalid_users = strdup("guest");
    first = share;
  }
  return Shares(first);
}

void shares_write(benchmark::State &state, int count) {
  const Sample_File file(memory_folder, "shares.conf");
  const Shares shares = make_shares(count);
  for (auto _ : state) {
    if (Tarn_Cluster_Share_Conf_Write(file.path(), shares.get()) != 0) state.SkipWithError("the list was not written");
  }
}

void shares_read(benchmark::State &state, int count) {
  const Sample_File file(memory_folder, "shares.conf");
  Tarn_Cluster_Share_Conf_Write(file.path(), make_shares(count).get());
  for (auto _ : state) {
    Tarn_Share_Conf *list = nullptr;
    if (Tarn_Cluster_Share_Conf_Read(file.path(), &list) != 0) state.SkipWithError("the list was not read");
    Release_Share_List_Conf(list);
  }
}

BENCHMARK_CAPTURE(shares_write, 1000, 1000);
BENCHMARK_CAPTURE(shares_write, 10000, 10000);
BENCHMARK_CAPTURE(shares_read, 1000, 1000);
BENCHMARK_CAPTURE(shares_read, 10000, 10000);

}  // namespace
}  // namespace tarn::bench
