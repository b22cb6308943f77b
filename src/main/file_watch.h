// The watch on the item file: notices that the file on disk changed, waits
// until nobody else has it open (two checks, 2 s apart), reopens it and tells
// the serve loop to reload.
#pragma once

// True when the item must be reloaded now. Polled once per loop turn; looks
// at the disk at most every 2 s. A SIGHUP received since the last call arms
// the watch first, as "reload" does. State lives in main/main_globals.h.
bool item_file_changed();

// Arms the watch as the "reload" command does: the next call reports a change.
void arm_item_file_reload();
