// Placeholder until the markup parser lands: the text becomes plain runs.
#include "frames/client_context.h"
#include "items/scroll_settings.h"
#include "platform/text_helpers.h"

bool scrolling_text_client_context::apply_data_packet(const comm_socket_v4_packet*) { return true; }

void scrolling_text_client_context::parse_text()
{
    parse_pending = false;
    runs.clear();
    append_text(scroll_settings.text.c_str());
}

void scrolling_text_client_context::append_char(int32_t code)
{
    text_run run = style;
    run.code = code;
    runs.push_back(run);
}

void scrolling_text_client_context::append_text(const char* p)
{
    while (*p != '\0') {
        const int32_t c = utf8_decode(&p, p + 16);
        if (c > 0)
            append_char(c);
    }
}
