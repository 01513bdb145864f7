// SPDX-License-Identifier: Apache-2.0
// A program with its own allocation operators. Those of a static library do not replace them,
// and the library does not use them. Static objects of the program use the library, which must
// be complete before their constructors run.
#include <ovel.h>

#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

int calls = 0;

}  // namespace

void* operator new(std::size_t bytes) {
    ++calls;
    void* const memory = std::malloc(bytes);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    ++calls;
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    ++calls;
    std::free(memory);
}

// Each thread, place and group of threads makes the library allocate.
struct static_user {
    static_user() {
        use();
    }
    ~static_user() {
        use();
    }
    static void use() {
        ovel::petri_net net;
        net.insert_place(16);
        net.release();
        net.acquire();
    }
} const user;

int main() {
    if (calls != 0) {
        std::puts("The library used the program's operators");
        return 1;
    }
    if (ovel::allocator_support::allocated_size() == 0) {
        std::puts("The library allocated nothing");
        return 1;
    }
    delete new int;
    if (calls != 2) {
        std::puts("The program's operators were replaced");
        return 1;
    }
}
