// SPDX-License-Identifier: Apache-2.0
// Work: what a thread of the library runs.
#ifndef OVEL_THREAD_FUNCTION_H
#define OVEL_THREAD_FUNCTION_H

#include "ovel_frame.h"

namespace ovel {

// The base of every piece of work. Derive from it, put the work into
// `operator()`, and hand the object to a `thread_base`, a `thread` or a
// `thread_group`; it belongs to the caller, who keeps it alive until it has run.
// The same object may run many times, and where the caller arranges it on several
// threads at once.
//
// `operator()` runs on a thread that has an allocator of its own. An exception
// that leaves it fails the check "("unexpected exception", 0)".
class OVEL_EXPORT thread_function {
public:
    // There is nothing to copy but what a derived class adds.
    thread_function();
    thread_function(thread_function const&);
    thread_function& operator=(thread_function const&);
    virtual ~thread_function();

    // The work; nothing, unless it is overridden.
    virtual void operator()();

private:
    friend struct detail::inspector;

    [[maybe_unused]] cacheline _before{};
};

}  // namespace ovel

#endif
