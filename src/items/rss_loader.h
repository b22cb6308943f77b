// The RSS feed item: the item file's settings and the downloaded feed's items.
#pragma once

#include <string>

// Reloads the settings from the item file and the text from "rss.xml" in the
// metadata directory.
void load_rss_feed();

// Flattens HTML (a feed title or description) to plain text.
std::string RSSInnerHTMLToText(const std::string& html);
