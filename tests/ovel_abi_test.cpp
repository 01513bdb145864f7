// Whose allocation operators are whose. This program replaces all of its own, as
// any program may, and counts what comes through them. Were its own put in the
// place of the library's, the counts would tell. That the library shows it none is
// seen from the library's names.

#include "ovel_allocator_support.h"
#include "ovel_any.h"
#include "ovel_petri_net.h"
#include "ovel_thread.h"
#include "ovel_thread_function.h"
#include "ovel_time.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

std::atomic<unsigned int> news{0};
std::atomic<unsigned int> deletes{0};

// What `work` does through the program's operators, news and deletes apart.
struct uses {
    unsigned int newed;
    unsigned int deleted;
    bool operator==(uses const&) const = default;
};

template <class Work>
uses uses_of(Work const& work) {
    uses const before{news, deletes};
    work();
    return {news - before.newed, deletes - before.deleted};
}

}  // namespace

// The other forms lead to these, but for those of aligned memory. Inlined, they would
// look to the compiler as if they did not belong together.
[[gnu::noinline]] void* operator new(std::size_t bytes) {
    ++news;
    if (void* const memory = std::malloc(bytes))
        return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    ++deletes;
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    ++deletes;
    std::free(memory);
}

namespace ovel {

namespace {

struct token_passer : petri_function {
    petri_place* source = nullptr;
    petri_place* target = nullptr;

    void operator()() override {
        any token;
        source->receive(token);
        target->send(token);
    }
};

// A net with a group and a queue thread of its own, and one token that passes
// through it.
TEST(abi_test, what_the_library_allocates_never_enters_the_program) {
    token_passer work;
    std::size_t held = allocator_support::allocated_size();
    uses const made = uses_of([&] {
        time::now();  // builds the time server
        petri_net net(1, 0, 65536);
        petri_place* const source = net.insert_place(1);
        petri_place* const target = net.insert_place(1);
        petri_transition* const pass = net.insert_transition(work, false, 1, 0, 0);
        net.insert_input_arc(source, pass->input(work.source));
        net.insert_output_arc(pass->output(work.target), target);
        net.release();
        net.send(source, 1);
        any token;
        net.receive(target, token);
        net.acquire();
        held = allocator_support::allocated_size() - held;
    });
    EXPECT_GT(held, 0u);
    EXPECT_EQ(made, (uses{0, 0}));
}

// The library knows the object by its base, whose virtual destructor it defines.
TEST(abi_test, work_that_the_program_created_goes_back_to_the_program) {
    struct nothing : thread_function {};
    EXPECT_EQ(uses_of([] {
                  std::unique_ptr<thread_function> work = std::make_unique<nothing>();
                  thread runner;
                  runner.schedule(*work);
                  runner.release();
                  runner.acquire();
              }),
              (uses{1, 1}));
}

}  // namespace

}  // namespace ovel
