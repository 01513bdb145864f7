// SPDX-License-Identifier: Apache-2.0
// How a run that can't be done ends: one line on the error stream and a status.
#ifndef OVEL_NET_FAILURE_H
#define OVEL_NET_FAILURE_H

#include <string>

namespace ovel_net {

// Thrown wherever the program gives up; `main` prints `text` after "ovel-net: "
// and exits with `status`.
struct failure {
    int status;
    std::string text;
};

// `what` is wrong in `line` of `file`, an input or an output; line 1 also stands
// for the file as a whole.
inline failure bad_file(std::string const& file, unsigned int line, std::string const& what) {
    return {2, file + ':' + std::to_string(line) + ": " + what};
}

inline failure bad_option(std::string const& what) {
    return {64, what + " (see --help)"};
}

// A result that contradicts the net: a fault of this program or of the library.
inline failure internal_error(std::string const& what) {
    return {70, "internal error: " + what};
}

}  // namespace ovel_net

#endif
