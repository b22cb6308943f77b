// libFuzzer target: bytes as a downloaded feed, through the parse, the item
// walk and the HTML flattening, with NULs behind the data as in the loader.
#include <cstdint>
#include <cstring>
#include <vector>

#include "items/rss_feed_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > size_t(RSS_FEED_MAX_BYTES))
        return 0;
    std::vector<char> buffer(size + 1, '\0');
    std::memcpy(buffer.data(), data, size);
    rss_text_from_buffer(buffer.data(), int(buffer.size()));
    return 0;
}
