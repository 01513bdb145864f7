// Objects of the process that are built when the library is loaded and are no
// members of a class of their own.
#ifndef OVEL_LIBRARY_H
#define OVEL_LIBRARY_H

#include "ovel_atomic.h"
#include "ovel_thread_base.h"

namespace ovel::detail {

// The thread that the recycler's work runs on, whether it was started, and the once-flag
// of its start.
extern thread_base _recycler_thread;
extern atomic<bool> _recycler_started;
extern unsigned int volatile _recycler_flag;

// Stops and joins the recycler's thread, if it was started, when it is destroyed.
struct recycler_hook {
    ~recycler_hook();
};

// Ends the idle threads of the pool when it is destroyed.
struct pool_hook {
    ~pool_hook();
};

}  // namespace ovel::detail

#endif
