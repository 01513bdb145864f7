// Objects for the printers to print, in states that they stay in. Stops at `look`.
#include "ovel.h"

#include <cstring>
#include <thread>

using work = ovel::triple<ovel::thread_function*, double, double>;
using work_queue = ovel::skip_list<work>;

// Memory of an object that is not built, and of one whose bytes are anything.
alignas(ovel::petri_net) unsigned char zeroed[sizeof(ovel::petri_net)];
alignas(ovel::petri_net) unsigned char scribbled[sizeof(ovel::petri_net)];

namespace {

struct doubler : ovel::petri_function {
    ovel::petri_place* numbers = nullptr;
    ovel::petri_place* results = nullptr;

    void operator()() override {
        ovel::any token;
        numbers->receive(token);
        results->send(token);
    }
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

    // A waiter has been counted by the time that it gives the mutex up.
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
    ovel::petri_place* const out = net.insert_place(1);
    doubler twice;
    ovel::petri_transition* const doubling = net.insert_transition(twice, true, 1.0, 0.0, 0);
    net.insert_input_arc(in, doubling->input(twice.numbers));
    net.insert_output_arc(doubling->output(twice.results), out);
    net.send(in, 1);
    net.send(in, 2);
    net.deactivate(doubling);
    ovel::petri_net running;
    running.release();

    look();

    running.acquire();
    changed.release_all();
    lock.release();
}
