// SPDX-License-Identifier: Apache-2.0
#include "ovel_net_output.h"
#include "ovel_net_failure.h"
#include "ovel_net_system.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace ovel_net {

namespace {

namespace fs = std::filesystem;

using unique_file = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

failure unwritable(std::string const& name, std::error_code const& error) {
    return bad_file(name, 1, "cannot be written: " + error.message());
}

// Call it after a failed call of the standard library.
failure unwritable(std::string const& name) {
    return unwritable(name, {errno, std::generic_category()});
}

// Whether the program appends to `name` and never replaces it. That includes the standard
// streams, even if they go to files.
bool is_device(std::string const& name) {
    if (name.starts_with("/dev/"))
        return true;
    std::error_code ignored;
    fs::file_status const status = fs::status(name, ignored);
    return fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status);
}

// Runs dot from one file to another. `name` is what it draws. The program does not show
// dot's own messages.
void run_dot(std::string const& name, char const* argument, std::FILE* from, std::FILE* to) {
    try {
        if (!run_program("dot", argument, from, to))
            throw bad_file(name, 1, "cannot be drawn: Graphviz's dot failed");
    } catch (std::system_error const& failed) {
        throw bad_file(name, 1,
                       "cannot be drawn: Graphviz's dot does not run: " + failed.code().message());
    }
}

}  // namespace

output_file::output_file(std::string const& name)
    : _name(name), _target(name), _file(nullptr, &std::fclose) {
    if (!is_device(name)) {
        std::error_code error;
        _target = fs::weakly_canonical(name, error).string();
        if (!error && fs::is_directory(_target))
            error = std::make_error_code(std::errc::is_a_directory);
        if (error)
            throw unwritable(name, error);
        _temporary = _target + '.' + std::to_string(process_identifier());
    }
    _file.reset(_temporary.empty() ? std::fopen(_target.c_str(), "a") : create_file(_temporary));
    if (_file == nullptr)
        throw unwritable(name);
}

output_file::~output_file() {
    _file.reset();  // some systems do not remove an open file
    if (!_temporary.empty())
        std::remove(_temporary.c_str());
}

void output_file::write(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), _file.get()) != text.size())
        throw unwritable(_name);
}

void output_file::close() {
    if (std::fclose(_file.release()) != 0)
        throw unwritable(_name);
}

void output_file::commit() {
    if (std::error_code error; !_temporary.empty()) {
        fs::rename(_temporary, _target, error);
        if (error)
            throw unwritable(_name, error);
    }
    _temporary.clear();
}

std::string svg(std::string const& name, std::string const& drawing) {
    unique_file const input(scratch_file(), &std::fclose);
    unique_file const output(scratch_file(), &std::fclose);
    if (input == nullptr || output == nullptr ||
        std::fwrite(drawing.data(), 1, drawing.size(), input.get()) != drawing.size() ||
        std::fflush(input.get()) != 0)
        throw unwritable(name);
    std::rewind(input.get());
    run_dot(name, "-Tsvg", input.get(), output.get());
    std::rewind(output.get());
    std::string picture;
    char part[4096];
    while (std::size_t const size = std::fread(part, 1, sizeof part, output.get()))
        picture.append(part, size);
    if (std::ferror(output.get()) != 0)
        throw unwritable(name);
    return picture;
}

void require_writable(std::string const& name) {
    if (!is_device(name))
        output_file(name).write("");
}

void require_graphviz(std::string const& name) {
    unique_file const nothing(open_nothing(), &std::fclose);
    run_dot(name, "-V", nothing.get(), nothing.get());
}

}  // namespace ovel_net
