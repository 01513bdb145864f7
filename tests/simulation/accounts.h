// SPDX-License-Identifier: Apache-2.0
// Accounts that must balance at the end of a scenario. Includes what most scenarios use.
#ifndef OVEL_TESTS_SIMULATION_ACCOUNTS_H
#define OVEL_TESTS_SIMULATION_ACCOUNTS_H

#include "inspector.h"

namespace ovel::simulation {

using detail::inspector;

// Of the threads of a net.
constexpr unsigned int net_stack = 65536;

// A thread of the scenario with an allocator of its own.
struct client : worker {
    template <class Body>
    explicit client(Body body)
        : worker([body] {
              thread_allocator const own;
              body();
          }) {}
};

// Joins a run in one of three ways, repeated until it has ended.
template <class Run>
void join(Run& run, unsigned int way) {
    if (way == 1)
        while (!run.try_acquire())
            Sleep(1);
    else if (way == 2)
        while (!run.timed_acquire(time::then(0.003))) {}
    else
        run.acquire();
}

template <class Lock>
constexpr bool is_reentrant =
    std::is_same_v<Lock, recursive_mutex> || std::is_same_v<Lock, timed_recursive_mutex>;

// Whether a call succeeds. Otherwise it throws, because a request was refused, or a number, as
// the body of a net did.
template <class Call>
bool attempt(Call const& call) {
    try {
        call();
        return true;
    } catch (std::bad_alloc const&) {
        assure(refused() != 0);
    } catch (int) {}
    return false;
}

// The result of `call`, repeated until no request is refused. A call that throws must have
// changed nothing.
template <class Call>
auto retried(Call const& call) {
    for (;;)
        try {
            return call();
        } catch (std::bad_alloc const&) {
            assure(refused() != 0);
        }
}

// Opens the accounts of a scenario of locks. With `timed` starts the time server first, because
// it stays.
inline void open_books(bool timed, unsigned int spin) {
    set_default_spin(spin);
    if (timed)
        time::now();
    if (pick(3) == 0)
        end_waits_late(1000);
    balance();
}

// Built before the scenario begins, together with what the library keeps for good. Outlives
// what the scenario creates.
class accounts {
public:
    explicit accounts(unsigned int spin, bool timed = false) {
        set_default_spin(spin);
        allocator_group::global();
        if (timed)
            time::now();
        auto const all = inspector::check_allocators();
        _bytes = all.in_use;
        _handles = open_handles() - all.count;
    }

    // Once the pool's threads have ended, only blocks on their way home are in use, and the
    // runtime heap holds only what the allocators keep.
    ~accounts() {
        inspector::empty_pool();
        inspector::reset_pool();
        allocator_group::global()->flush_allocator(false);
        auto const all = inspector::check_allocators();
        assure(all.in_use == _bytes + all.on_way);
        assure(heap_blocks() == all.chunks + all.count + 1);
        assure(open_handles() == _handles + all.count);
        balance();
    }
    accounts(accounts const&) = delete;
    accounts& operator=(accounts const&) = delete;

private:
    std::size_t _bytes;
    std::size_t _handles;
};

}  // namespace ovel::simulation

#endif
