// The RSS feed item: the item file's settings and the downloaded feed's items.
//
// An RSS item file ("#Tevrin4RSS") names the feed's address ("url="), the
// refresh interval in seconds ("interval=") and the same "#-key=value" look and
// motion settings as a scroll-text item, with the feed's own defaults. The feed
// itself is fetched by the downloader (items/rss_download.h) into "rss.xml" in
// the item's metadata directory; the loader turns its items into the text.
#pragma once

#include <string>

// Reloads the settings from the item file (t4mi_meta->file_fd, under an
// exclusive flock) and the text from "rss.xml" in the metadata directory
// (t4mi_meta->meta_name_fd). Clears `feed_changed`; sets `feed_last_fetch` to
// 0 when the address changed (so the next download starts at once); when it
// is 0 and the address is the process's first, maps "rss.xml"'s access time
// onto the monotonic clock instead (a restart does not fetch again early). When
// "rss.xml" cannot be opened the previous text stays. Aborts the process on a
// parsed feed without a root element (deliberate: kept as it is).
void load_rss_feed();

// Flattens HTML (a feed title or description) to plain UTF-8 text: all the
// text of the fragment, tags dropped, entities decoded, trailing spaces, tabs,
// line feeds and carriage returns removed. A fragment that cannot be parsed
// yields empty text (with a message on stderr).
std::string RSSInnerHTMLToText(const std::string& html);
