// SPDX-License-Identifier: Apache-2.0
// Shared by the suites: threads, waiting for a state, and the message of a failed check. It
// includes the library, and what most suites use of the standard library.
#ifndef OVEL_TEST_H
#define OVEL_TEST_H

#include "ovel.h"
#include "ovel_memory.h"
#include "ovel_parallel.h"
#include "ovel_petri.h"
#include "ovel_trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

// Returns once `holds()` is true. If it never is, ctest's time limit ends the test.
template <class Predicate>
void until(Predicate const& holds) {
    while (!holds())
        std::this_thread::yield();
}

// Threads that run `work(0)`, `work(1)`, ...; they are joined at the end of the scope.
template <class Work>
[[nodiscard]] std::vector<std::jthread> crew(int size, Work const& work) {
    std::vector<std::jthread> threads;
    for (int member = 0; member < size; ++member)
        threads.emplace_back(work, member);
    return threads;
}

// The result of `work`, which a new thread runs.
template <class Work>
auto elsewhere(Work const& work) {
    return std::async(std::launch::async, work).get();
}

// A value that counts its instances and its copies. Copying it throws once
// `copies_left`, which starts below zero, is used up.
struct fragile {
    explicit fragile(int number) : number(number) {
        ++alive;
    }
    fragile(fragile const& other) : fragile(other.number) {
        if (copies_left == 0)
            throw std::bad_alloc();
        --copies_left;
        ++copies;
    }
    fragile(fragile&& other) noexcept : fragile(other.number) {}
    ~fragile() {
        --alive;
    }
    int number;
    static inline std::atomic<int> alive = 0, copies = 0, copies_left = -1;
};

// Says the whole text where it should have been otherwise.
inline testing::AssertionResult contains(std::string const& text, std::string_view part) {
    return testing::AssertionResult(text.find(part) != text.npos) << text;
}

// Takes a pointer: the compiler would assume that a reference is aligned.
inline bool aligned(void const* memory, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(memory) % alignment == 0;
}

// A number, as a regular expression. GoogleTest brings its own, simpler expressions
// where the system has none.
#if GTEST_USES_SIMPLE_RE
#define ANY_NUMBER "\\d+"
#else
#define ANY_NUMBER "[0-9]+"
#endif

// A regular expression for all that a failed check prints: one line with the expression as
// written, the file relative to the root, and a line number.
inline std::string failed_check(std::string_view expression, std::string_view file) {
    std::string text = "^ovel::assure_failed\\(";
    for (char const letter : expression) {
        if (std::string_view("\\^$.[]|()*+?{}").find(letter) != std::string_view::npos)
            text += '\\';
        text += letter;
    }
    return text.append(", ").append(file).append(", " ANY_NUMBER "\\)\n$");
}

#define EXPECT_CHECK(statement, expression, file) \
    EXPECT_DEATH(static_cast<void>(statement), failed_check(expression, file))

// Death tests execute the program again for their statement. A fork would have lost the other
// threads.
struct threadsafe_death_tests : testing::Environment {
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};
inline testing::Environment* const death_tests =
    testing::AddGlobalTestEnvironment(new threadsafe_death_tests);

#endif
