// SPDX-License-Identifier: Apache-2.0
#include "../ovel_net_system.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace ovel_net {

bool error_stream_is_terminal() {
    return isatty(STDERR_FILENO) == 1;
}

unsigned long process_identifier() {
    return static_cast<unsigned long>(getpid());
}

std::FILE* create_file(std::string const& name) {
    return std::fopen(name.c_str(), "wx");
}

std::FILE* scratch_file() {
    return std::tmpfile();
}

std::FILE* open_nothing() {
    return std::fopen("/dev/null", "r+");
}

bool run_program(char const* program, char const* argument, std::FILE* from, std::FILE* to) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fileno(from), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fileno(to), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string name = program;
    std::string option = argument;
    char* const arguments[] = {name.data(), option.data(), nullptr};
    pid_t child = 0;
    int const error = posix_spawnp(&child, program, &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category());
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
    return status == 0;
}

char const* const durable_library = "libovel_durable.so.1";

void* find_in_library(char const* library, char const* function) {
    void* const loaded = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    return loaded == nullptr ? nullptr : dlsym(loaded, function);
}

}  // namespace ovel_net
