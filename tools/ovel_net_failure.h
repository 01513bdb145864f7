// SPDX-License-Identifier: Apache-2.0
// The end of a run that fails: one line on the error stream, and a status.
#ifndef OVEL_NET_FAILURE_H
#define OVEL_NET_FAILURE_H

#include <string>

namespace ovel_net {

// The program throws this wherever it gives up. `main` prints `text` after "ovel-net: "
// and exits with `status`.
struct failure {
    int status;
    std::string text;
};

// `what` is wrong in line `line` of `file`, an input or an output. Line 1 also represents
// the whole file.
inline failure bad_file(std::string const& file, unsigned int line, std::string const& what) {
    return {2, file + ':' + std::to_string(line) + ": " + what};
}

inline failure bad_option(std::string const& what) {
    return {64, what + " (see --help)"};
}

// A result that contradicts the net: a bug in this program or in the library.
inline failure internal_error(std::string const& what) {
    return {70, "internal error: " + what};
}

}  // namespace ovel_net

#endif
