// SPDX-License-Identifier: Apache-2.0
// A member of the ledger for the tests to kill, and to stop.
//
//     ovel_durable_member URL NET POINT COUNT [BYTES]
//
// It dies when it comes to POINT for the COUNT-th time: claimed, in the body, before or after a
// commit; or at none of these. Its files cannot be larger than so many bytes.
#include "ovel_durable_ledger.h"

#include <sys/resource.h>

using namespace ovel_durable_test;

int main(int count, char** arguments) {
    try {
        if (count == 6) {
            rlim_t const most = static_cast<rlim_t>(std::atoll(arguments[5]));
            rlimit const limit{most, most};
            std::signal(SIGXFSZ, SIG_IGN);
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        std::atomic<int> left = std::atoi(arguments[4]);
        auto const pass = [&](std::string const& here) {
            if (here == arguments[3] && --left == 0)
                std::raise(SIGKILL);
        };
        auto const connect = [&] {
            return std::make_unique<mortal_store>(parts::connect_to(arguments[1])(), pass);
        };
        ledger(connect, arguments[2], quickly(), [&] { pass("body"); }).run();
        return 0;
    } catch (std::exception const& failed) {
        std::fprintf(stderr, "%s\n", failed.what());
        return 1;
    }
}
