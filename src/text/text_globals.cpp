#include "text/text_globals.h"

char field_result[FIELD_RESULT_SIZE];
std::map<std::string, json_data_source> json_sources;
uint64_t json_sources_last_check = 0;
