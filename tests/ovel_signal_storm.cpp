// SPDX-License-Identifier: Apache-2.0
// Linked into a suite: with OVEL_SIGNAL_STORM set, a thread interrupts the system calls of all
// others again and again, so that every wait is retried for the time that remains.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::jthread start_storm() {
    if (std::getenv("OVEL_SIGNAL_STORM") == nullptr)
        return {};
    struct sigaction interrupt = {};  // no SA_RESTART
    interrupt.sa_handler = [](int) {
    };
    sigaction(SIGUSR1, &interrupt, nullptr);
    return std::jthread([](std::stop_token const& over) {
        while (!over.stop_requested()) {
            for (auto const& each : std::filesystem::directory_iterator("/proc/self/task")) {
                long const thread = std::stol(each.path().filename());
                if (thread != gettid())
                    syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
}

std::jthread const storm = start_storm();

}  // namespace
