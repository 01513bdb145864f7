// SPDX-License-Identifier: Apache-2.0
// The check behind every invariant, every detected misuse and every system call that must
// not fail.
#ifndef OVEL_ASSURE_H
#define OVEL_ASSURE_H

#include "ovel_frame.h"

namespace ovel {

// Writes "ovel::assure_failed(EXPRESSION, FILE, LINE)" as one line to standard error and
// aborts the process. Never returns. Any thread may call it.
[[noreturn]] OVEL_EXPORT void assure_failed(char const* expression, char const* file, int line);

}  // namespace ovel

// Checks `expression` in every build. If it is false, `ovel::assure_failed` ends the
// process and prints the expression as written. This macro must stringize the expression
// itself: a further macro would expand the names of constants first. A check that can
// never hold, `assure(("reason", 0))`, discards its reason on purpose; nothing else in
// the argument may go unused.
// clang-format off
#define assure(expression)                                           \
    do {                                                             \
        _Pragma("GCC diagnostic push")                               \
        _Pragma("GCC diagnostic ignored \"-Wunused-value\"")         \
        if (__builtin_expect(!(expression), 0))                      \
            ::ovel::assure_failed(#expression, __FILE__, __LINE__);  \
        _Pragma("GCC diagnostic pop")                                \
    } while (false)
// clang-format on

#endif
