// Turning a downloaded feed document into the item text.
//
// Used by the RSS loader; kept apart so that the document walk can be fed a
// buffer (fuzzing) or a hand-made document (tests) without an item file.
#pragma once

#include <string>

#include <libxml/tree.h>

// The feed buffer's capacity in bytes: at most RSS_FEED_MAX_BYTES of data and
// the NUL behind them.
inline constexpr int RSS_FEED_BUFFER_BYTES = 2097152;
inline constexpr int RSS_FEED_MAX_BYTES = RSS_FEED_BUFFER_BYTES - 1;

// Parses `capacity` bytes at `buffer` as XML and returns the item text of
// rss_text_from_document. The loader passes its buffer's whole capacity, not
// the number of bytes read (the byte after the data is NUL), on purpose.
std::string rss_text_from_buffer(const char* buffer, int capacity);

// The item text of a parsed feed: for each <item> of the first <channel> of
// the first <rss> (the root or a sibling after it), "title - description",
// or the one of them that is not empty after RSSInnerHTMLToText, items
// separated by byte 31. Element names are compared without their namespace,
// so <media:title> counts as <title> (a later one replaces an earlier one).
// A null `doc` (a failed parse) or a missing <rss> prints
// "WARNING: Did not find RSS node\n" and "WARNING: Did not find channel node\n";
// a missing <channel> the second alone; all give empty text. A document
// without a root element prints "Empty XML document\n" and aborts; with
// --harden (t4mi_harden) it prints "WARNING: Empty XML document\n" and
// gives empty text.
std::string rss_text_from_document(const xmlDoc* doc);
