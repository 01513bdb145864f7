// SPDX-License-Identifier: Apache-2.0
// The report of a failed run: its last steps, and what each thread is doing.
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
    bool on_object;         // whether it concerns a kernel object
    std::uintptr_t object;  // its number, or an address
};

// The last steps of a run, up to the requested number.
class step_log {
public:
    explicit step_log(unsigned int size) : _ring(size) {}

    // Adds one step of thread `thread`. `caller` is the caller's address, if known.
    void add(unsigned int number, std::uint64_t at, unsigned int thread, action const& made,
             void* caller);
    // Records the value that the last step found and the one it left.
    void note(std::uint64_t found, std::uint64_t left);

    // One line per step; empty if no steps are recorded.
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

// What every thread of the run is doing or waiting for, and where. `failed_frame` is the
// frame pointer of the running thread at the point of failure.
std::string threads_text(world const& run, void* failed_frame);

// The name, without parameters, of the function that contains the call returning to
// `call`.
std::string function_at(void const* call);

// Describes an address as heap, stack or variable.
std::string place(std::uintptr_t address);

void append(std::string& text, char const* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace ovel::simulation

#endif
