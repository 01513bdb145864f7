// What scenarios look at inside the library's objects, for all of them: they are
// one program.
#ifndef OVEL_TESTS_SIMULATION_INSPECTOR_H
#define OVEL_TESTS_SIMULATION_INSPECTOR_H

#include "ovel_barrier.h"
#include "ovel_condition.h"

struct ovel::detail::inspector {
    // No batch, nobody queued, the gate open.
    template <class Condition>
    static bool is_at_rest(Condition& condition) {
        return condition._queued == 0 && condition._released == 0 &&
               condition._gate.try_acquire() && !condition._wait.try_acquire();
    }

    static bool is_open(barrier& gate) {
        return gate._count == 0 && !gate._complete && gate._lock.try_acquire() &&
               !gate._wait.try_acquire();
    }
    static bool is_open(timed_barrier& gate) {
        return gate._count == 0 && !gate._complete && !gate._released &&
               gate._entry.try_acquire() && gate._lock.try_acquire() && !gate._wait.try_acquire();
    }
};

#endif
