// The two faces every process opens before anything else: the default text
// face and the emoji outline face, from their fixed paths.
#pragma once

// Initialises FreeType and opens default_face and emoji_face (font_globals.h).
// Returns null on success, else the failure's message line (with its line
// feed), in the order start-up checks them; what was opened stays open for
// close_builtin_faces.
const char* open_builtin_faces();

// Closes the two faces, then FreeType, clearing each handle; safe to repeat.
void close_builtin_faces();
