// SPDX-License-Identifier: Apache-2.0
// How often the process was forked.
#ifndef OVEL_LINUX_GENERATION_H
#define OVEL_LINUX_GENERATION_H

namespace ovel {

namespace detail {

// Written by the only thread of a child before `fork` returns in it.
extern constinit unsigned int process_generation_word;

}  // namespace detail

inline namespace kernel {

inline unsigned int process_generation() {
    return detail::process_generation_word;
}

// All other threads run until the process is gone.
inline bool other_threads_have_ended() {
    return false;
}

}  // namespace kernel

}  // namespace ovel

#endif
