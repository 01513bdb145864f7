// Objects of the process that are built when the library is loaded and are no
// members of a class of their own.
#ifndef OVEL_LIBRARY_H
#define OVEL_LIBRARY_H

#include "ovel_atomic.h"
#include "ovel_thread_base.h"

namespace ovel::detail {

// The thread that the recycler's work runs on, and whether it was ever started.
extern thread_base _recycler_thread;
extern atomic<bool> _recycler_started;

// Stops and joins the recycler's thread, if it was started, when it is destroyed.
struct recycler_hook {
    ~recycler_hook();
};

}  // namespace ovel::detail

#endif
