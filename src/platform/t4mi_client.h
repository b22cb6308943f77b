// The client library is public: its header is include/t4mi/client.h.
#pragma once

#include <t4mi/client.h>
