// Placeholder until the emoji image loader lands.
#include "fonts/emoji_images.h"

void free_emoji_png_cache() {}
