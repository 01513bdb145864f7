// SPDX-License-Identifier: Apache-2.0
// The bound of a chain of transitions that threads of the program feed and drain: what is left
// of a net if it has only counts, a queue and hand-offs.
#ifndef OVEL_BENCHMARK_LEAST_NET_H
#define OVEL_BENCHMARK_LEAST_NET_H

#include "ovel_kernel.h"
#include "ovel_mutex.h"
#include "ovel_semaphore.h"

#include <array>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

namespace ovel_benchmark {

// A chain of `stages` transitions, each of which fires once at a time and moves an int from a
// place for `capacity` ints to the next one.
//
// One mutex guards all counts, as in a net. A firing reserves a token and a slot under the mutex
// and moves the value without it. A call that finds the mutex taken is carried out by the thread
// that has it, and one that has to wait is carried out when its place gains what it needs. A
// single thread fires: with empty bodies a second one only moves the cache lines. No values of
// any type, weights, ranks, spaces, skips, closing, deadlines or failures.
template <unsigned int capacity>
class least_net {
public:
    least_net(unsigned int stages, unsigned int tokens)
        : _places(stages + 1), _stages(stages), _left(tokens), _fires([this] { _fire(); }) {}
    least_net(least_net const&) = delete;
    least_net& operator=(least_net const&) = delete;

    void send(int value) {
        _call({.sends = true, .value = value});
    }
    int receive() {
        return _call({.sends = false});
    }

private:
    enum state : int { open, waits, sleeps, ended };

    struct alignas(64) call {
        bool sends;
        int value = 0;
        std::atomic<int> now = open;
        call* next = nullptr;
        ovel::semaphore* unit = nullptr;
    };

    struct place {
        std::array<int, capacity> values;
        unsigned int put = 0;    // of the values, by the thread that puts
        unsigned int taken = 0;  // the same
        // Under the mutex.
        alignas(64) unsigned int size = 0;
        unsigned int reserved_tokens = 0;
        unsigned int reserved_slots = 0;
        bool is_busy = false;  // the transition behind the place is queued or fires
    };

    static constexpr unsigned int spin = 1024;  // pauses
    static constexpr unsigned int none = ~0u;

    bool _may_send(place const& to) const {
        return to.size + to.reserved_slots < capacity;
    }
    bool _may_take(place const& from) const {
        return from.size > from.reserved_tokens;
    }
    static void _put(place& to, int value) {
        to.values[to.put++ % capacity] = value;
    }
    static int _take(place& from) {
        return from.values[from.taken++ % capacity];
    }

    // With the mutex from here on.

    void _look_at(unsigned int stage) {
        if (stage >= _stages)
            return;
        place& from = _places[stage];
        place& to = _places[stage + 1];
        if (from.is_busy || !_may_take(from) || !_may_send(to))
            return;
        from.is_busy = true;
        ++from.reserved_tokens;
        ++to.reserved_slots;
        _queue[_queued++ % _queue.size()] = stage;
    }

    bool _perform(call& of) {
        if (of.sends) {
            if (!_may_send(_places.front()))
                return false;
            _put(_places.front(), of.value);
            ++_places.front().size;
            _look_at(0);
        } else {
            if (!_may_take(_places.back()))
                return false;
            of.value = _take(_places.back());
            --_places.back().size;
            _look_at(_stages - 1);
        }
        return true;
    }

    void _end(call& of) {
        if (ovel::semaphore* const unit = of.unit; of.now.exchange(ended) == sleeps)
            _woken[_woken_size++] = unit;
    }

    // One thread sends and one receives.
    void _serve(bool sends) {
        call*& waiting = _waiting[sends];
        if (waiting != nullptr && _perform(*waiting))
            _end(*std::exchange(waiting, nullptr));
    }

    void _carry_out() {
        call* each = _published.exchange(nullptr);
        while (each != nullptr) {
            call& now = *std::exchange(each, each->next);
            if (_perform(now)) {
                _end(now);
            } else {
                _waiting[now.sends] = &now;
                now.now = waits;
            }
        }
    }

    // Releases it.
    void _leave() {
        if (_published.load(std::memory_order_relaxed) != nullptr)
            _carry_out();
        bool const calls = _is_idle && _taken != _queued;
        _is_idle = _is_idle && !calls;
        std::array<ovel::semaphore*, 2> const woken = _woken;
        unsigned int const size = std::exchange(_woken_size, 0u);
        _mutex.release();
        for (unsigned int i = 0; i != size; ++i)
            woken[i]->release();
        if (calls)
            _work.release();
    }

    // Without it from here on.

    bool _publish(call& of) {
        of.next = _published.load(std::memory_order_relaxed);
        while (!_published.compare_exchange_weak(of.next, &of)) {}
        for (unsigned int look = 1;; ++look) {
            if (of.now.load() != open)
                return false;
            if (look % 64 == 0 && _mutex.try_acquire())
                return true;
            ovel::kernel::YieldProcessor();
        }
    }

    int _call(call&& of) {
        of.unit = &_units[of.sends];
        if (_mutex.try_acquire()) {
            bool const done = _perform(of);
            if (!done) {
                _waiting[of.sends] = &of;
                of.now = waits;
            }
            _leave();
            if (done)
                return of.value;
        } else if (_publish(of)) {
            _leave();
        }
        for (unsigned int left = spin; left != 0 && of.now.load() != ended; --left)
            ovel::kernel::YieldProcessor();
        int expected = waits;
        if (of.now.load() != ended && of.now.compare_exchange_strong(expected, sleeps))
            of.unit->acquire();
        return of.value;
    }

    void _fire() {
        for (unsigned int fired = none;;) {
            _mutex.acquire();
            if (fired != none) {
                place& from = _places[fired];
                place& to = _places[fired + 1];
                from.is_busy = false;
                --from.reserved_tokens;
                --from.size;
                --to.reserved_slots;
                ++to.size;
                _left -= fired + 1 == _stages;
                if (fired == 0)
                    _serve(true);
                else
                    _look_at(fired - 1);
                if (fired + 1 == _stages)
                    _serve(false);
                else
                    _look_at(fired + 1);
                _look_at(fired);
            }
            if (_published.load(std::memory_order_relaxed) != nullptr)
                _carry_out();
            fired = _taken != _queued ? _queue[_taken++ % _queue.size()] : none;
            bool const is_over = fired == none && _left == 0;
            _is_idle = fired == none && !is_over;
            _leave();
            if (is_over)
                return;
            if (fired == none)
                _work.acquire();
            else
                _put(_places[fired + 1], _take(_places[fired]));
        }
    }

    ovel::mutex _mutex{spin};
    std::vector<place> _places;
    unsigned int const _stages;
    unsigned int _left;  // tokens that have yet to reach the last place
    std::array<unsigned int, 64> _queue;
    unsigned int _queued = 0;
    unsigned int _taken = 0;
    bool _is_idle = false;
    std::array<call*, 2> _waiting{};
    std::array<ovel::semaphore*, 2> _woken{};
    unsigned int _woken_size = 0;
    ovel::semaphore _work{0, spin};
    std::array<ovel::semaphore, 2> _units{{{0, 0}, {0, 0}}};
    alignas(64) std::atomic<call*> _published = nullptr;
    std::jthread _fires;
};

}  // namespace ovel_benchmark

#endif
