// The item types the program serves, one row each: the MIME type, the first
// line that identifies a file of the type, the loader that reads the file
// into the scroll settings, and whether start-up runs it.
//
// Start-up's type check and first load (main/), identification by the first
// line (main/identify.cpp), the serve loop's reload after the item file
// changed, the loader's choice of file format and the in-process render
// session all read this table: a new item type is a loader and one row.
#pragma once

#include <cstddef>
#include <span>
#include <string>

struct item_type {
    const char* mime_type;
    // The first line of a file of this type, followed directly by a line feed
    // or a carriage return; null when the content never identifies the type
    // (it must come with the item, as for plain text).
    const char* header;
    // Reads the item file into the scroll settings and the text.
    void (*load)();
    // False: start-up runs no loader, and the text first arrives through the
    // item-file watch, about two seconds after serving starts.
    bool loaded_at_start;
    // The file's "#-key=value" lines are settings and the other lines text
    // (the scroll-text format); otherwise the whole file is the text.
    bool settings_lines;
};

// Every row, in the order identification tries the headers.
std::span<const item_type> item_types();

// The row of `mime`, compared ignoring case: what start-up admits, and the
// file format load_message reads. Null when unknown.
const item_type* find_item_type(const std::string& mime);

// The row of `mime`, compared exactly: which loader runs. A type admitted in
// another case gets no loader at start-up, and load_message on a reload.
const item_type* find_item_type_exactly(const std::string& mime);

// The type whose header begins `window` (`size` bytes of the file's start),
// or null.
const item_type* item_type_of_first_line(const unsigned char* window, size_t size);

// Start-up's first load of the text of t4mi_file_type's item: its exact row's
// loader when that row loads at start; nothing otherwise.
void load_item_text_at_start();

// Loads the text again after the item file changed, and for an in-process
// render: the exact row's loader, load_message for any other type.
void reload_item_text();

// The loader of the text types: load_item_file (items/scroll_settings.h) in
// the format of t4mi_file_type, compared ignoring case; a type without a row
// is read as plain text.
void load_message();
