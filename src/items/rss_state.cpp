// The feed's process-wide state, shared by the loader and the downloader.
#include "items/scroll_settings.h"

std::string feed_url;
int64_t feed_interval = 900000000;
uint64_t feed_last_fetch = 0;
int feed_changed = 0;
pid_t download_pid = -1;
uint64_t download_deadline = 0;
