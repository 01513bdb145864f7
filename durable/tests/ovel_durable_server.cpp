// SPDX-License-Identifier: Apache-2.0
#include "ovel_durable_server.h"

#include <libpq-fe.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace ovel_durable_test {

namespace fs = std::filesystem;

namespace {

void run_shell(std::string const& command) {
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

// Where Debian has the programs of the newest server.
std::string programs() {
    std::string found;
    for (auto const& each : fs::directory_iterator("/usr/lib/postgresql"))
        found = std::max(found, each.path().string() + "/bin/");
    return found;
}

// True for a zombie as well.
bool is_gone(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    std::getline(status, line);
    std::size_t const name_end = line.rfind(')');
    return name_end == line.npos || line.compare(name_end, 3, ") Z") == 0;
}

}  // namespace

folder::folder() : _path((fs::temp_directory_path() / "ovel_durable.XXXXXX").string()) {
    if (mkdtemp(_path.data()) == nullptr)
        throw std::runtime_error("no folder for the tests");
    chmod(_path.c_str(), 0777);
}
folder::~folder() {
    std::error_code ignored;
    fs::remove_all(_path, ignored);
}

// The server refuses to run as root.
std::string server::_as_user(std::string const& command) const {
    std::string const log = " >>" + _folder.path() + "/log 2>&1";
    if (geteuid() != 0)
        return command + log;
    return "setpriv --reuid=postgres --regid=postgres --clear-groups env HOME=" + _folder.path() +
           ' ' + command + log;
}

server::server(std::string const& settings) {
    std::string const data = _folder.path() + "/data";
    run_shell(_as_user(programs() +
                       "initdb --no-sync --auth=trust --username=ovel --encoding=UTF8 "
                       "--locale=C -D " +
                       data));
    std::ofstream(data + "/postgresql.conf", std::ios::app)
        << "listen_addresses = ''\nunix_socket_directories = '" << _folder.path()
        << "'\nport = 5432\nmax_connections = 100\nshared_buffers = 32MB\n"
        << settings;
    start();
}

server::~server() {
    if (_runs)
        stop();
}

void server::start() {
    try {
        run_shell(_as_user(programs() + "pg_ctl -w -t 60 -D " + _folder.path() + "/data start"));
    } catch (std::runtime_error const& failed) {
        std::ifstream log(_folder.path() + "/log");
        throw std::runtime_error(failed.what() + std::string("\n") +
                                 std::string(std::istreambuf_iterator<char>(log), {}));
    }
    _runs = true;
}

void server::stop() {
    run_shell(_as_user(programs() + "pg_ctl -w -m fast -D " + _folder.path() + "/data stop"));
    _runs = false;
}

// The server and all processes that it has started, at once.
void server::kill() {
    std::string process;
    std::ifstream(_folder.path() + "/data/postmaster.pid") >> process;
    std::vector<pid_t> all{std::atoi(process.c_str())};
    std::ifstream children("/proc/" + process + "/task/" + process + "/children");
    for (pid_t child; children >> child;)
        all.push_back(child);
    for (pid_t const each : all)
        ::kill(each, SIGKILL);
    _runs = false;
    for (pid_t const each : all)
        wait_for([&] { return is_gone(each); });
    // The number of a process that nobody has waited for is not free, which the next server
    // would take for this one.
    fs::remove(_folder.path() + "/data/postmaster.pid");
    fs::remove(_folder.path() + "/.s.PGSQL.5432.lock");
}

std::string server::url() const {
    return "postgresql://ovel@/postgres?host=" + _folder.path();
}

std::string server::url(std::string const& host, int port) const {
    return "postgresql://ovel@" + host + ':' + std::to_string(port) + "/postgres";
}

std::string server::run(std::string const& statement) const {
    PGconn* const connection = PQconnectdb(url().c_str());
    PGresult* const made = PQexec(connection, statement.c_str());
    std::string const fault = PQerrorMessage(connection);
    std::string const field =
        PQntuples(made) > 0 && PQnfields(made) > 0 ? PQgetvalue(made, 0, 0) : "";
    PQclear(made);
    PQfinish(connection);
    if (!fault.empty())
        throw std::runtime_error(fault);
    return field;
}

}  // namespace ovel_durable_test
