// Parsing that tells more than the exported parsers can.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

// As Parse_Conf_Cache, and says whether memory ended at a section: then the chain is good, but not the whole file.
int parse_conf_text(char *text, Sect_Node **sections, bool *cut_short);

}  // namespace tarn
