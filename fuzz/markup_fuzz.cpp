// Any bytes as item text through the markup parser. Inputs stay under 511
// bytes, because a longer field body hangs the parser on purpose.
#include "frames/client_context.h"
#include "items/scroll_settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static scrolling_text_client_context ctx(1);
    if (size > 510)
        return 0;
    scroll_settings.text.assign(reinterpret_cast<const char*>(data), size);
    ctx.parse_text();
    for (const text_run& r : ctx.runs)
        if (r.code <= 0 || r.code > 0x10FFFF || r.glyph != nullptr)
            __builtin_trap();
    return 0;
}
