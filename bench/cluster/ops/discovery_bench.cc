// Appliances that announce themselves: how the cost of reading what the browser prints grows with their number.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "bench/support/sample_files.h"
#include "include/tarncluster_util.h"
#include "tests/support/child_process.h"

namespace tarn::bench {
namespace {

// Three resolved lines each beside those that are passed over, as the browser prints them.
std::string announcements(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    char lines[512];
    snprintf(lines, sizeof lines,
             "+ enp0s3 IPv4 nas%05d _tarncluster._tcp local\n= enp0s3 IPv4 nas%05d _tarncluster._tcp local\n"
             "   hostname = [nas%05d.local]\n   address = [10.%d.%d.9]\n   port = [8888]\n"
             "   txt = [\"webport=8080,sslwebport=443,master=0\"]\n",
             i, i, i, i / 256 % 256, i % 256);
    text += lines;
  }
  return text;
}

// The parsing's processor time; the browser is a program that only prints.
void browse(benchmark::State &state, int count) {
  if (!test::on_a_throw_away_root()) {
    state.SkipWithError("the browser would be replaced on this machine");
    return;
  }
  const Sample_File output(memory_folder, "announcements", announcements(count));
  const Sample_File browser("/usr/sbin", "avahi-browse", std::string("#!/bin/sh\nexec cat ") + output.path() + "\n");
  chmod(browser.path(), 0755);
  for (auto _ : state) {
    Tarn_Browse_Serv *list = nullptr;
    if (Tarn_Cluster_Browse_Slave(&list) != count) state.SkipWithError("not all were found");
    Free_Browse_Serv(list);
  }
}

BENCHMARK_CAPTURE(browse, 1000, 1000);
BENCHMARK_CAPTURE(browse, 10000, 10000);

}  // namespace
}  // namespace tarn::bench
