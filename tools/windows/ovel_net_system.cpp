// SPDX-License-Identifier: Apache-2.0
#include "../ovel_net_system.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

#include <cstdlib>
#include <memory>
#include <system_error>

namespace ovel_net {

namespace {

// Binary mode: files have the same line ends on every system.
std::FILE* create(char const* name, int flags, char const* mode) {
    int const file = _open(name, flags | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
    return file == -1 ? nullptr : _fdopen(file, mode);
}

// Makes a file's handle inheritable by a started program.
HANDLE inheritable(std::FILE* file) {
    auto* const handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    return handle;
}

}  // namespace

bool error_stream_is_terminal() {
    return _isatty(_fileno(stderr)) != 0;
}

unsigned long process_identifier() {
    return GetCurrentProcessId();
}

std::FILE* create_file(std::string const& name) {
    return create(name.c_str(), _O_WRONLY, "wb");
}

std::FILE* scratch_file() {
    std::unique_ptr<char, void (*)(void*)> const name(_tempnam(nullptr, "ovel"), &std::free);
    return name == nullptr ? nullptr : create(name.get(), _O_RDWR | _O_TEMPORARY, "w+b");
}

std::FILE* open_nothing() {
    return std::fopen("NUL", "r+");
}

bool run_program(char const* program, char const* argument, std::FILE* from, std::FILE* to) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const nothing(open_nothing(), &std::fclose);
    STARTUPINFOA start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = inheritable(from);
    start.hStdOutput = inheritable(to);
    start.hStdError = inheritable(nothing.get());
    std::string command = std::string(program) + ' ' + argument;
    PROCESS_INFORMATION process;
    if (CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                       &process) == 0)
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD status = 1;
    GetExitCodeProcess(process.hProcess, &status);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return status == 0;
}

char const* const durable_library = nullptr;

void* find_in_library(char const*, char const*) {
    return nullptr;
}

}  // namespace ovel_net
