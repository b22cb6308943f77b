// Any bytes as a weather file's document, through the temperature list and
// its forms.
#include "text/json_sources.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string err;
    json_data_source source;
    source.document = json11::Json::parse(std::string(reinterpret_cast<const char*>(data), size), err, json11::COMMENTS);
    if (!err.empty() && !source.document.is_null())
        __builtin_trap(); // a failed parse gives null
    for (auto form : {temperature_form::location_and_degrees, temperature_form::location, temperature_form::degrees})
        temperature_text(source, form);
    return 0;
}
