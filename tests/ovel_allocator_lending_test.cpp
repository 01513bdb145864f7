// SPDX-License-Identifier: Apache-2.0
// Threads that use memory without any preparation. The chunk of a block shows which allocator
// served the thread.
#include "ovel_allocator.h"
#include "ovel_test.h"

#include <pthread.h>

struct ovel::detail::inspector {
    static bool activated(allocator const* subject) {
        return subject->_activated;
    }
    static std::size_t in_use(allocator const* subject) {
        return subject->_size;
    }
};

namespace {

using namespace ovel;
using detail::inspector;

allocator_group& group = *allocator_group::global();

// The allocator of a small block. Reads memory that is poisoned for AddressSanitizer.
[[gnu::no_sanitize_address]] allocator* owner_of(void* memory) {
    return static_cast<detail::block*>(memory)[-1]._chunk->_allocator;
}

// The allocator that serves the calling thread.
allocator* serving() {
    void* const memory = allocator_support::allocate(100);
    allocator* const owner = owner_of(memory);
    allocator_support::deallocate(memory);
    return owner;
}

TEST(lending_test, a_thread_that_only_frees_takes_no_memory) {
    std::vector<void*> memory;
    for (int i = 0; i < 1000; ++i)
        memory.push_back(allocator_support::allocate(100));
    elsewhere(serving);
    group.flush_allocator(false);
    std::size_t const capacity = allocator_support::allocated_capacity();
    std::size_t const size = allocator_support::allocated_size();
    std::thread([&] {
        for (void* each : memory)
            allocator_support::deallocate(each);
    }).join();
    EXPECT_EQ(allocator_support::allocated_capacity(), capacity);
    // The thread handed over what it freed when it ended.
    group.flush_allocator(false);
    EXPECT_EQ(allocator_support::allocated_size(), size - 1000 * 128);
}

// Called at a thread's end. The block may be another thread's: then it waits in the thread's
// allocator, or goes straight home.
void use_memory(void* block) {
    ovel_free(block);
    for (int i = 0; i < 100; ++i)
        ovel_free(ovel_malloc(40 * i));
}

// What a thread's `at_destructors` frees; one thread at a time. MinGW may free the memory of
// thread_local variables before it destroys them, so it is not kept in one.
void* kept = nullptr;

struct at_destructors {
    ~at_destructors() {
        use_memory(kept);
    }
};

// Later threads get another allocator if one leaks or is given back twice. The destructors of
// thread_local objects come before the library's, which gives the thread's allocator
// back. That of a younger key finds the thread without an allocator.
TEST(lending_test, destructors_of_a_thread_use_memory_and_leave_nothing) {
    pthread_key_t younger;
    ASSERT_EQ(pthread_key_create(&younger, use_memory), 0);
    auto const use = [&] {
        static thread_local at_destructors ends;
        static_cast<void>(&ends);
        pthread_setspecific(younger, ovel_malloc(100));
    };
    serving();  // takes the default allocator, if this is the first to use memory
    allocator* const lent = elsewhere(serving);
    group.flush_allocator(false);
    std::size_t const size = allocator_support::allocated_size();
    for (int i = 0; i < 40; ++i) {
        kept = ovel_malloc(100);
        std::thread(use).join();
        EXPECT_EQ(elsewhere(serving), lent);
    }
    group.flush_allocator(false);
    EXPECT_EQ(allocator_support::allocated_size(), size);
    elsewhere([&] {
        EXPECT_EQ(serving(), lent);
        EXPECT_NE(elsewhere(serving), lent);
    });
    pthread_key_delete(younger);
}

TEST(lending_test, the_default_allocator_serves_one_thread_and_then_the_next) {
    allocator* const first = group.default_allocator();
    EXPECT_EQ(serving(), first);
    EXPECT_NE(elsewhere(serving), first);
    {
        thread_allocator const own;
        EXPECT_FALSE(inspector::activated(first));
        auto* const mine = group.specific_allocator();
        for (int scopes = 0; scopes != 2; ++scopes) {
            thread_allocator const inner;
            EXPECT_EQ(group.specific_allocator(), mine);
        }
        elsewhere([&] {
            EXPECT_EQ(serving(), first);
            EXPECT_EQ(group.specific_allocator(), first);
            group.acquire_allocator();  // the default one is free again
            EXPECT_NE(group.specific_allocator(), first);
            EXPECT_EQ(serving(), group.specific_allocator());
            EXPECT_EQ(elsewhere(serving), first);
            group.release_allocator();
        });
        EXPECT_EQ(elsewhere(serving), first);
        EXPECT_NE(serving(), first);
    }
    EXPECT_EQ(serving(), first);
    // A thread that selects it explicitly does not get it while another has it.
    elsewhere([&] {
        group.specific_allocator(group.default_allocator());
        EXPECT_EQ(group.specific_allocator(), first);
        EXPECT_NE(serving(), first);
    });
}

TEST(lending_test, what_a_thread_was_lent_becomes_its_own_and_is_given_back_once) {
    serving();  // so that no other thread gets the default allocator
    elsewhere([&] {
        allocator* const lent = serving();
        group.acquire_allocator();
        EXPECT_EQ(group.specific_allocator(), lent);
        EXPECT_EQ(serving(), lent);
        group.release_allocator();
        EXPECT_EQ(group.specific_allocator(), lent);
        EXPECT_FALSE(inspector::activated(lent));
        EXPECT_CHECK(group.release_allocator(), "_activated", "sources/ovel_allocator.cpp");
        EXPECT_EQ(elsewhere(serving), lent);
        // It is lent to the thread again, which does not own it and must not release it twice.
        EXPECT_EQ(serving(), lent);
        EXPECT_CHECK(group.release_allocator(), "_activated", "sources/ovel_allocator.cpp");
        group.specific_allocator(nullptr);
        EXPECT_FALSE(inspector::activated(lent));
        EXPECT_EQ(serving(), lent);
        group.deactivate_allocator(false);
        EXPECT_CHECK(group.release_allocator(), "_activated", "sources/ovel_allocator.cpp");
        group.activate_allocator();
        group.release_allocator();  // of what it was lent
        EXPECT_EQ(elsewhere(serving), lent);
        EXPECT_CHECK(group.release_allocator(), "_activated", "sources/ovel_allocator.cpp");
    });
}

TEST(lending_test, an_allocator_that_is_lent_can_be_switched_off_and_flushed) {
    void* const memory = allocator_support::allocate(100);
    allocator* const own = owner_of(memory);
    group.flush_allocator(false);
    std::size_t const size = inspector::in_use(own);
    allocator* lent;
    std::thread([&] {
        lent = serving();
        ovel_free(memory);
        group.deactivate_allocator(true);
        EXPECT_FALSE(inspector::activated(lent));
        group.activate_allocator();
        group.flush_allocator(false);
        group.deactivate_allocator(true);
    }).join();  // it is given back although it is deactivated
    group.flush_allocator(false);
    EXPECT_EQ(inspector::in_use(own), size - 128);
    EXPECT_EQ(elsewhere(serving), lent);
    EXPECT_CHECK(elsewhere([&] { group.activate_allocator(); }), "!_activated",
                 "sources/ovel_allocator.cpp");
    EXPECT_CHECK((group.deactivate_allocator(true), group.deactivate_allocator(true)), "_activated",
                 "sources/ovel_allocator.cpp");
}

}  // namespace
