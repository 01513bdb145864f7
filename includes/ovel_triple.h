// SPDX-License-Identifier: Apache-2.0
// Three values that travel together.
#ifndef OVEL_TRIPLE_H
#define OVEL_TRIPLE_H

namespace ovel {

// A plain record, copied by value.
//
//     triple<unsigned int, double, unsigned int> const group = {4, 2.0, 65536};
template <class A, class B, class C>
struct triple {
    A first;   // named as in std::pair
    B second;  // likewise
    C third;   // likewise
};

}  // namespace ovel

#endif
