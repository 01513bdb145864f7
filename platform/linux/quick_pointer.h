// SPDX-License-Identifier: Apache-2.0
// A pointer in each thread that is read without a call.
#ifndef OVEL_LINUX_QUICK_POINTER_H
#define OVEL_LINUX_QUICK_POINTER_H

namespace ovel {

namespace detail {

// Initial-exec: its offset from the thread pointer is fixed once the library has been
// loaded.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local void* quick_pointer_word;

}  // namespace detail

inline namespace kernel {

inline void* quick_pointer() {
    return detail::quick_pointer_word;
}

inline void set_quick_pointer(void* value) {
    detail::quick_pointer_word = value;
}

}  // namespace kernel

}  // namespace ovel

#endif
