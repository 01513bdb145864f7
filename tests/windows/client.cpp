// SPDX-License-Identifier: Apache-2.0
// Loads the library at run time and ends as its argument says: "return" from main, "exit", or
// "free", which unloads the library before any of its threads was started. "free_and_end" does
// the same while another thread is lent an allocator. That thread ends after the unload.

#include "use.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace {

void tell(std::string_view text) {
    DWORD written;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()),
              &written, nullptr);
}

// A thread of the program that is lent an allocator, and lives until it is joined.
class lent_thread {
public:
    explicit lent_thread(use_function* use)
        : _use(use), _thread(CreateThread(nullptr, 0, _run, this, 0, nullptr)) {
        WaitForSingleObject(_used, INFINITE);
    }
    lent_thread(lent_thread const&) = delete;
    lent_thread& operator=(lent_thread const&) = delete;

    // Whether it has ended as it should.
    bool join() {
        SetEvent(_may_end);
        DWORD status = 1;
        return WaitForSingleObject(_thread, INFINITE) == WAIT_OBJECT_0 &&
               GetExitCodeThread(_thread, &status) != 0 && status == 0;
    }

private:
    static DWORD WINAPI _run(void* argument) {
        lent_thread& own = *static_cast<lent_thread*>(argument);
        own._use(false);
        SetEvent(own._used);
        WaitForSingleObject(own._may_end, INFINITE);
        return 0;
    }

    use_function* const _use;
    HANDLE const _used = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE const _may_end = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE const _thread;
};

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
        reinterpret_cast<use_function*>(reinterpret_cast<void*>(GetProcAddress(user, "use")));
    bool const unloads = way == "free" || way == "free_and_end";
    use(!unloads);
    tell("used\n");
    if (way == "exit")
        std::exit(0);
    if (unloads) {
        std::optional<lent_thread> other;
        if (way == "free_and_end")
            other.emplace(use);
        FreeLibrary(user);
        FreeLibrary(library);
        tell("freed\n");
        if (GetModuleHandleA("ovel.dll") != nullptr)
            return 3;
        return !other || other->join() ? 0 : 4;
    }
    return 0;
}
