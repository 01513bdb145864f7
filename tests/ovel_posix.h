// SPDX-License-Identifier: Apache-2.0
// Shared by the suites for POSIX systems: temporary folders, and children of a fork.
#ifndef OVEL_POSIX_H
#define OVEL_POSIX_H

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

namespace fs = std::filesystem;

inline std::string content(fs::path const& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A temporary folder that all users may write to.
class folder {
public:
    folder() {
        if (mkdtemp(_path.data()) == nullptr)
            throw std::runtime_error("no folder for the tests");
        chmod(_path.c_str(), 0777);
    }
    ~folder() {
        std::error_code ignored;
        fs::remove_all(_path, ignored);
    }
    folder(folder const&) = delete;
    folder& operator=(folder const&) = delete;

    std::string const& path() const {
        return _path;
    }
    std::string operator/(std::string const& name) const {
        return _path + '/' + name;
    }

private:
    std::string _path = (fs::temp_directory_path() / "ovel_test.XXXXXX").string();
};

// Forks. Returns nothing in the child, which dies if it hangs, and in the parent how that ended.
inline std::optional<int> end_of_fork() {
    pid_t const child = fork();
    if (child == 0) {
        alarm(60);
        return {};
    }
    int status = -1;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
    return status;
}

// Forks, and tells whether the child succeeds with `work`.
template <class Work>
bool in_fork(Work const& work) {
    std::optional<int> const ended = end_of_fork();
    if (!ended) {
        work();
        _exit(0);
    }
    return ended == 0;
}

#endif
