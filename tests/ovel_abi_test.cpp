// Whose allocation operators are whose. This program replaces all of its own, as
// any program may, and counts what comes through them. Were the library's shown
// to it, or its own put in the place of the library's, the counts would tell.

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

void* counted_new(std::size_t bytes, std::size_t alignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
    ++news;
    return std::aligned_alloc(alignment, (bytes + alignment) & ~(alignment - 1));
}

void* checked_new(std::size_t bytes, std::size_t alignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
    void* const memory = counted_new(bytes, alignment);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void counted_delete(void* memory) {
    ++deletes;
    std::free(memory);
}

std::size_t number(std::align_val_t alignment) {
    return static_cast<std::size_t>(alignment);
}

}  // namespace

// clang-format off
void* operator new(std::size_t n) { return checked_new(n); }
void* operator new[](std::size_t n) { return checked_new(n); }
void* operator new(std::size_t n, std::nothrow_t const&) noexcept { return counted_new(n); }
void* operator new[](std::size_t n, std::nothrow_t const&) noexcept { return counted_new(n); }
void* operator new(std::size_t n, std::align_val_t a) { return checked_new(n, number(a)); }
void* operator new[](std::size_t n, std::align_val_t a) { return checked_new(n, number(a)); }
void* operator new(std::size_t n, std::align_val_t a, std::nothrow_t const&) noexcept { return counted_new(n, number(a)); }
void* operator new[](std::size_t n, std::align_val_t a, std::nothrow_t const&) noexcept { return counted_new(n, number(a)); }

void operator delete(void* p) noexcept { counted_delete(p); }
void operator delete[](void* p) noexcept { counted_delete(p); }
void operator delete(void* p, std::size_t) noexcept { counted_delete(p); }
void operator delete[](void* p, std::size_t) noexcept { counted_delete(p); }
void operator delete(void* p, std::nothrow_t const&) noexcept { counted_delete(p); }
void operator delete[](void* p, std::nothrow_t const&) noexcept { counted_delete(p); }
void operator delete(void* p, std::align_val_t) noexcept { counted_delete(p); }
void operator delete[](void* p, std::align_val_t) noexcept { counted_delete(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { counted_delete(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { counted_delete(p); }
void operator delete(void* p, std::align_val_t, std::nothrow_t const&) noexcept { counted_delete(p); }
void operator delete[](void* p, std::align_val_t, std::nothrow_t const&) noexcept { counted_delete(p); }
// clang-format on

namespace ovel {

namespace {

struct form {
    char const* name;
    void* (*allocate)(std::size_t);
    void (*deallocate)(void*, std::size_t);
};

constexpr std::align_val_t wide{64};

// clang-format off
constexpr form forms[] = {
    {"plain", [](std::size_t n) { return ::operator new(n); }, [](void* p, std::size_t) { ::operator delete(p); }},
    {"array", [](std::size_t n) { return ::operator new[](n); }, [](void* p, std::size_t) { ::operator delete[](p); }},
    {"sized", [](std::size_t n) { return ::operator new(n); }, [](void* p, std::size_t n) { ::operator delete(p, n); }},
    {"sized array", [](std::size_t n) { return ::operator new[](n); }, [](void* p, std::size_t n) { ::operator delete[](p, n); }},
    {"nothrow", [](std::size_t n) { return ::operator new(n, std::nothrow); }, [](void* p, std::size_t) { ::operator delete(p, std::nothrow); }},
    {"nothrow array", [](std::size_t n) { return ::operator new[](n, std::nothrow); }, [](void* p, std::size_t) { ::operator delete[](p, std::nothrow); }},
    {"aligned", [](std::size_t n) { return ::operator new(n, wide); }, [](void* p, std::size_t) { ::operator delete(p, wide); }},
    {"aligned array", [](std::size_t n) { return ::operator new[](n, wide); }, [](void* p, std::size_t) { ::operator delete[](p, wide); }},
    {"aligned sized", [](std::size_t n) { return ::operator new(n, wide); }, [](void* p, std::size_t n) { ::operator delete(p, n, wide); }},
    {"aligned sized array", [](std::size_t n) { return ::operator new[](n, wide); }, [](void* p, std::size_t n) { ::operator delete[](p, n, wide); }},
    {"aligned nothrow", [](std::size_t n) { return ::operator new(n, wide, std::nothrow); }, [](void* p, std::size_t) { ::operator delete(p, wide, std::nothrow); }},
    {"aligned nothrow array", [](std::size_t n) { return ::operator new[](n, wide, std::nothrow); }, [](void* p, std::size_t) { ::operator delete[](p, wide, std::nothrow); }},
};
// clang-format on

TEST(abi_test, what_the_program_allocates_never_enters_the_library) {
    for (form const& each : forms) {
        // A small and a large block, were they the library's.
        for (std::size_t const bytes : {std::size_t{40}, std::size_t{10'000}}) {
            SCOPED_TRACE(each.name);
            std::size_t const size = allocator_support::allocated_size();
            unsigned int const newed = news;
            unsigned int const deleted = deletes;
            void* const memory = each.allocate(bytes);
            std::size_t const held_size = allocator_support::allocated_size();
            unsigned int const now_newed = news;
            each.deallocate(memory, bytes);
            unsigned int const now_deleted = deletes;

            EXPECT_EQ(held_size, size);
            EXPECT_EQ(now_newed, newed + 1);
            EXPECT_EQ(now_deleted, deleted + 1);
        }
    }
}

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
// through it. Returns the bytes that the library held for it while it ran.
std::size_t run_net(token_passer& work) {
    std::size_t const before = allocator_support::allocated_size();
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
    return allocator_support::allocated_size() - before;
}

TEST(abi_test, what_the_library_allocates_never_enters_the_program) {
    token_passer work;
    unsigned int const newed = news;
    unsigned int const deleted = deletes;
    time::now();  // builds the time server
    std::size_t const held = run_net(work);
    unsigned int const now_newed = news;
    unsigned int const now_deleted = deletes;

    EXPECT_GT(held, 0u);
    EXPECT_EQ(now_newed, newed);
    EXPECT_EQ(now_deleted, deleted);
}

// The library knows the object by its base, whose virtual destructor it defines.
TEST(abi_test, work_that_the_program_created_goes_back_to_the_program) {
    struct nothing : thread_function {};
    unsigned int const newed = news;
    unsigned int const deleted = deletes;
    std::unique_ptr<thread_function> work = std::make_unique<nothing>();
    thread runner;
    runner.schedule(*work);
    runner.release();
    runner.acquire();
    work.reset();
    unsigned int const now_newed = news;
    unsigned int const now_deleted = deletes;

    EXPECT_EQ(now_newed, newed + 1);
    EXPECT_EQ(now_deleted, deleted + 1);
}

}  // namespace

}  // namespace ovel
