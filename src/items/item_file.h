// Reading an item file whole.
#pragma once

// The largest item file that is read; the rest is ignored.
inline constexpr unsigned long ITEM_FILE_MAX_BYTES = 2097151;

// Reads fd from offset 0, at most ITEM_FILE_MAX_BYTES, into a static buffer
// and NUL-terminates it. A failed read counts as no bytes. The buffer is
// overwritten by the next call.
const char* read_item_file(int fd);
