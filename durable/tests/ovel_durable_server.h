// SPDX-License-Identifier: Apache-2.0
// Stores for tests: files of SQLite, and a server of PostgreSQL that the test starts, in a
// folder and on a socket of its own, and stops.
#ifndef OVEL_DURABLE_SERVER_H
#define OVEL_DURABLE_SERVER_H

#include "../../tests/ovel_posix.h"

#include <libpq-fe.h>

#include <chrono>
#include <cstdlib>
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

class server {
public:
    // Makes a cluster and starts it, with more settings.
    explicit server(std::string const& settings = "fsync = off\n") {
        _run_program("initdb --no-sync --auth=trust --username=ovel --encoding=UTF8 --locale=C");
        std::ofstream(_folder / "data/postgresql.conf", std::ios::app)
            << "listen_addresses = ''\nunix_socket_directories = '" << _folder.path()
            << "'\nport = 5432\nmax_connections = 100\nshared_buffers = 32MB\n"
            << settings;
        start();
    }
    ~server() {
        stop();
    }

    void start() {
        _run_program("pg_ctl -w -t 60 start");
    }
    // As an administrator does it.
    void stop() {
        _run_program("pg_ctl -w -m fast stop");
    }
    // Cuts all connections, and leaves the recovery to the next start.
    void kill() {
        _run_program("pg_ctl -w -m immediate stop");
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
};

}  // namespace ovel_durable_test

#endif
