// The item's metadata record and the open-item record.
//
// The metadata record lives as "metadata.json" in the item's metadata
// directory, written by write-then-rename so that a reader never sees half a
// record. It is read back at the next start, so a type given once (or found
// by identification once) is known next time.
#pragma once

#include <cstdint>
#include <string>

// The open item: the item file and the directories the program works in.
struct t4mi_meta_record {
    int file_fd = -1;          // the item file, open for reading
    std::string dir_path;      // directory that holds the item file
    int dir_fd = -1;           // that directory, open
    std::string file_name;     // the item's name within dir_path
    std::string file_path;     // the path as given on the command line
    int meta_name_fd = -1;     // the metadata directory, open
};

struct metadata_v4_metadata_context {
    std::string path;          // full path of metadata.json
    std::string mime_type;
    std::string guid;          // 32 lower-case hex digits, empty when none yet
    int64_t video_streams = 0;
    int64_t duration = 0;      // in frames; 2147483647 means no end
    int64_t time_scale_num = 0;
    int64_t time_scale_den = 0;
    bool loaded = false;       // a record was read from disk at start-up
};

inline constexpr const char* T4MI_METADATA_FILE_NAME = "metadata.json";

// Reads metadata.json into `md` (md.path must be set). Returns 0 when a record
// was read, 1 when there is none or it is unreadable (md keeps its defaults).
int metadata_v4_metadata_context_read(metadata_v4_metadata_context* md);

// Writes the record atomically. The trailing arguments are kept for the
// calling convention of the start-up code (flags, reserved). 0 on success.
int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context* md, t4mi_meta_record* meta,
                                                       int flags, void* reserved);

// Releases what the record holds of the file (nothing stays open between
// writes; kept so that the start-up sequence reads as the record's lifetime).
void metadata_v4_metadata_close_file(metadata_v4_metadata_context* md);

// Gives the item a fresh random GUID if it has none. Returns 1 when it made
// one (the record must then be written), 0 otherwise.
int auto_generate_metadata_guid(metadata_v4_metadata_context* md);

// Copies the standard globals (streams, duration, time scale, type) into md.
void t4mi_standard_vars_to_metadata(metadata_v4_metadata_context* md);

// Closes and reopens the item file by its path, refreshing file_fd.
// 0 on success; on failure file_fd keeps the old descriptor.
int metadata_v4_context_open_the_file(t4mi_meta_record* meta);
void metadata_v4_context_close_the_file(t4mi_meta_record* meta);

// Logs the record's state on standard error ("* Metadata: ..." lines).
void t4mi_print_standard_metadata_state();
