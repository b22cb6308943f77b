// The body of one inline field, "%{" ... "}%": how it is cut out of the text
// and split into its name and arguments. The markup parser uses these; they
// sit apart so that the limits can be tested on their own.
#pragma once

#include <cstddef>

// The body buffer: at most 511 body bytes and a NUL (bytes, not characters).
inline constexpr size_t FIELD_BODY_SIZE = 512;
// The most parts a body splits into, the name included.
inline constexpr int FIELD_MAX_PARTS = 32;

// Copies the field body that starts at `p` (just after "%{") into `body`,
// NUL-terminated, and returns the position after the closing "}%", or the end
// of the text when the field is not closed (the rest of the text is then the
// body). A "}" not followed by "%" and a "%{" inside a body are body text.
//
// Once 511 bytes are held, the next two bytes must be "}%": in any other
// case, the end of the text included, this never returns. Deliberate: a
// field longer than the buffer hangs the parser, kept as it is.
const char* collect_field_body(const char* p, char (&body)[FIELD_BODY_SIZE]);

// The hardened variant (--harden): the same, except that a body which is not
// closed right after its 511th byte is dropped instead of hanging. Then
// `*dropped` is set, `body` is empty, and the position returned is after the
// body's closing "}%", or the end of the text when it has none.
const char* collect_field_body_bounded(const char* p, char (&body)[FIELD_BODY_SIZE], bool* dropped);

// Splits `body` in place at every ";" (each becomes a NUL) and points
// parts[0..n-1] into it; returns n >= 1. After the 32nd part no new part
// starts, so the 32nd part ends at the next ";" and the text after it is lost.
// No trimming, no quoting.
int split_field_parts(char* body, char* (&parts)[FIELD_MAX_PARTS]);
