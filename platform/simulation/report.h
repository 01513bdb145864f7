// SPDX-License-Identifier: Apache-2.0
// What a failed run tells: its last steps, and what each thread is doing.
#ifndef OVEL_SIMULATION_REPORT_H
#define OVEL_SIMULATION_REPORT_H

#include "scheduler.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ovel::simulation {

struct world;

// What a thread does, and to what.
struct action {
    operation what;
    bool on_object;         // whether that concerns a kernel object
    std::uintptr_t object;  // its number, or an address
};

// The last steps of a run, as many as are asked for.
class step_log {
public:
    explicit step_log(unsigned int size) : _ring(size) {}

    // One step, by thread `thread`, called from `caller` if known.
    void add(unsigned int number, std::uint64_t at, unsigned int thread, action const& made,
             void* caller);
    // What the last step found and left.
    void note(std::uint64_t found, std::uint64_t left);

    // One line a step; empty when nothing is recorded.
    std::string text() const;

private:
    struct step {
        unsigned int number;
        std::uint64_t at;
        unsigned int thread;
        action made;
        void* caller;
        bool noted;
        std::uint64_t found, left;
    };

    std::vector<step> _ring;
    std::size_t _recorded = 0;
};

// What every thread of the run does or waits for, and where. `failed_frame` is the
// frame pointer of the running thread where the run failed.
std::string threads_text(world const& run, void* failed_frame);

// The name, without parameters, of the function that contains the call which returns
// to `call`.
std::string function_at(void const* call);

// An address as heap, stack or variable.
std::string place(std::uintptr_t address);

void append(std::string& text, char const* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace ovel::simulation

#endif
