// SPDX-License-Identifier: Apache-2.0
// What the program needs from the system beyond the standard library.
#ifndef OVEL_NET_SYSTEM_H
#define OVEL_NET_SYSTEM_H

#include <cstdio>
#include <string>

namespace ovel_net {

// Whether the error stream goes to a terminal.
bool error_stream_is_terminal();

// Differs from that of every other running process.
unsigned long process_identifier();

// Creates a file for writing, never through an existing one. On failure returns null and
// sets `errno`.
std::FILE* create_file(std::string const& name);

// An empty, unnamed file for writing and reading. Null as above.
std::FILE* scratch_file();

// A null device: reads as empty and accepts everything. Null as above.
std::FILE* open_nothing();

// Runs a program with one argument, input and output files, and discards its error
// stream. Returns whether its exit status was 0. Throws std::system_error if it does not
// start.
bool run_program(char const* program, char const* argument, std::FILE* from, std::FILE* to);

// The library of durable nets; null if the system has none.
extern char const* const durable_library;

// Loads a library, for good, and returns a function of it; null if either is missing.
void* find_in_library(char const* library, char const* function);

}  // namespace ovel_net

#endif
