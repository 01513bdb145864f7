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

// The client's exit status and what it told.
std::pair<int, std::string> run_client(char const* way) {
    std::string told;
    std::FILE* const pipe = _popen((std::string("ovel_windows_client ") + way).c_str(), "r");
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe))
        told += static_cast<char>(c);
    return {_pclose(pipe), told};
}

// The system ends all other threads before it tells the library that the process
// ends: the hooks must bear that, and still run in their order.
TEST(client_test, whichever_way_a_client_leaves_the_exit_hooks_run_in_their_order) {
    using result = std::pair<int, std::string>;
    char const all[] = "recycler joined\nidle threads joined, pool destroyed\n";
    EXPECT_EQ(run_client("exit"), result(0, all));
    EXPECT_EQ(run_client("return"), result(0, all));
    EXPECT_EQ(run_client("free"), result(0, "idle threads joined, pool destroyed\nfreed\n"));
}

// A flag says it in what the system's loader keeps of the module.
TEST(client_test, the_library_is_not_told_of_threads) {
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
