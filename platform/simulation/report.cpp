// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include "heap.h"
#include "world.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace ovel::simulation {

namespace {

constexpr char const* operation_names[] = {
    "load",        "store",          "exchange",     "add",
    "compare",     "bits",           "pause",        "begin",
    "end",         "Sleep",          "Wait",         "acquired",
    "timed out",   "Release",        "ReleaseMutex", "CreateSemaphore",
    "CreateMutex", "_beginthreadex", "CloseHandle",  "malloc",
    "free",        "__rdtsc",        "SetAffinity",  "read",
    "write",       "clock jumps"};
static_assert(std::size(operation_names) == static_cast<std::size_t>(operation::tick) + 1);

char const* name(operation what) {
    return operation_names[static_cast<unsigned int>(what)];
}

std::string target(action const& made) {
    if (!made.on_object)
        return place(made.object);
    bool const thread = made.what == operation::begin || made.what == operation::end;
    std::string text;
    append(text, thread ? "thread %zu" : "#%zu", static_cast<std::size_t>(made.object));
    return text;
}

// Values are shown as signed 32-bit words, which most of them are.
long long shown(std::uint64_t value) {
    return static_cast<std::int32_t>(value);
}

// Functions of the simulation say nothing about the program, except a thread's entry
// function.
bool concerns_program(std::string const& function) {
    return function.find("ovel::simulation::") == std::string::npos ||
           function.find("worker") != std::string::npos;
}

void append_calls(std::string& text, fiber const& suspended, unsigned int slot) {
    constexpr unsigned int most = 12;
    void* calls[most];
    unsigned int const count = calls_of(suspended, slot, calls, most);
    for (unsigned int call = 0; call != count; ++call)
        if (std::string const function = function_at(calls[call]); concerns_program(function))
            append(text, "             in %s\n", function.c_str());
}

}  // namespace

void append(std::string& text, char const* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    text += line;
}

std::string function_at(void const* call) {
    Dl_info found;
    auto const before = static_cast<char const*>(call) - 1;
    if (dladdr(before, &found) == 0)
        return "?";
    std::string text;
    if (found.dli_sname != nullptr) {
        int status = 0;
        char* const plain = abi::__cxa_demangle(found.dli_sname, nullptr, nullptr, &status);
        text = status == 0 ? plain : found.dli_sname;
        std::free(plain);
        if (std::size_t const end = text.find('('); end != std::string::npos && end != 0)
            text.resize(end);
        return text;
    }
    char const* const file = std::strrchr(found.dli_fname, '/');
    append(text, "%s+0x%zx", file != nullptr ? file + 1 : found.dli_fname,
           static_cast<std::size_t>(before - static_cast<char const*>(found.dli_fbase)));
    return text;
}

std::string place(std::uintptr_t address) {
    auto const pointer = reinterpret_cast<void const*>(address);
    std::string text;
    if (address == 0)
        return text;
    if (heap::contains(pointer)) {
        append(text, "heap+0x%zx", static_cast<std::size_t>(address & 0xffffffff));
        return text;
    }
    for (unsigned int slot = 0; slot != slot_count; ++slot) {
        auto const low = reinterpret_cast<std::uintptr_t>(stack(slot));
        if (address >= low && address < low + stack_bytes) {
            append(text, "stack %u+0x%zx", slot,
                   static_cast<std::size_t>(low + stack_bytes - address));
            return text;
        }
    }
    Dl_info found;
    if (dladdr(pointer, &found) != 0 && found.dli_sname != nullptr)
        return function_at(static_cast<char const*>(pointer) + 1);
    append(text, "%p", pointer);
    return text;
}

void step_log::add(unsigned int number, std::uint64_t at, unsigned int thread, action const& made,
                   void* caller) {
    if (_ring.empty())
        return;
    _ring[_recorded++ % _ring.size()] = {number, at, thread, made, caller, false, 0, 0};
}

void step_log::note(std::uint64_t found, std::uint64_t left) {
    if (_ring.empty())
        return;
    step& last = _ring[(_recorded - 1) % _ring.size()];
    last.noted = true;
    last.found = found;
    last.left = left;
}

std::string step_log::text() const {
    std::string text;
    std::size_t const count = _recorded < _ring.size() ? _recorded : _ring.size();
    for (std::size_t each = _recorded - count; each != _recorded; ++each) {
        step const& one = _ring[each % _ring.size()];
        append(text, "  %5u %10llu ns  thread %-2u %-15s %-18s", one.number,
               static_cast<unsigned long long>(one.at), one.thread, name(one.made.what),
               target(one.made).c_str());
        if (one.noted && one.found != one.left)
            append(text, " %lld -> %lld", shown(one.found), shown(one.left));
        else if (one.noted)
            append(text, " %lld", shown(one.found));
        if (one.caller != nullptr)
            append(text, "  in %s", function_at(one.caller).c_str());
        text += '\n';
    }
    return text;
}

std::string threads_text(world const& run, void* failed_frame) {
    std::string text;
    for (threads_mask rest = run.alive; rest != 0; rest &= rest - 1) {
        unsigned int const slot = lowest(rest);
        thread const& each = run.threads[slot];
        bool const runs = slot == run.self && (run.ready & bit(slot)) != 0;
        append(text, "  thread %-2u ", each.state.number);
        if (runs) {
            text += "runs";
        } else if ((run.ready & bit(slot)) != 0) {
            append(text, "is ready for %s %s", name(each.doing.what), target(each.doing).c_str());
        } else if (slot == run.root && run.root_settles) {
            text += "waits for the others to come to rest";
        } else if (each.doing.what == operation::sleep) {
            text += "sleeps";
        } else {
            char object[96];
            describe_object(static_cast<unsigned int>(each.doing.object), object, sizeof object);
            append(text, "waits for %s", object);
        }
        if (each.deadline != never)
            append(text, ", until %llu ns", static_cast<unsigned long long>(each.deadline));
        text += "\n";
        fiber where = each.self;
        if (slot == run.self)  // as if suspended at the point of failure
            where.stack_pointer = static_cast<void**>(failed_frame) - 5;
        append_calls(text, where, slot);
    }
    return text;
}

}  // namespace ovel::simulation
