// SPDX-License-Identifier: Apache-2.0
// What every public header starts from: the export macro and the spacer that
// keeps busy fields apart.
#ifndef OVEL_FRAME_H
#define OVEL_FRAME_H

#if !defined(_WIN32)
// Marks what the library shows to programs.
#define OVEL_EXPORT __attribute__((visibility("default")))

// Keeps a class inside an exported one from being exported with it.
#define OVEL_HIDDEN __attribute__((visibility("hidden")))
#elif defined(OVEL_BUILDING)
#define OVEL_EXPORT __declspec(dllexport)
#else
#define OVEL_EXPORT __declspec(dllimport)
#endif
#if defined(_WIN32)
#define OVEL_HIDDEN
#endif

#ifdef __cplusplus  // C programs need the macro only

#if __cplusplus < 202002L
#error "ovel needs C++20: compile with -std=c++20"
#include <C++20>  // there is none: the compiler stops before errors that follow from this
#endif

namespace ovel {

// 128 bytes that separate a frequently written field from its neighbours, so
// that each busy field has a cache line, and the line fetched with it, to itself.
struct cacheline {
    char bytes[128];  // never read or written
};

namespace detail {

// The tests' view of private state: layouts and invariants. The library
// declares it a friend and never defines it.
struct inspector;

}  // namespace detail

}  // namespace ovel

#endif

#endif
