// SPDX-License-Identifier: Apache-2.0
// What a handle points to.
//
// An object begins with its kind, so that a service recognises a handle of another kind
// and returns its failure value. Objects come from the runtime heap and have trivial
// destructors: `free` ends them.
#ifndef OVEL_PLATFORM_LINUX_OBJECT_H
#define OVEL_PLATFORM_LINUX_OBJECT_H

#include "kernel.h"

#include <memory>
#include <type_traits>
#include <utility>

namespace ovel::detail {

enum class object_kind { semaphore, mutex, thread, current_thread, current_process };

struct kernel_object {
    object_kind const kind;
};

// The object of `handle`; null if `handle` is null or of another kind.
template <class Object>
Object* object_of(HANDLE handle) {
    auto* const object = static_cast<kernel_object*>(handle);
    return object && object->kind == Object::own_kind ? static_cast<Object*>(object) : nullptr;
}

// Creates an object on the runtime heap; returns null if memory runs out.
template <class Object, class... Arguments>
Object* make_object(Arguments&&... arguments) {
    static_assert(std::is_trivially_destructible_v<Object>);
    void* const memory = malloc(sizeof(Object));
    if (!memory)
        return nullptr;
    return std::construct_at(static_cast<Object*>(memory), std::forward<Arguments>(arguments)...);
}

}  // namespace ovel::detail

#endif
