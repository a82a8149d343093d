#include "tests/cluster/ops/record_answers.h"

#include <optional>

#include "include/tarncluster_util.h"

namespace {

std::optional<int> get_answer;
std::optional<int> read_answer;

}  // namespace

extern "C" {

int __real_Tarn_Cluster_Service_Get(const char *path, const char *name, Tarn_Serv_Conf **out);
int __wrap_Tarn_Cluster_Service_Get(const char *path, const char *name, Tarn_Serv_Conf **out) {
  if (!get_answer) return __real_Tarn_Cluster_Service_Get(path, name, out);
  *out = nullptr;
  return *get_answer;
}

int __real_Tarn_Cluster_Serv_Conf_Read(const char *path, Tarn_Serv_Conf **out);
int __wrap_Tarn_Cluster_Serv_Conf_Read(const char *path, Tarn_Serv_Conf **out) {
  return read_answer ? *read_answer : __real_Tarn_Cluster_Serv_Conf_Read(path, out);
}

}  // extern "C"

namespace tarn::test {

Get_Answer::Get_Answer(int status) {
  get_answer = status;
}

Get_Answer::~Get_Answer() {
  get_answer.reset();
}

Read_Answer::Read_Answer(int status) {
  read_answer = status;
}

Read_Answer::~Read_Answer() {
  read_answer.reset();
}

}  // namespace tarn::test
