// SPDX-License-Identifier: Apache-2.0
// The library's memory for containers, for memory resources, and for a whole program.
//
//     std::vector<int, container_allocator<int>> numbers;
//     std::pmr::list<int> queue(memory_resource::global());
//
// The rules of `allocator_support` hold: any thread may allocate, and free what another
// allocated. `ovel.h` does not include this header, because it includes <memory_resource>.
#ifndef OVEL_MEMORY_H
#define OVEL_MEMORY_H

#include "ovel_allocator_support.h"
#include "ovel_frame.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory_resource>
#include <new>
#include <type_traits>

namespace ovel {

namespace detail {

// Memory of any alignment, a power of two. Up to a cacheline it is a block of
// `allocator_support`. Beyond that it lies inside a larger block, with the address of that
// block in front.
inline void* allocate_aligned(std::size_t bytes, std::size_t alignment) {
    if (alignment <= sizeof(cacheline))
        return allocator_support::allocate(bytes_aligned(bytes, alignment));
    if (bytes > std::numeric_limits<std::size_t>::max() - alignment)
        throw std::bad_alloc();
    // The block is aligned to a pointer. So the first multiple of `alignment` that leaves
    // room for a pointer is at most `alignment` bytes from its start.
    char* const block = static_cast<char*>(allocator_support::allocate(bytes + alignment));
    auto const past = reinterpret_cast<std::uintptr_t>(block) % alignment;
    void** const memory = reinterpret_cast<void**>(block + (alignment - past));
    memory[-1] = block;
    return memory;
}

// `alignment` is that of the allocation.
inline void deallocate_aligned(void* memory, std::size_t alignment) {
    if (alignment > sizeof(cacheline) && memory != nullptr)
        memory = static_cast<void**>(memory)[-1];
    allocator_support::deallocate(memory);
}

}  // namespace detail

// An allocator for the standard containers. All are equal: each may free what another
// allocated. `allocate` throws std::bad_alloc.
template <class T>
class container_allocator {
public:
    using value_type = T;  // required by containers

    // Allocators for different types are equal, too.
    container_allocator() = default;
    template <class U>
    container_allocator(container_allocator<U> const&) {}

    // Memory for `size` objects.
    T* allocate(std::size_t size) {
        if (size > std::numeric_limits<std::size_t>::max() / sizeof(T))
            throw std::bad_array_new_length();
        return static_cast<T*>(detail::allocate_aligned(size * sizeof(T), alignof(T)));
    }
    // Frees what `allocate` returned, on any thread.
    void deallocate(T* memory, std::size_t) {
        detail::deallocate_aligned(memory, alignof(T));
    }

    // True: each may free what the other allocated.
    template <class U>
    bool operator==(container_allocator<U> const&) const {
        return true;
    }
};

// Resizes `array`, which `resize_array` has returned or which is null, to `size` objects. It
// stays in place if the heap can do that, or moves without a copy if possible, so growing a
// large array step by step is cheap. Free it with `allocator_support::deallocate`. Throws
// std::bad_alloc, and then `array` is unchanged.
//
//     for (std::string line; std::getline(in, line); text_size += line.size()) {
//         text = resize_array(text, text_size + line.size());
//         line.copy(text + text_size, line.size());
//     }
template <class T>
T* resize_array(T* array, std::size_t size) {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) <= 8,
                  "the objects are moved as bytes");
    if (size > std::numeric_limits<std::size_t>::max() / sizeof(T))
        throw std::bad_array_new_length();
    return static_cast<T*>(allocator_support::resize(array, size * sizeof(T)));
}

// A memory resource for the polymorphic containers. All are equal.
class memory_resource final : public std::pmr::memory_resource {
public:
    // The one of the process, never destroyed.
    static memory_resource* global() {
        static memory_resource* const resource = new memory_resource;
        return resource;
    }

private:
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        return detail::allocate_aligned(bytes, alignment);
    }
    void do_deallocate(void* memory, std::size_t, std::size_t alignment) override {
        detail::deallocate_aligned(memory, alignment);
    }
    bool do_is_equal(std::pmr::memory_resource const& other) const noexcept override {
        return dynamic_cast<memory_resource const*>(&other) != nullptr;
    }
};

namespace detail {

inline void* program_new(std::size_t bytes, std::size_t alignment) {
    for (;;) {
        try {
            return allocate_aligned(bytes, alignment);
        } catch (std::bad_alloc const&) {
            std::new_handler const handler = std::get_new_handler();
            if (handler == nullptr)
                throw;
            handler();
        }
    }
}

// Objects shorter than 16 bytes cannot need that alignment.
inline std::size_t program_alignment(std::size_t bytes) {
    return bytes < 16 ? 8 : 16;
}
inline void* program_new(std::size_t bytes) {
    return program_new(bytes, program_alignment(bytes));
}
inline void* program_new(std::size_t bytes, std::align_val_t alignment) {
    return program_new(bytes, static_cast<std::size_t>(alignment));
}

inline void* program_new_nothrow(std::size_t bytes, std::size_t alignment) noexcept {
    try {
        return program_new(bytes, alignment);
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}
inline void* program_new_nothrow(std::size_t bytes) noexcept {
    return program_new_nothrow(bytes, program_alignment(bytes));
}
inline void* program_new_nothrow(std::size_t bytes, std::align_val_t alignment) noexcept {
    return program_new_nothrow(bytes, static_cast<std::size_t>(alignment));
}

inline void program_delete(void* memory, std::align_val_t alignment = std::align_val_t{1}) {
    deallocate_aligned(memory, static_cast<std::size_t>(alignment));
}

}  // namespace detail

}  // namespace ovel

// Write it once in a program, outside all namespaces, to replace `new` and `delete`: their
// memory is then the library's, on every thread.
//
// On Windows, link the standard library statically. Otherwise part of the program's memory
// comes from that library's own operators.
//
//     #include <ovel_memory.h>
//     OVEL_REPLACE_NEW_AND_DELETE;
// clang-format off
#define OVEL_REPLACE_NEW_AND_DELETE                                                            \
    void* operator new(std::size_t n) { return ovel::detail::program_new(n); }                 \
    void* operator new[](std::size_t n) { return ovel::detail::program_new(n); }               \
    void* operator new(std::size_t n, std::align_val_t a) {                                    \
        return ovel::detail::program_new(n, a);                                                \
    }                                                                                          \
    void* operator new[](std::size_t n, std::align_val_t a) {                                  \
        return ovel::detail::program_new(n, a);                                                \
    }                                                                                          \
    void* operator new(std::size_t n, std::nothrow_t const&) noexcept {                        \
        return ovel::detail::program_new_nothrow(n);                                           \
    }                                                                                          \
    void* operator new[](std::size_t n, std::nothrow_t const&) noexcept {                      \
        return ovel::detail::program_new_nothrow(n);                                           \
    }                                                                                          \
    void* operator new(std::size_t n, std::align_val_t a, std::nothrow_t const&) noexcept {    \
        return ovel::detail::program_new_nothrow(n, a);                                        \
    }                                                                                          \
    void* operator new[](std::size_t n, std::align_val_t a, std::nothrow_t const&) noexcept {  \
        return ovel::detail::program_new_nothrow(n, a);                                        \
    }                                                                                          \
    void operator delete(void* p) noexcept { ovel::detail::program_delete(p); }                \
    void operator delete[](void* p) noexcept { ovel::detail::program_delete(p); }              \
    void operator delete(void* p, std::size_t) noexcept { ovel::detail::program_delete(p); }   \
    void operator delete[](void* p, std::size_t) noexcept { ovel::detail::program_delete(p); } \
    void operator delete(void* p, std::align_val_t a) noexcept {                               \
        ovel::detail::program_delete(p, a);                                                    \
    }                                                                                          \
    void operator delete[](void* p, std::align_val_t a) noexcept {                             \
        ovel::detail::program_delete(p, a);                                                    \
    }                                                                                          \
    void operator delete(void* p, std::size_t, std::align_val_t a) noexcept {                  \
        ovel::detail::program_delete(p, a);                                                    \
    }                                                                                          \
    void operator delete[](void* p, std::size_t, std::align_val_t a) noexcept {                \
        ovel::detail::program_delete(p, a);                                                    \
    }                                                                                          \
    void operator delete(void* p, std::nothrow_t const&) noexcept {                            \
        ovel::detail::program_delete(p);                                                       \
    }                                                                                          \
    void operator delete[](void* p, std::nothrow_t const&) noexcept {                          \
        ovel::detail::program_delete(p);                                                       \
    }                                                                                          \
    void operator delete(void* p, std::align_val_t a, std::nothrow_t const&) noexcept {        \
        ovel::detail::program_delete(p, a);                                                    \
    }                                                                                          \
    void operator delete[](void* p, std::align_val_t a, std::nothrow_t const&) noexcept {      \
        ovel::detail::program_delete(p, a);                                                    \
    }                                                                                          \
    static_assert(true, "the macro may end with a semicolon")
// clang-format on

#endif
