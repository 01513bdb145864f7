// SPDX-License-Identifier: Apache-2.0
// Loading and unloading the DLL.

#include "ovel_kernel.h"

#include <gtest/gtest.h>
#include <winternl.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

namespace {

// The client's exit status and output.
std::pair<int, std::string> run_client(char const* way) {
    std::string told;
    std::FILE* const pipe = _popen((std::string("ovel_windows_client ") + way).c_str(), "r");
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe))
        told += static_cast<char>(c);
    return {_pclose(pipe), told};
}

// The system ends all other threads, the library's too, before it notifies the library of the
// process's end. So the exit hooks must not wait for any.
TEST(client_test, a_client_may_leave_in_any_way) {
    using result = std::pair<int, std::string>;
    EXPECT_EQ(run_client("exit"), result(0, "used\n"));
    EXPECT_EQ(run_client("return"), result(0, "used\n"));
    EXPECT_EQ(run_client("free"), result(0, "used\nfreed\n"));
}

// The system's loader keeps a flag for each module.
TEST(client_test, thread_notifications_are_off) {
    constexpr std::uintptr_t attached = 0x80000;
    constexpr std::uintptr_t silent = 0x40000;
    using find_function = NTSTATUS NTAPI(void*, LDR_DATA_TABLE_ENTRY**);
    auto* const find = reinterpret_cast<find_function*>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "LdrFindEntryForAddress")));
    auto const flags = [&](char const* name) {
        LDR_DATA_TABLE_ENTRY* found = nullptr;
        find(GetModuleHandleA(name), &found);
        return reinterpret_cast<std::uintptr_t>(found->Reserved5[0]) & (attached | silent);
    };
    EXPECT_EQ(flags("ovel.dll"), attached | silent);
    EXPECT_EQ(flags("libstdc++-6.dll"), attached) << "the flag says something else";
}

}  // namespace
