// SPDX-License-Identifier: Apache-2.0
// Semaphores with one interface for the benchmarks: `units` at the start, `acquire` and
// `release`, and a default constructor.
#ifndef OVEL_BENCHMARK_SEMAPHORES_H
#define OVEL_BENCHMARK_SEMAPHORES_H

#include "ovel_semaphore.h"

#include <semaphore.h>

#include <semaphore>

namespace ovel_benchmark {

template <int units, unsigned int spin = 1024>
struct plain_semaphore : ovel::semaphore {
    plain_semaphore() : semaphore(units, spin) {}
};

template <int units>
struct timed_semaphore : ovel::timed_semaphore {
    timed_semaphore() : ovel::timed_semaphore(units, 0) {}
};

template <int units>
struct standard_semaphore : std::counting_semaphore<> {
    standard_semaphore() : counting_semaphore(units) {}
};

template <int units>
class posix_semaphore {
public:
    posix_semaphore() {
        sem_init(&_semaphore, 0, units);
    }
    ~posix_semaphore() {
        sem_destroy(&_semaphore);
    }
    posix_semaphore(posix_semaphore const&) = delete;
    posix_semaphore& operator=(posix_semaphore const&) = delete;

    void acquire() {
        sem_wait(&_semaphore);
    }
    void release() {
        sem_post(&_semaphore);
    }

private:
    sem_t _semaphore;
};

}  // namespace ovel_benchmark

#endif
