// Loading and unloading the DLL.

#include "ovel_kernel.h"

#include <gtest/gtest.h>
#include <winternl.h>

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

// As the system's loader keeps it.
struct module_entry {
    LIST_ENTRY load_order;
    LIST_ENTRY memory_order;
    LIST_ENTRY initialisation_order;
    void* base;
    void* entry_point;
    ULONG size;
    UNICODE_STRING path;
    UNICODE_STRING name;
    ULONG flags;
};

TEST(client_test, the_library_is_not_told_of_threads) {
    constexpr ULONG attached = 0x80000;
    constexpr ULONG silent = 0x40000;
    auto* const find =
        reinterpret_cast<NTSTATUS(NTAPI*)(void*, module_entry**)>(reinterpret_cast<void*>(
            GetProcAddress(GetModuleHandleA("ntdll.dll"), "LdrFindEntryForAddress")));
    ASSERT_NE(find, nullptr);
    auto const flags = [&](char const* name) -> ULONG {
        module_entry* found = nullptr;
        find(GetModuleHandleA(name), &found);
        return found == nullptr ? 0 : found->flags & (attached | silent);
    };
    EXPECT_EQ(flags("ovel.dll"), attached | silent);
    EXPECT_EQ(flags("libstdc++-6.dll"), attached) << "the flag says something else";
}

}  // namespace
