// SPDX-License-Identifier: Apache-2.0
// Conditions with their mutexes, with one interface for the benchmarks: `wait_until(ready)`
// returns once `ready()` is true. Only `change(make, all)` may make it true: it calls
// `make()` under the mutex and then wakes one waiter, or all.
#ifndef OVEL_BENCHMARK_CONDITIONS_H
#define OVEL_BENCHMARK_CONDITIONS_H

#include "ovel_condition.h"
#include "ovel_mutex.h"

#include <pthread.h>

#include <condition_variable>
#include <mutex>

#if defined(OVEL_PEER_ABSL)
#include <absl/synchronization/mutex.h>
#endif
#if defined(OVEL_PEER_NSYNC)
#include <nsync.h>
#endif

namespace ovel_benchmark {

template <class Mutex, class Condition, unsigned int spin = 1024>
class ovel_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        _mutex.acquire();
        while (!ready())
            _changed.acquire(_mutex);
        _mutex.release();
    }
    template <class Make>
    void change(Make const& make, bool all) {
        _mutex.acquire();
        make();
        _mutex.release();
        all ? _changed.release_all() : _changed.release_one();
    }

private:
    Mutex _mutex{spin};
    Condition _changed{spin};
};

class standard_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        std::unique_lock hold(_mutex);
        _changed.wait(hold, ready);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        {
            std::scoped_lock const hold(_mutex);
            make();
        }
        all ? _changed.notify_all() : _changed.notify_one();
    }

private:
    std::mutex _mutex;
    std::condition_variable _changed;
};

class posix_condition {
public:
    posix_condition() = default;
    ~posix_condition() {
        pthread_cond_destroy(&_changed);
        pthread_mutex_destroy(&_mutex);
    }
    posix_condition(posix_condition const&) = delete;
    posix_condition& operator=(posix_condition const&) = delete;

    template <class Ready>
    void wait_until(Ready const& ready) {
        pthread_mutex_lock(&_mutex);
        while (!ready())
            pthread_cond_wait(&_changed, &_mutex);
        pthread_mutex_unlock(&_mutex);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        pthread_mutex_lock(&_mutex);
        make();
        pthread_mutex_unlock(&_mutex);
        all ? pthread_cond_broadcast(&_changed) : pthread_cond_signal(&_changed);
    }

private:
    pthread_mutex_t _mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t _changed = PTHREAD_COND_INITIALIZER;
};

#if defined(OVEL_PEER_ABSL)
class absl_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        absl::MutexLock const hold(&_mutex);
        while (!ready())
            _changed.Wait(&_mutex);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        {
            absl::MutexLock const hold(&_mutex);
            make();
        }
        all ? _changed.SignalAll() : _changed.Signal();
    }

private:
    absl::Mutex _mutex;
    absl::CondVar _changed;
};
#endif

#if defined(OVEL_PEER_NSYNC)
class nsync_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        nsync::nsync_mu_lock(&_mutex);
        while (!ready())
            nsync::nsync_cv_wait(&_changed, &_mutex);
        nsync::nsync_mu_unlock(&_mutex);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        nsync::nsync_mu_lock(&_mutex);
        make();
        nsync::nsync_mu_unlock(&_mutex);
        all ? nsync::nsync_cv_broadcast(&_changed) : nsync::nsync_cv_signal(&_changed);
    }

private:
    nsync::nsync_mu _mutex = NSYNC_MU_INIT;
    nsync::nsync_cv _changed = NSYNC_CV_INIT;
};
#endif

// Calls `use.template operator()<Condition>(name)` for every condition.
template <class Use>
void with_each_condition(Use const& use) {
    use.template operator()<ovel_condition<ovel::mutex, ovel::condition>>("ovel condition");
    use.template operator()<ovel_condition<ovel::mutex, ovel::condition, 0>>(
        "ovel condition spin 0");
    use.template operator()<ovel_condition<ovel::timed_mutex, ovel::timed_condition>>(
        "ovel timed condition");
    use.template operator()<standard_condition>("std::condition_variable");
    use.template operator()<posix_condition>("pthread_cond");
#if defined(OVEL_PEER_ABSL)
    use.template operator()<absl_condition>("absl::CondVar");
#endif
#if defined(OVEL_PEER_NSYNC)
    use.template operator()<nsync_condition>("nsync_cv");
#endif
}

}  // namespace ovel_benchmark

#endif
