// Answers of the record functions that no file brings about. The tests that use it are linked with
// --wrap=Tarn_Cluster_Service_Get and --wrap=Tarn_Cluster_Serv_Conf_Read.
#pragma once

namespace tarn::test {

// While it lives, Tarn_Cluster_Service_Get answers this, and hands out no record.
class Get_Answer {
 public:
  explicit Get_Answer(int status);
  ~Get_Answer();
  Get_Answer(const Get_Answer &) = delete;
  Get_Answer &operator=(const Get_Answer &) = delete;
};

// The same for Tarn_Cluster_Serv_Conf_Read.
class Read_Answer {
 public:
  explicit Read_Answer(int status);
  ~Read_Answer();
  Read_Answer(const Read_Answer &) = delete;
  Read_Answer &operator=(const Read_Answer &) = delete;
};

}  // namespace tarn::test
