#include "frames/reader.h"

my_AVIVideoRandomReader::my_AVIVideoRandomReader() = default;
my_AVIVideoRandomReader::~my_AVIVideoRandomReader() = default;
