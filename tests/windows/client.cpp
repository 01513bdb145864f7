// SPDX-License-Identifier: Apache-2.0
// Loads the library at run time and ends as its argument says: "return" from main, "exit", or
// "free", which unloads the library before any of its threads was started, while another thread
// is lent an allocator. That thread ends after the unload.

#include "ovel_kernel.h"

#include <cstdlib>
#include <semaphore>
#include <string_view>
#include <thread>

namespace {

void tell(std::string_view text) {
    DWORD written;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()),
              &written, nullptr);
}

}  // namespace

int main(int, char** arguments) {
    std::string_view const way = arguments[1];
    HMODULE const library = LoadLibraryA("ovel.dll");
    if (library == nullptr)
        return 1;
    HMODULE const user = LoadLibraryA("ovel_windows_use.dll");
    if (user == nullptr)
        return 2;
    auto* const use =
        reinterpret_cast<void (*)(bool)>(reinterpret_cast<void*>(GetProcAddress(user, "use")));
    bool const unloads = way == "free";
    use(!unloads);
    tell("used\n");
    if (way == "exit")
        std::exit(0);
    if (unloads) {
        std::binary_semaphore used(0), may_end(0);
        std::thread other([&] {
            use(false);
            used.release();
            may_end.acquire();
        });
        used.acquire();
        FreeLibrary(user);
        FreeLibrary(library);
        tell("freed\n");
        if (GetModuleHandleA("ovel.dll") != nullptr)
            return 3;
        may_end.release();
        other.join();
    }
    return 0;
}
