// SPDX-License-Identifier: Apache-2.0
// Work for the library's threads.
#ifndef OVEL_THREAD_FUNCTION_H
#define OVEL_THREAD_FUNCTION_H

#include "ovel_frame.h"

namespace ovel {

// The base class of all work. Derive from it, put the work into `operator()`, and hand
// the object to a `thread_base`, a `thread` or a `thread_group`. The caller owns the
// object and keeps it alive until the work has run. The same object may run many times,
// and on several threads at once if the caller arranges that.
//
// `operator()` runs on a thread that has its own allocator. An exception that leaves it
// fails the check "("unexpected exception", 0)".
class OVEL_EXPORT thread_function {
public:
    // Copies nothing: the base class has no state.
    thread_function();
    thread_function(thread_function const&);
    thread_function& operator=(thread_function const&);
    virtual ~thread_function();

    // The work. Does nothing unless overridden.
    virtual void operator()();

private:
    friend struct detail::inspector;

    [[maybe_unused]] cacheline _before{};
};

}  // namespace ovel

#endif
