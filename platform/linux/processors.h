// SPDX-License-Identifier: Apache-2.0
// The processors of the process, and the masks that show them.
#ifndef OVEL_PLATFORM_LINUX_PROCESSORS_H
#define OVEL_PLATFORM_LINUX_PROCESSORS_H

#include <cstddef>

#include <sched.h>

namespace ovel::detail {

// A set of processors, with any number that the system supports.
class processor_set {
public:
    static constexpr int limit = 8192;

    bool has(int processor) const {
        return CPU_ISSET_S(static_cast<std::size_t>(processor), sizeof _parts, _parts) != 0;
    }
    void add(int processor) {
        CPU_SET_S(static_cast<std::size_t>(processor), sizeof _parts, _parts);
    }

    bool within(processor_set const& other) const {
        processor_set common;
        CPU_AND_S(sizeof _parts, common._parts, _parts, other._parts);
        return CPU_EQUAL_S(sizeof _parts, common._parts, _parts) != 0;
    }

    // Reads the processors that a thread may use; 0 means the caller. If there is no such
    // thread, returns false and leaves the set undefined.
    bool read(pid_t thread) {
        return sched_getaffinity(thread, sizeof _parts, _parts) == 0;
    }

    // Restricts a thread to the set, or to the part that the system grants. Returns false
    // if it grants none or if there is no such thread.
    bool apply(pid_t thread) const {
        return sched_setaffinity(thread, sizeof _parts, _parts) == 0;
    }

private:
    cpu_set_t _parts[limit / CPU_SETSIZE] = {};
};

// The processors that the bits of a mask stand for.
class processor_bits {
public:
    // If one of the first 32 processors is in `allowed`, bit i stands for processor i.
    // Otherwise it stands for the i-th allowed processor, and there are only as many
    // bits.
    void assign(processor_set const& allowed);

    // The bits of the processors of `set`.
    unsigned int mask_of(processor_set const& set) const;

    // The processors of the bits of `mask`.
    processor_set set_of(unsigned int mask) const;

    // Whether the bits are the first processors, rather than those allowed.
    bool direct() const {
        return _direct;
    }

private:
    int _processors[32] = {};
    int _size = 0;
    bool _direct = false;
};

// Gives the calling thread all processors of the process. Called by a starting thread,
// which has its creator's processors.
void use_processors_of_process();

// Whether the process has only one processor, so that polling is useless.
bool one_processor();

}  // namespace ovel::detail

#endif
