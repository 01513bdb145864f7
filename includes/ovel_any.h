// SPDX-License-Identifier: Apache-2.0
// A value of any type: the token of a Petri net.
#ifndef OVEL_ANY_H
#define OVEL_ANY_H

#include "ovel_allocator_support.h"
#include "ovel_assure.h"
#include "ovel_frame.h"

#include <cstddef>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace ovel {

// Owns one value of any copyable type, or none. Copying an `any` copies its value. Not
// synchronised: threads that share an `any` guard it with a lock. Memory comes from
// `allocator_support`.
//
//     any token = std::string("paid");
//     std::string& text = any_cast<std::string>(token);
//     if (int* number = any_cast<int>(&token))
//         use(*number);
class any {
    // Holds the value. Do not reorder the three virtual functions: the library calls
    // holders that clients compiled.
    struct holder {
        holder() = default;
        holder(holder const&) = delete;
        holder& operator=(holder const&) = delete;
        virtual ~holder() = default;
        virtual std::type_info const& type() const = 0;
        virtual holder* clone() const = 0;

        // The library deletes holders that clients created, and clients those of the
        // library. So both use these operators.
        static void* operator new(std::size_t size) {
            return allocator_support::allocate(size);
        }
        static void operator delete(void* memory) {
            allocator_support::deallocate(memory);
        }
    };

    template <class T>
    struct value_holder final : holder {
        static_assert(alignof(T) <= 16, "allocator_support aligns no further");

        template <class Source>
        explicit value_holder(Source&& source) : value(std::forward<Source>(source)) {}

        std::type_info const& type() const override {
            return typeid(T);
        }
        holder* clone() const override {
            return new value_holder(value);
        }

        T value;
    };

public:
    // Empty.
    any() = default;

    // Holds a copy of `value`, or the moved value. Throws std::bad_alloc and whatever the
    // copy or move throws.
    template <class T>
    requires(!std::is_same_v<std::decay_t<T>, any> && std::is_copy_constructible_v<std::decay_t<T>>)
        any(T&& value)
        : _content(new value_holder<std::decay_t<T>>(std::forward<T>(value))) {}

    // Holds a T constructed from `source`. If memory runs out, `source` is untouched.
    // Throws std::bad_alloc and whatever the constructor throws.
    template <class T, class Source>
    any(std::in_place_type_t<T>, Source&& source)
        : _content(new value_holder<T>(std::forward<Source>(source))) {}

    // Throws std::bad_alloc and whatever copying the value throws.
    any(any const& other) : _content(other._clone()) {}

    // Takes the value of `other` and leaves it empty.
    any(any&& other) noexcept : _content(std::exchange(other._content, nullptr)) {}

    // Throw like the constructors. Copy assignment destroys the old value before it
    // copies the new one: if copying throws, this `any` is left empty, and `other` must
    // not be part of the old value.
    any& operator=(any const& other) {
        if (this != &other) {
            delete std::exchange(_content, nullptr);
            _content = other._clone();
        }
        return *this;
    }
    any& operator=(any&& other) noexcept {
        any(std::move(other)).swap(*this);
        return *this;
    }

    ~any() {
        delete _content;
    }

    // Exchanges the values without copying them.
    void swap(any& other) noexcept {
        std::swap(_content, other._content);
    }

    // Whether it holds no value.
    bool empty() const {
        return _content == nullptr;
    }

    // The type of the value; `void` if there is none.
    std::type_info const& type() const {
        return empty() ? typeid(void) : _content->type();
    }

private:
    friend struct detail::inspector;
    template <class T>
    friend T* any_cast(any*);
    template <class T>
    friend T const* any_cast(any const*);

    holder* _clone() const {
        return empty() ? nullptr : _content->clone();
    }

    holder* _content = nullptr;
};

// Points to the value if it is a T. Returns null if it is not, or if the operand is empty
// or null.
template <class T>
T* any_cast(any* operand) {
    if (operand == nullptr || operand->type() != typeid(T))
        return nullptr;
    return &static_cast<any::value_holder<std::remove_cv_t<T>>*>(operand->_content)->value;
}
template <class T>
T const* any_cast(any const* operand) {
    return any_cast<T const>(const_cast<any*>(operand));
}

// The value, which must be a T (check "operand.type() == typeid(T)").
template <class T>
std::remove_reference_t<T>& any_cast(any& operand) {
    assure(operand.type() == typeid(T));
    return *any_cast<std::remove_reference_t<T>>(&operand);
}
template <class T>
std::remove_reference_t<T> const& any_cast(any const& operand) {
    assure(operand.type() == typeid(T));
    return *any_cast<std::remove_reference_t<T>>(&operand);
}
// Deleted: the result would refer into a destroyed temporary.
template <class T>
void any_cast(any const&& operand) = delete;

}  // namespace ovel

#endif
