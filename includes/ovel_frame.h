// SPDX-License-Identifier: Apache-2.0
// The basis of every public header: the export macro, and the spacer that keeps contended
// fields on separate cache lines.
#ifndef OVEL_FRAME_H
#define OVEL_FRAME_H

#if !defined(_WIN32)
// Exports a declaration from the library.
#define OVEL_EXPORT __attribute__((visibility("default")))

// Keeps a class nested in an exported one from being exported with it.
#define OVEL_HIDDEN __attribute__((visibility("hidden")))
#elif defined(OVEL_BUILDING)
#define OVEL_EXPORT __declspec(dllexport)
#else
#define OVEL_EXPORT __declspec(dllimport)
#endif
#if defined(_WIN32)
#define OVEL_HIDDEN
#endif

#ifdef __cplusplus  // C programs need only the macro

#if __cplusplus < 202002L
#error "ovel needs C++20: compile with -std=c++20"
#include <C++20>  // does not exist: stops the compiler before follow-up errors
#endif

namespace ovel {

// 128 bytes that separate a frequently written field from its neighbours. The field gets
// its cache line to itself, and the adjacent line that the processor fetches with it.
struct cacheline {
    char bytes[128];  // never read or written
};

namespace detail {

// Gives the tests a view of private state: layouts and invariants. The library declares
// it a friend and never defines it.
struct inspector;

}  // namespace detail

}  // namespace ovel

#endif

#endif
