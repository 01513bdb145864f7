// SPDX-License-Identifier: Apache-2.0
// A member for the tests to kill and to stop.
//
//     ovel_durable_member URL NET ledger POINT COUNT
//         runs the ledger, and dies when it comes to POINT for the COUNT-th time: claimed, in
//         the body, before or after a commit; or at none of these
//     ovel_durable_member URL NET sleeper FOLDER
//         fires once, for as long as there is no file FOLDER/go on; makes FOLDER/begun
//     ovel_durable_member URL NET limited BYTES
//         runs the ledger with no file larger than so many bytes
#include "ovel_durable_ledger.h"

#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace {

using namespace ovel_durable_test;

void run_ledger(std::string const& url, std::string const& name, std::string const& point,
                int count) {
    std::atomic<int> left = count;
    auto const pass = [&](std::string const& here) {
        if (here == point && --left == 0)
            std::raise(SIGKILL);
    };
    auto const connect = [&] {
        return std::make_unique<mortal_store>(parts::connect_to(url)(), pass);
    };
    ledger(connect, name, quickly(), [&] { pass("body"); }).run();
}

void run_sleeper(std::string const& url, std::string const& name, std::string const& folder) {
    durable::net net(url, name, quickly());
    auto const in = insert_work(net, [&](int number) {
                        std::ofstream(folder + "/begun");
                        wait_for([&] { return std::filesystem::exists(folder + "/go on"); });
                        return number + 1;
                    }).first;
    net.start();
    in.send(1);
    net.join();
}

}  // namespace

int main(int count, char** arguments) {
    std::string const url = arguments[1], name = arguments[2], what = arguments[3];
    try {
        if (what == "ledger") {
            run_ledger(url, name, arguments[4], std::atoi(arguments[5]));
        } else if (what == "sleeper" && count == 5) {
            run_sleeper(url, name, arguments[4]);
        } else {
            rlim_t const most = static_cast<rlim_t>(std::atoll(arguments[4]));
            rlimit const limit{most, most};
            std::signal(SIGXFSZ, SIG_IGN);
            setrlimit(RLIMIT_FSIZE, &limit);
            run_ledger(url, name, "", 0);
        }
        return 0;
    } catch (std::exception const& failed) {
        std::fprintf(stderr, "%s\n", failed.what());
        return 1;
    }
}
