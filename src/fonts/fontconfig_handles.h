// Owners of fontconfig's handles, for std::unique_ptr.
#pragma once

#include <fontconfig/fontconfig.h>
#include <memory>

struct fc_config_deleter {
    void operator()(FcConfig* c) const { FcConfigDestroy(c); }
};
struct fc_pattern_deleter {
    void operator()(FcPattern* p) const { FcPatternDestroy(p); }
};
struct fc_object_set_deleter {
    void operator()(FcObjectSet* o) const { FcObjectSetDestroy(o); }
};
struct fc_font_set_deleter {
    void operator()(FcFontSet* s) const { FcFontSetDestroy(s); }
};
struct fc_charset_deleter {
    void operator()(FcCharSet* c) const { FcCharSetDestroy(c); }
};

using fc_config_ptr = std::unique_ptr<FcConfig, fc_config_deleter>;
using fc_pattern_ptr = std::unique_ptr<FcPattern, fc_pattern_deleter>;
using fc_object_set_ptr = std::unique_ptr<FcObjectSet, fc_object_set_deleter>;
using fc_font_set_ptr = std::unique_ptr<FcFontSet, fc_font_set_deleter>;
using fc_charset_ptr = std::unique_ptr<FcCharSet, fc_charset_deleter>;
