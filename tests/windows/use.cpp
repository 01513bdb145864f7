// Uses every facility of the library, for a program that is not linked to it.

#include "use.h"

#include "ovel.h"

#include <cstdint>
#include <new>

struct ovel::detail::inspector {
    static HANDLE pool_lock() {
        return thread_element_group::global()->_lock._semaphore;
    }
    static unsigned int pool_spin() {
        return thread_element_group::global()->_lock._spin;
    }
};

namespace {

// As the library was left by its load.
void use_what_was_loaded() {
    bool const one = ovel::thread_support::available_processors() == 1;
    assure(ovel::default_spin == (one ? 0u : 1024u));
    assure(ovel::detail::inspector::pool_spin() == 0);
}

template <class Lock>
void use_lock() {
    Lock lock;
    lock.acquire();
    lock.release();
    assure(lock.try_acquire());
    lock.release();
}

void use_locks() {
    ovel::semaphore units(1, 10);
    units.acquire();
    assure(!units.try_acquire());
    units.release();
    ovel::timed_semaphore timed_units(1, 10);
    assure(timed_units.try_acquire());
    use_lock<ovel::mutex>();
    use_lock<ovel::timed_mutex>();
    use_lock<ovel::recursive_mutex>();
    use_lock<ovel::timed_recursive_mutex>();
    ovel::condition().release_all();
    ovel::timed_condition().release_one();
    bool last = false;
    ovel::barrier(1, 0).acquire(last);
    assure(last);
}

// The exception is thrown on one side of the border and caught on the other.
void use_memory() {
    void* const memory = ovel_realloc(ovel_calloc(3, 5), 10'000);
    assure(ovel::allocator_support::size(memory) >= 10'000);
    ovel_free(memory);
    bool refused = false;
    try {
        ovel::allocator_support::allocate(SIZE_MAX);
    } catch (std::bad_alloc const&) {
        refused = true;
    }
    assure(refused);
    ovel::allocator_recycler::global()->recycle_capacity(1.0);
}

void use_values() {
    ovel::crc32 sum;
    sum.start();
    char text[] = "123456789";
    sum.encode(&text[0], &text[9]);
    sum.stop();
    assure(sum.value() == 0xcbf43926);
    static unsigned int volatile flag = 0;
    ovel::call_once([] {}, flag);
    assure(flag == 1);
    ovel::thread_specific_ptr<char> own;
    own.set(text);
    assure(own.get() == text);
    ovel::any const token = 7;
    ovel::any const copy = token;
    assure(ovel::any_cast<int>(copy) == 7);
    assure(ovel::time_support::time_unit() > 0);
}

struct counting : ovel::petri_function {
    ovel::petri_place* source = nullptr;
    ovel::petri_place* target = nullptr;

    void operator()() override {
        ovel::any token;
        source->receive(token);
        target->send(token);
    }
};

void use_net() {
    ovel::petri_net net(2, 0, 0);
    ovel::petri_place* const source = net.insert_place(4);
    ovel::petri_place* const target = net.insert_place(4);
    counting work;
    ovel::petri_transition* const pass = net.insert_transition(work, true, 1, 0, 0);
    net.insert_input_arc(source, pass->input(work.source));
    net.insert_output_arc(pass->output(work.target), target);
    net.send(source, 1);
    net.release();
    net.send(source, 2);
    ovel::any token;
    net.receive(target, token);
    net.acquire();
    assure(net.try_receive(target, token));
}

struct work : ovel::thread_function {
    explicit work(ovel::semaphore& done) : _done(done) {}

    void operator()() override {
        ovel_free(ovel_malloc(10));
        _done.release();
    }

private:
    ovel::semaphore& _done;
};

template <class Thread>
void use_thread(Thread& thread, work& function, ovel::semaphore& done) {
    thread.schedule(function);
    thread.release();
    done.acquire();
    thread.acquire();
}

// The recycler's thread and the clock's stay, and the pool keeps its own.
void use_threads() {
    ovel::semaphore done(0, 10);
    work function(done);
    ovel::thread_base own;
    use_thread(own, function, done);
    ovel::thread pooled;
    use_thread(pooled, function, done);
    ovel::thread_group group(2);
    group.schedule(function, 1, 0);
    group.release();
    done.acquire();
    group.conclude();
    group.acquire();
    use_net();
    ovel::timed_mutex lock;
    assure(lock.timed_acquire(ovel::time::then(60.0)));
    lock.release();
    ovel::allocator_recycler::global()->release(3600.0);
}

}  // namespace

extern "C" __declspec(dllexport) holdings use(bool threads) {
    use_what_was_loaded();
    use_locks();
    use_memory();
    use_values();
    if (threads)
        use_threads();
    return {ovel::detail::inspector::pool_lock(),
            ovel::detail::thread_element_group::global()->size()};
}
