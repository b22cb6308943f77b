// Command-line iteration and the framework's standard switches.
//
// A switch is an argument that starts with "-"; its name is handed over
// without the leading dashes ("--file" and "-file" are both "file"). A value
// follows as the next argument or after "=" ("--file=x"). The program loops:
//   while ((arg = t4mi_next_arg())) {
//       if (!t4mi_argv_is_switch(&arg)) ... non-switch argument
//       int r = t4mi_argv_std_handle_switch(name);  // >0 consumed, 0 unknown, <0 misused
//   }
// The switch table and its help text are in args.cpp and docs/platform.md.
#pragma once

// Prepares iteration over argv[1..argc-1]. 0 on success.
int t4mi_init_argv(int argc, char** argv);

// The next argument, or null after the last one.
const char* t4mi_next_arg();

// Non-zero when *arg is a switch (begins with "-" and has a name); then *arg
// is advanced past the dashes, so that it points at the name.
int t4mi_argv_is_switch(const char** arg);

// Handles a standard switch by name (without dashes, possibly "name=value").
// Returns 1 when it was a standard switch and was consumed (its value taken
// from "=value" or from the next argument), 0 when it is not a standard
// switch, -1 when it is one but was given wrongly (missing or bad value).
int t4mi_argv_std_handle_switch(const char* name);

// Prints the standard switch list on standard error.
void t4mi_std_help();

// Prints "<program> <version>" and a line feed on standard output: what
// --version shows, for the program (a standard switch, which exits 0 at
// once) and for every tool.
void t4mi_print_version(const char* program);

// Forgets everything the command line set (for tests that parse twice).
void t4mi_reset_standard_switches();
