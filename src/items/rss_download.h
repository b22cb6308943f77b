// The feed download: "/usr/bin/curl" run as a child process into the item's
// metadata directory, so that the serve loop never waits on the network.
//
// The serve loop calls rss_feed_changed() on every turn, as the second of its
// two change tests (the item file's comes first; at most one of them is
// handled per turn, so the feed test is not made on a turn whose item file
// changed):
//
//     if (item_file_changed()) {
//         ... "Text item changed\n", rebuild the catalogue, reload, text_dirty ...
//     } else if (rss_feed_changed()) {
//         std::fprintf(stderr, "RSS feed changed\n");
//         rebuild the font catalogue;
//         load_rss_feed();                 // clears feed_changed
//         for every scrolling_text_client_context: ctx->feed_dirty = true;
//     }
//
// The call must be made on every turn even when nothing is due: it is also
// what reaps the child and stops a download that takes too long.
//
// State (items/scroll_settings.h): `feed_url`, `feed_interval`,
// `feed_last_fetch` (set by the loader, moved on here), `feed_changed`,
// `download_pid` and `download_deadline`. Files, both in the metadata
// directory (t4mi_meta->meta_name_fd): "rss.xml.part", written by the
// downloader, and "rss.xml", the last complete feed, replaced by rename.
#pragma once

// Starts a download when the interval is up (at once when `feed_last_fetch`
// is 0), reaps a finished one without waiting, stops one that ran past its
// 300 s deadline with SIGTERM every 5 s, and puts a successful download in
// place. Returns `feed_changed`: true when a new "rss.xml" is in place and
// load_rss_feed() has not run since. Always false when `feed_url` is empty.
// The downloader runs from t4mi_fixed_path("/usr/bin/curl"), with argv[0]
// "/usr/bin/curl" whatever the path.
bool rss_feed_changed();
