// Texts of a local time that is there already: breaking a time down is dear, and a log line shows two texts of one.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

// As Change_Date_To_String_By_Format_Ex and Change_Time_To_String_By_Format_Ex.
void write_date(const struct tm &local, char *buffer, int size, int date_format);
void write_time(const struct tm &local, char *buffer, int size, int mode, int hour_system);

}  // namespace tarn
