// SPDX-License-Identifier: Apache-2.0
// Stores for tests: files of SQLite, and a server of PostgreSQL that the test starts, in a
// folder and on a socket of its own, and stops.
#ifndef OVEL_DURABLE_SERVER_H
#define OVEL_DURABLE_SERVER_H

#include <chrono>
#include <string>
#include <thread>

namespace ovel_durable_test {

// Waits for a condition of another process or thread: false if that takes a minute.
template <class Condition>
bool wait_for(Condition const& holds) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A temporary folder that all users may write to.
class folder {
public:
    folder();
    ~folder();
    folder(folder const&) = delete;
    folder& operator=(folder const&) = delete;

    std::string const& path() const {
        return _path;
    }

private:
    std::string _path;
};

class server {
public:
    // Makes a cluster and starts it. `settings` are added to its configuration.
    explicit server(std::string const& settings = "");
    ~server();
    server(server const&) = delete;
    server& operator=(server const&) = delete;

    void start();
    void stop();  // as an administrator does it
    void kill();  // as a crash does

    std::string url() const;
    std::string url(std::string const& host, int port) const;

    // The folder of its socket, with which libpq finds it at port 5432.
    std::string socket_folder() const {
        return _folder.path();
    }

    // Runs SQL by itself, and returns the first field.
    std::string run(std::string const& statement) const;

private:
    std::string _as_user(std::string const& command) const;

    folder _folder;
    bool _runs = false;
};

}  // namespace ovel_durable_test

#endif
