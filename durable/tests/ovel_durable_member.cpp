// SPDX-License-Identifier: Apache-2.0
// A member of the ledger for the tests to kill, and to stop.
//
//     ovel_durable_member URL NET POINT COUNT
//
// It dies when it comes to POINT for the COUNT-th time: claimed, in the body, before or after a
// commit; or at none of these. An error ends it with its text.
#include "ovel_durable_ledger.h"

using namespace ovel_durable_test;

int main(int, char** arguments) {
    alarm(200);  // a test that has failed does not kill it
    std::atomic<int> left = std::atoi(arguments[4]);
    auto const pass = [&](std::string const& here) {
        if (here == arguments[3] && --left == 0)
            std::raise(SIGKILL);
    };
    auto const connect = [&] {
        return std::make_unique<mortal_store>(parts::connect_to(arguments[1])(), pass);
    };
    ledger(connect, arguments[2], quickly(), [&] { pass("body"); }).run();
}
