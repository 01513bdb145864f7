// SPDX-License-Identifier: Apache-2.0
// What programs use that pass work from thread to thread by hand.
#ifndef OVEL_BENCHMARK_QUEUE_H
#define OVEL_BENCHMARK_QUEUE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

namespace ovel_benchmark {

// A queue on which both sides wait. Any thread may use it.
template <class T, std::size_t capacity>
class bounded_queue {
public:
    void push(T const& value) {
        std::unique_lock hold(_mutex);
        _gained_room.wait(hold, [&] { return _values.size() != capacity; });
        _values.push_back(value);
        hold.unlock();
        _gained_value.notify_one();
    }
    T pop() {
        std::unique_lock hold(_mutex);
        _gained_value.wait(hold, [&] { return !_values.empty(); });
        T const value = _values.front();
        _values.pop_front();
        hold.unlock();
        _gained_room.notify_one();
        return value;
    }

private:
    std::mutex _mutex;
    std::condition_variable _gained_value;
    std::condition_variable _gained_room;
    std::deque<T> _values;
};

}  // namespace ovel_benchmark

#endif
