// SPDX-License-Identifier: Apache-2.0
// How often the process was forked, and whether the thread is forking it.
#ifndef OVEL_LINUX_GENERATION_H
#define OVEL_LINUX_GENERATION_H

namespace ovel {

namespace detail {

// Written by the only thread of a child before `fork` returns in it.
extern constinit unsigned int process_generation_word;

// The handlers of the fork set it.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local bool forking_word;

}  // namespace detail

inline namespace kernel {

inline unsigned int process_generation() {
    return detail::process_generation_word;
}

inline bool forking() {
    return detail::forking_word;
}

// All other threads run until the process is gone.
inline bool other_threads_have_ended() {
    return false;
}

}  // namespace kernel

}  // namespace ovel

#endif
