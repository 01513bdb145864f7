// SPDX-License-Identifier: Apache-2.0
// Stores for tests: files of SQLite, and a server of PostgreSQL that the test starts, in a
// folder and on a socket of its own, and stops.
#ifndef OVEL_DURABLE_SERVER_H
#define OVEL_DURABLE_SERVER_H

#include <libpq-fe.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace ovel_durable_test {

namespace fs = std::filesystem;

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

private:
    std::string _path = (fs::temp_directory_path() / "ovel_durable.XXXXXX").string();
};

class server {
public:
    // Makes a cluster and starts it, with more settings.
    explicit server(std::string const& settings = "fsync = off\n") {
        _run_program("initdb --no-sync --auth=trust --username=ovel --encoding=UTF8 --locale=C");
        std::ofstream(_folder.path() + "/data/postgresql.conf", std::ios::app)
            << "listen_addresses = ''\nunix_socket_directories = '" << _folder.path()
            << "'\nport = 5432\nmax_connections = 100\nshared_buffers = 32MB\n"
            << settings;
        start();
    }
    ~server() {
        if (_runs)
            stop();
    }
    server(server const&) = delete;
    server& operator=(server const&) = delete;

    void start() {
        _run_program("pg_ctl -w -t 60 start");
        _runs = true;
    }
    // As an administrator does it.
    void stop() {
        _run_program("pg_ctl -w -m fast stop");
        _runs = false;
    }
    // Cuts all connections, and leaves the recovery to the next start.
    void kill() {
        _run_program("pg_ctl -w -m immediate stop");
        _runs = false;
    }

    std::string url() const {
        return "postgresql://ovel@/postgres?host=" + _folder.path();
    }

    // Runs SQL by itself, and returns the first field.
    std::string run(std::string const& statement) const {
        PGconn* const connection = PQconnectdb(url().c_str());
        PGresult* const made = PQexec(connection, statement.c_str());
        std::string const fault = PQerrorMessage(connection);
        std::string const field = PQntuples(made) > 0 ? PQgetvalue(made, 0, 0) : "";
        PQclear(made);
        PQfinish(connection);
        if (!fault.empty())
            throw std::runtime_error(fault);
        return field;
    }

private:
    // One of the newest server's, where Debian has them, on its data. They refuse to run as root.
    void _run_program(std::string const& program) const {
        std::string const& place = _folder.path();
        std::string found;
        for (auto const& each : fs::directory_iterator("/usr/lib/postgresql"))
            found = std::max(found, each.path().string() + "/bin/");
        std::string command = found + program + " -D " + place + "/data >>" + place + "/log 2>&1";
        if (geteuid() == 0)
            command = "setpriv --reuid=postgres --regid=postgres --clear-groups env HOME=" + place +
                      ' ' + command;
        if (std::system((command + " || { cat " + place + "/log; false; }").c_str()) != 0)
            throw std::runtime_error("failed: " + command);
    }

    folder _folder;
    bool _runs = false;
};

}  // namespace ovel_durable_test

#endif
