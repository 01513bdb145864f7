// SPDX-License-Identifier: Apache-2.0
// What the program asks of the system beyond the standard library.
#ifndef OVEL_NET_SYSTEM_H
#define OVEL_NET_SYSTEM_H

#include <cstdio>
#include <string>

namespace ovel_net {

// Whether a user watches the error stream.
bool error_stream_is_terminal();

// Unlike that of any other process alive.
unsigned long process_identifier();

// Creates a file for writing, never through what is already there. Null, with the
// reason in `errno`, if that can't be.
std::FILE* create_file(std::string const& name);

// An empty file without a name, to be written and read. Null as above.
std::FILE* scratch_file();

// What reads as empty, and takes everything. Null as above.
std::FILE* open_nothing();

// Runs a program with one argument from one file to another, and what it says on
// its error stream is lost. Whether its exit status was 0. Throws std::system_error
// if it does not start.
bool run_program(char const* program, char const* argument, std::FILE* from, std::FILE* to);

// The library of durable nets; null where there is none for the system.
extern char const* const durable_library;

// A function of a library, which is loaded and stays so. Null if that can't be had.
void* find_in_library(char const* library, char const* function);

}  // namespace ovel_net

#endif
