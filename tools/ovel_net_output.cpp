#include "ovel_net_output.h"
#include "ovel_net_failure.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace ovel_net {

namespace {

namespace fs = std::filesystem;

using unique_file = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

failure unwritable(std::string const& name, int error) {
    return bad_file(name, 1, std::string("cannot be written: ") + std::strerror(error));
}

// Whether `name` stands for something that is added to and never replaced. The
// standard streams are that even where they lead to files.
bool is_device(std::string const& name) {
    if (name.starts_with("/dev/"))
        return true;
    std::error_code ignored;
    fs::file_status const status = fs::status(name, ignored);
    return fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status);
}

// Runs dot from one file to another; `name` is what is being drawn. What dot has to
// say is no line of this program's.
void run_dot(std::string const& name, char const* argument, std::FILE* from, std::FILE* to) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fileno(from), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fileno(to), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char program[] = "dot";
    std::string option = argument;
    char* const arguments[] = {program, option.data(), nullptr};
    pid_t child = 0;
    int const error = posix_spawnp(&child, program, &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw bad_file(
            name, 1,
            std::string("cannot be drawn: Graphviz's dot does not run: ") + std::strerror(error));
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
    if (status != 0)
        throw bad_file(name, 1, "cannot be drawn: Graphviz's dot failed");
}

}  // namespace

output_file::output_file(std::string const& name)
    : _name(name), _target(name), _file(nullptr, &std::fclose) {
    if (!is_device(name)) {
        std::error_code error;
        _target = fs::weakly_canonical(name, error).string();
        if (error || fs::is_directory(_target))
            throw unwritable(name, error ? error.value() : EISDIR);
        _temporary = _target + '.' + std::to_string(getpid());
    }
    // Never through what is already there: "x".
    _file.reset(_temporary.empty() ? std::fopen(_target.c_str(), "a")
                                   : std::fopen(_temporary.c_str(), "wx"));
    if (_file == nullptr) {
        int const error = errno;
        throw unwritable(name, error);
    }
}

output_file::~output_file() {
    if (!_temporary.empty())
        std::remove(_temporary.c_str());
}

void output_file::write(std::string const& text) {
    if (std::fwrite(text.data(), 1, text.size(), _file.get()) != text.size())
        throw unwritable(_name, errno);
}

void output_file::write_svg(std::string const& drawing) {
    unique_file const input(std::tmpfile(), &std::fclose);
    if (input == nullptr ||
        std::fwrite(drawing.data(), 1, drawing.size(), input.get()) != drawing.size() ||
        std::fflush(input.get()) != 0)
        throw unwritable(_name, errno);
    std::rewind(input.get());
    run_dot(_name, "-Tsvg", input.get(), _file.get());
}

void output_file::commit() {
    if (std::fclose(_file.release()) != 0 ||
        (!_temporary.empty() && std::rename(_temporary.c_str(), _target.c_str()) != 0))
        throw unwritable(_name, errno);
    _temporary.clear();
}

void require_writable(std::string const& name) {
    if (!is_device(name))
        output_file(name).write("");
}

void require_graphviz(std::string const& name) {
    unique_file const nothing(std::fopen("/dev/null", "r+"), &std::fclose);
    run_dot(name, "-V", nothing.get(), nothing.get());
}

}  // namespace ovel_net
