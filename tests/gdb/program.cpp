// SPDX-License-Identifier: Apache-2.0
// Objects for the printers, in stable states. Stops at `look`.
#include "ovel.h"
#include "ovel_petri.h"
#include "ovel_work.h"

#include <cstring>
#include <string>
#include <thread>

using work = ovel::triple<ovel::thread_function*, double, double>;
using work_queue = ovel::skip_list<work>;

// Memory of an object that was not constructed, and of one with arbitrary bytes.
// As large as the largest of what is printed there.
alignas(ovel::petri_net) unsigned char zeroed[sizeof(ovel::petri_net)];
alignas(ovel::petri_net) unsigned char scribbled[sizeof(ovel::petri_net)];

namespace {

struct nothing : ovel::petri_function {
    void operator()() override {}
};

[[gnu::noinline]] void look() {
    asm volatile("" ::: "memory");
}

}  // namespace

int main() {
    std::memset(scribbled, 0xA5, sizeof scribbled);

    ovel::semaphore units(2, 0);
    ovel::timed_semaphore timed_units(3, 0);

    ovel::mutex free_lock;
    ovel::mutex lock;
    ovel::timed_mutex timed_lock;
    timed_lock.acquire();
    ovel::recursive_mutex twice_lock;
    twice_lock.acquire();
    twice_lock.acquire();
    ovel::timed_recursive_mutex timed_recursive_lock;
    timed_recursive_lock.acquire();

    // A waiter is counted before it releases the mutex.
    ovel::condition changed;
    ovel::timed_condition timed_changed;
    ovel::semaphore coming(0, 0);
    std::jthread const waiter([&] {
        lock.acquire();
        coming.release();
        changed.acquire(lock);
        lock.release();
    });
    coming.acquire();
    lock.acquire();

    ovel::list<short> numbers;
    ovel::list<double> none;
    for (short const number : {short{3}, short{1}, short{2}})
        numbers.push_back(number);
    work_queue queue;
    for (int i = 0; i != 3; ++i)
        queue.insert(work{nullptr, 1.0 + i, 0.5});
    work_queue empty_queue;

    ovel::petri_net net;
    ovel::petri_place* const in = net.insert_place(16);
    net.send(in, 1);
    nothing function;
    ovel::petri_transition* const idle_one = net.insert_transition(function, true, 1.0, 0.0, 0);
    idle_one->deactivate();
    ovel::petri_net running;
    running.release();

    ovel::net pipeline;
    auto const words = pipeline.insert_place<std::string>("words", 4);
    auto const lengths = pipeline.insert_place<std::size_t>("a name that is long", 2);
    [[maybe_unused]] auto const unused = pipeline.insert_place<int>("unused", 1);
    auto const measure = pipeline.insert_transition(
        "measure", from(words), to(lengths), [](std::string const& word) { return word.size(); });
    words.send("token");
    words.send("tokens");
    measure.deactivate();
    [[maybe_unused]] ovel::petri_place* const words_base = words.base();
    [[maybe_unused]] ovel::petri_transition* const measure_base = measure.base();

    // One work item runs and another waits.
    ovel::semaphore begun(0, 0);
    ovel::semaphore go_on(0, 0);
    ovel::work_group group(1, 0.5);
    group.submit([&] {
        begun.release();
        go_on.acquire();
    });
    group.submit([] {});
    begun.acquire();
    ovel::thread_group idle(3, 2.5, 65536);

    look();

    go_on.release();
    group.join();
    running.acquire();
    changed.release_all();
    lock.release();
}
