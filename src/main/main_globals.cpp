#include "main/main_globals.h"

volatile std::sig_atomic_t reload_signalled = 0;
uint64_t watch_next_check = 0;
int watch_force = 0;
int32_t watch_confirmations = 0;
uint64_t wall_check_at = 0;
