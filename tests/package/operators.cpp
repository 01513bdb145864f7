// SPDX-License-Identifier: Apache-2.0
// A program with its own allocation operators. Those of a static library do not replace them,
// and the library does not use them. Static objects of the program use the library, which must
// be complete before their constructors run.
#include "../ovel_own_operators.h"

#include <ovel.h>

#include <cstdio>

// Each thread, place and group of threads makes the library allocate.
void use() {
    ovel::petri_net net;
    net.insert_place(16);
    net.release();
    net.acquire();
}
struct static_user {
    static_user() {
        use();
    }
    ~static_user() {
        use();
    }
} const user;

char const* fault() {
    if (own_operators::calls != 0)
        return "The library used the program's operators";
    if (ovel::allocator_support::allocated_size() == 0)
        return "The library allocated nothing";
    delete new int;
    return own_operators::calls == 2 ? "" : "The program's operators were replaced";
}

int main() {
    char const* const found = fault();
    std::fputs(found, stdout);
    return *found != '\0';
}
