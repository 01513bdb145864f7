// SPDX-License-Identifier: Apache-2.0
// Nets in a file of SQLite, for the processes of one machine. It lets one transaction
// write at a time, so a count of tokens and one of free slots for each place do.
//
// There is no busy handler: SQLite does not call it where waiting might deadlock, such as
// when two connections switch a new file to the write-ahead log, or for a snapshot that is
// out of date. Each statement or transaction that finds the file busy is repeated instead.
#include "ovel_durable_sql.h"

#include <poll.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <unordered_map>

namespace ovel::durable::detail {

namespace {

using clock_type = std::chrono::steady_clock;

constexpr char tables[] = R"(
CREATE TABLE nets (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, nonce TEXT NOT NULL,
    failure TEXT);
CREATE TABLE places (id INTEGER PRIMARY KEY, net INTEGER NOT NULL, position INTEGER NOT NULL,
    name TEXT NOT NULL, capacity INTEGER NOT NULL, codec TEXT NOT NULL);
CREATE TABLE transitions (id INTEGER PRIMARY KEY, net INTEGER NOT NULL, position INTEGER NOT NULL,
    name TEXT NOT NULL, fired INTEGER NOT NULL);
CREATE TABLE arcs (transition INTEGER NOT NULL, position INTEGER NOT NULL, place INTEGER NOT NULL,
    input INTEGER NOT NULL, weight INTEGER NOT NULL, PRIMARY KEY (transition, position))
    WITHOUT ROWID;
CREATE TABLE tokens (place INTEGER NOT NULL, id INTEGER NOT NULL, value BLOB NOT NULL,
    PRIMARY KEY (place, id)) WITHOUT ROWID;
CREATE TABLE rooms (place INTEGER PRIMARY KEY, free INTEGER NOT NULL CHECK (free >= 0),
    waiting INTEGER NOT NULL CHECK (waiting >= 0), next INTEGER NOT NULL);
CREATE TABLE members (id INTEGER PRIMARY KEY AUTOINCREMENT, net INTEGER NOT NULL,
    name TEXT NOT NULL, until REAL NOT NULL);
CREATE TABLE runs (member INTEGER NOT NULL, transition INTEGER NOT NULL, fired INTEGER NOT NULL,
    PRIMARY KEY (member, transition)) WITHOUT ROWID;
CREATE TABLE claims (id INTEGER PRIMARY KEY, net INTEGER NOT NULL,
    transition INTEGER NOT NULL, member INTEGER NOT NULL, epoch INTEGER NOT NULL,
    tokens BLOB NOT NULL);
CREATE TABLE numbers (next INTEGER NOT NULL);
INSERT INTO numbers VALUES (1);
CREATE TABLE watchers (id TEXT PRIMARY KEY, net INTEGER NOT NULL, until REAL NOT NULL);
CREATE TABLE calls (net INTEGER NOT NULL, key TEXT NOT NULL, own INTEGER NOT NULL,
    place INTEGER NOT NULL, takes INTEGER NOT NULL, token INTEGER, value BLOB, at REAL NOT NULL,
    PRIMARY KEY (net, key)) WITHOUT ROWID;
)";

// Marks files that are ours: "ovel".
constexpr std::int64_t application = 0x6f76656c;

// The tokens of a claim as one blob: number, size and bytes of each.
void append(std::string& packed, std::int64_t number) {
    char bytes[sizeof number];
    std::memcpy(bytes, &number, sizeof number);
    packed.append(bytes, sizeof bytes);
}
std::int64_t number_at(std::string const& packed, std::size_t at) {
    std::int64_t number;
    std::memcpy(&number, packed.data() + at, sizeof number);
    return number;
}
void append(std::string& packed, std::int64_t number, std::string const& bytes) {
    append(packed, number);
    append(packed, static_cast<std::int64_t>(bytes.size()));
    packed += bytes;
}
void unpack(std::string const& packed, claim& into) {
    for (std::size_t at = 0; at != packed.size();) {
        into.tokens.push_back(number_at(packed, at));
        auto const size = static_cast<std::size_t>(number_at(packed, at + 8));
        into.values.push_back(packed.substr(at + 16, size));
        at += 16 + size;
    }
}

// Changes of the counts of a place, and the values of tokens that are put there.
struct change {
    std::int64_t free = 0;
    std::int64_t waiting = 0;
    std::vector<std::string const*> put = {};
};

class sqlite_store : public sql_store {
public:
    explicit sqlite_store(std::string const& file);

    numbers open(structure const& net) override;
    turned take_turn(std::int64_t net, std::int64_t member, turn const& asked) override;
    answer put(std::int64_t net, std::int64_t place, std::string const& value,
               call const& named) override;
    answer take(std::int64_t net, std::int64_t place, call const& named,
                acceptor const& accept) override;

    // `wait` sees every change of the file, so nothing needs a notification.
    void watch(std::int64_t, std::string const&, double) override {
        _seen = _changes();
    }
    void unwatch(std::string const&) override {}
    void tell(std::int64_t) override {}
    bool wait(double seconds, int bell) override;

protected:
    rows _execute_once(std::string_view statement, row const& parameters) override;
    void _begin(access wanted) override {
        _execute_once(wanted == writing ? "BEGIN IMMEDIATE" : "BEGIN", {});
    }
    void _commit() override {
        _execute_once("COMMIT", {});
    }
    void _roll_back() noexcept override {
        sqlite3_exec(_database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void _exclude_others() override {}
    void _make_tables() override;
    std::int64_t _version() override;
    void _furnish(std::int64_t place, place_entry const& made) override;
    std::string _enabled() const override {
        return "SELECT t.id FROM transitions t WHERE t.net = $1 AND NOT EXISTS (SELECT 1 FROM arcs "
               "a JOIN rooms r ON r.place = a.place WHERE a.transition = t.id AND a.weight > CASE "
               "a.input WHEN 1 THEN r.waiting ELSE r.free END)";
    }
    std::string _firings() const override {
        return "1";
    }
    std::string _waiting() const override {
        return "(SELECT waiting FROM rooms WHERE place = p.id)";
    }
    std::string _free() const override {
        return "(SELECT free FROM rooms WHERE place = p.id)";
    }

private:
    using changes = std::map<std::int64_t, change>;
    using statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

    [[noreturn]] void _throw(int code);
    void _run(char const* statements) {
        int const code = sqlite3_exec(_database.get(), statements, nullptr, nullptr, nullptr);
        if (code != SQLITE_OK)
            _throw(code);
    }
    std::int64_t _changes() {
        return integer(_execute("PRAGMA data_version", {})[0][0]);
    }
    bool _connect(int more_flags);
    sqlite3_stmt* _statement(std::string_view text);
    void _apply(changes const& made);
    void _end(std::int64_t member, turn const& asked, turned& made, changes& done);
    void _return(turn const& asked, turned& made, changes& done);
    void _claim(std::int64_t net, std::int64_t member, std::int64_t transition, std::int64_t most,
                turned& made);
    rows _earlier(std::int64_t net, std::int64_t place, bool takes, call const& named);
    void _take_over(std::int64_t net, std::int64_t member, turn const& asked, turned& made);

    std::string const _file;
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> _database{nullptr, &sqlite3_close};
    text_map<statement> _prepared;
    std::int64_t _seen = 0;
};

// A program that only looks makes no file.
sqlite_store::sqlite_store(std::string const& file) : _file(file) {
    _connect(0);
}

// False if there is no file, or none can be made.
bool sqlite_store::_connect(int more_flags) {
    // One thread at a time uses it.
    sqlite3* made = nullptr;
    int const code = sqlite3_open_v2(
        _file.c_str(), &made,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE | more_flags, nullptr);
    _database.reset(made);
    if (code != SQLITE_OK && (code & 0xff) != SQLITE_CANTOPEN)
        _throw(code);
    if (code != SQLITE_OK)
        _database.reset();
    else
        // What is committed survives a loss of power.
        _execute("PRAGMA synchronous = FULL", {});
    return code == SQLITE_OK;
}

numbers sqlite_store::open(structure const& net) {
    if (_database == nullptr && !_connect(SQLITE_OPEN_CREATE))
        _throw(SQLITE_CANTOPEN);
    // It throws for a file of another program, which stays as it is.
    _version();
    if (std::string const mode = text(_execute("PRAGMA journal_mode = WAL", {})[0][0]);
        mode != "wal")
        throw error("the store " + _file + " cannot be shared: its journal mode is " + mode);
    return sql_store::open(net);
}

void sqlite_store::_throw(int code) {
    std::string const what =
        "the store " + _file + ": " +
        (_database != nullptr ? sqlite3_errmsg(_database.get()) : sqlite3_errstr(code));
    int const kind = code & 0xff;
    if (kind == SQLITE_BUSY || kind == SQLITE_LOCKED || kind == SQLITE_PROTOCOL)
        throw busy(what);
    throw error(what);
}

sqlite3_stmt* sqlite_store::_statement(std::string_view text) {
    if (_database == nullptr)
        _throw(SQLITE_CANTOPEN);
    auto const found = _prepared.find(text);
    statement& known =
        found != _prepared.end()
            ? found->second
            : _prepared.try_emplace(std::string(text), nullptr, &sqlite3_finalize).first->second;
    if (known == nullptr) {
        static constexpr char placeholder[] = "{now}";
        std::string real(text);
        for (std::size_t at; (at = real.find(placeholder)) != real.npos;)
            real.replace(at, sizeof placeholder - 1, "((julianday('now') - 2440587.5) * 86400.0)");
        // Numbered by their names, not by where they first stand.
        std::replace(real.begin(), real.end(), '$', '?');
        sqlite3_stmt* made = nullptr;
        int const code = sqlite3_prepare_v3(_database.get(), real.c_str(), -1,
                                            SQLITE_PREPARE_PERSISTENT, &made, nullptr);
        if (code != SQLITE_OK)
            _throw(code);
        known.reset(made);
    }
    return known.get();
}

rows sqlite_store::_execute_once(std::string_view text, row const& parameters) {
    sqlite3_stmt* const statement = _statement(text);
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        int const at = static_cast<int>(i) + 1;
        auto const bind = [&](auto const& each) {
            using type = std::remove_cvref_t<decltype(each)>;
            if constexpr (std::is_same_v<type, std::int64_t>)
                sqlite3_bind_int64(statement, at, each);
            else if constexpr (std::is_same_v<type, double>)
                sqlite3_bind_double(statement, at, each);
            else if constexpr (std::is_same_v<type, std::string>)
                sqlite3_bind_text64(statement, at, each.data(), each.size(), SQLITE_STATIC,
                                    SQLITE_UTF8);
            else if constexpr (std::is_same_v<type, blob>)
                sqlite3_bind_blob64(statement, at, each.bytes.data(), each.bytes.size(),
                                    SQLITE_STATIC);
            else if constexpr (std::is_same_v<type, std::string const*>)
                sqlite3_bind_blob64(statement, at, each->data(), each->size(), SQLITE_STATIC);
            else
                sqlite3_bind_null(statement, at);
        };
        std::visit(bind, parameters[i]);
    }
    rows made;
    int code;
    while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
        row& next = made.emplace_back();
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            auto const bytes = [&](void const* from) {
                auto const size = static_cast<std::size_t>(sqlite3_column_bytes(statement, i));
                return size == 0 ? std::string()
                                 : std::string(static_cast<char const*>(from), size);
            };
            switch (sqlite3_column_type(statement, i)) {
                case SQLITE_INTEGER:
                    next.emplace_back(std::int64_t{sqlite3_column_int64(statement, i)});
                    break;
                case SQLITE_FLOAT:
                    next.emplace_back(sqlite3_column_double(statement, i));
                    break;
                case SQLITE_TEXT:
                    next.emplace_back(bytes(sqlite3_column_text(statement, i)));
                    break;
                case SQLITE_BLOB:
                    next.emplace_back(blob{bytes(sqlite3_column_blob(statement, i))});
                    break;
                default:
                    next.emplace_back();
            }
        }
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    if (code != SQLITE_DONE)
        _throw(code);
    return made;
}

// A file of ours bears our mark since version 2.
std::int64_t sqlite_store::_version() {
    std::int64_t const version = integer(_execute("PRAGMA user_version", {})[0][0]);
    std::int64_t const mark = integer(_execute("PRAGMA application_id", {})[0][0]);
    std::int64_t const all = integer(_execute("SELECT count(*) FROM sqlite_master", {})[0][0]);
    if (mark == application || (version == 0 && mark == 0 && all == 0))
        return version;
    if (version == 1 && mark == 0 &&
        !_execute("SELECT 1 FROM sqlite_master WHERE name = 'watchers'", {}).empty())
        return version;
    throw error("the store " + _file + " is a database of another program");
}

void sqlite_store::_make_tables() {
    _run(tables);
    _run(("PRAGMA application_id = " + std::to_string(application)).c_str());
    _run(("PRAGMA user_version = " + std::to_string(tables_version)).c_str());
}

void sqlite_store::_furnish(std::int64_t place, place_entry const& made) {
    _execute("INSERT INTO rooms (place, free, waiting, next) VALUES ($1, $2, 0, 1)",
             {place, static_cast<std::int64_t>(made.capacity)});
    change first;
    first.free = -static_cast<std::int64_t>(made.initial.size());
    for (std::string const& each : made.initial)
        first.put.push_back(&each);
    _apply({{place, first}});
}

void sqlite_store::_apply(changes const& made) {
    for (auto const& [place, by] : made) {
        auto const tokens = static_cast<std::int64_t>(by.put.size());
        std::int64_t number = integer(
            _execute("UPDATE rooms SET free = free + $2, waiting = waiting + $3, next = next + $4 "
                     "WHERE place = $1 RETURNING next - $4",
                     {place, by.free, by.waiting + tokens, tokens})[0][0]);
        for (std::string const* const each : by.put)
            _execute("INSERT INTO tokens (place, id, value) VALUES ($1, $2, $3)",
                     {place, number++, each});
    }
}

turned sqlite_store::take_turn(std::int64_t net, std::int64_t member, turn const& asked) {
    return _within(writing, [&] {
        turned made;
        changes done;
        _end(member, asked, made, done);
        _return(asked, made, done);
        _apply(done);
        if (asked.take_over)
            _take_over(net, member, asked, made);
        else
            for (std::int64_t const each : asked.wanted)
                _claim(net, member, each, asked.most, made);
        return made;
    });
}

void sqlite_store::_end(std::int64_t member, turn const& asked, turned& made, changes& done) {
    std::map<std::int64_t, std::int64_t> fired;
    for (outcome const& each : asked.ended) {
        rows const own =
            _execute("DELETE FROM claims WHERE id = $1 AND epoch = $2 RETURNING transition",
                     {each.number, each.epoch});
        if (own.empty())
            continue;
        ++made.committed;
        std::int64_t const transition = integer(own[0][0]);
        ++fired[transition];
        for (placed_arc const& from : _arcs(transition))
            if (from.input)
                done[from.place].free += from.weight;
        for (auto const& [place, slots] : each.spare)
            done[place].free += slots;
        for (auto const& [place, value] : each.put)
            done[place].put.push_back(&value);
    }
    for (auto const& [transition, count] : fired)
        _execute(
            "INSERT INTO runs (member, transition, fired) VALUES ($1, $2, $3) ON CONFLICT "
            "(member, transition) DO UPDATE SET fired = fired + excluded.fired",
            {member, transition, count});
}

// Only what no other member has had, which may have begun it.
void sqlite_store::_return(turn const& asked, turned& made, changes& done) {
    for (auto const& [number, epoch] : asked.returned) {
        rows const own = _execute(
            "DELETE FROM claims WHERE id = $1 AND epoch = $2 AND epoch = 1 "
            "RETURNING transition, tokens",
            {number, epoch});
        if (own.empty())
            continue;
        ++made.returned;
        claim back;
        unpack(std::get<blob>(own[0][1]).bytes, back);
        std::size_t next = 0;
        for (placed_arc const& each : _arcs(integer(own[0][0]))) {
            (each.input ? done[each.place].waiting : done[each.place].free) += each.weight;
            for (std::int64_t i = 0; each.input && i < each.weight; ++i, ++next)
                _execute("INSERT INTO tokens (place, id, value) VALUES ($1, $2, $3)",
                         {each.place, back.tokens[next], &back.values[next]});
        }
    }
}

void sqlite_store::_take_over(std::int64_t net, std::int64_t member, turn const& asked,
                              turned& made) {
    for (row const& each :
         _execute("SELECT c.id, c.transition FROM claims c LEFT JOIN members m ON m.id = c.member "
                  "WHERE c.net = $1 AND c.member <> $2 AND coalesce(m.until, 0) < {now}",
                  {net, member})) {
        if (static_cast<std::int64_t>(made.claims.size()) >= asked.most)
            break;
        if (std::find(asked.wanted.begin(), asked.wanted.end(), integer(each[1])) ==
            asked.wanted.end())
            continue;
        rows const taken = _execute(
            "UPDATE claims SET member = $2, epoch = epoch + 1 WHERE id = "
            "$1 RETURNING epoch, tokens",
            {each[0], member});
        claim& own = made.claims.emplace_back();
        own.number = integer(each[0]);
        own.epoch = integer(taken[0][0]);
        own.transition = integer(each[1]);
        unpack(std::get<blob>(taken[0][1]).bytes, own);
    }
}

void sqlite_store::_claim(std::int64_t net, std::int64_t member, std::int64_t transition,
                          std::int64_t most, turned& made) {
    std::vector<placed_arc> const& arcs = _arcs(transition);
    std::int64_t count = most;
    for (placed_arc const& each : arcs) {
        row const room =
            _execute("SELECT waiting, free FROM rooms WHERE place = $1", {each.place})[0];
        count = std::min(count, integer(room[each.input ? 0 : 1]) / each.weight);
    }
    if (count == 0)
        return;
    changes done;
    std::vector<std::string> packed(static_cast<std::size_t>(count));
    std::vector<claim> claims(static_cast<std::size_t>(count));
    for (placed_arc const& each : arcs) {
        std::int64_t const all = count * each.weight;
        (each.input ? done[each.place].waiting : done[each.place].free) -= all;
        if (!each.input)
            continue;
        rows taken = _execute("SELECT id, value FROM tokens WHERE place = $1 ORDER BY id LIMIT $2",
                              {each.place, all});
        for (std::size_t i = 0; i < taken.size(); ++i) {
            std::size_t const firing = i / static_cast<std::size_t>(each.weight);
            std::string& bytes = std::get<blob>(taken[i][1]).bytes;
            append(packed[firing], integer(taken[i][0]), bytes);
            claims[firing].tokens.push_back(integer(taken[i][0]));
            claims[firing].values.push_back(std::move(bytes));
        }
        _execute("DELETE FROM tokens WHERE place = $1 AND id <= $2", {each.place, taken.back()[0]});
    }
    _apply(done);
    std::int64_t number =
        integer(_execute("UPDATE numbers SET next = next + $1 RETURNING next - $1", {count})[0][0]);
    for (std::size_t i = 0; i < claims.size(); ++i) {
        claims[i].number = number++;
        _execute(
            "INSERT INTO claims (id, net, transition, member, epoch, tokens) VALUES ($1, $2, "
            "$3, $4, 1, $5)",
            {claims[i].number, net, transition, member, &packed[i]});
        claims[i].epoch = 1;
        claims[i].transition = transition;
        made.claims.push_back(std::move(claims[i]));
    }
}

// What an earlier call with that key has taken, if there was one.
rows sqlite_store::_earlier(std::int64_t net, std::int64_t place, bool takes, call const& named) {
    for (std::string const& each : named.forget)
        _execute("DELETE FROM calls WHERE net = $1 AND key = $2", {net, each});
    rows earlier =
        _execute("SELECT token, value, place, takes FROM calls WHERE net = $1 AND key = $2",
                 {net, named.key});
    if (!earlier.empty() &&
        (integer(earlier[0][2]) != place || (integer(earlier[0][3]) != 0) != takes))
        refuse_key(named.key);
    return earlier;
}

answer sqlite_store::put(std::int64_t net, std::int64_t place, std::string const& value,
                         call const& named) {
    return _within(writing, [&] {
        if (!_earlier(net, place, false, named).empty())
            return answer::done;
        if (_execute("UPDATE rooms SET free = free - 1 WHERE place = $1 AND free > 0 RETURNING 1",
                     {place})
                .empty())
            return answer::impossible;
        _apply({{place, {0, 0, {&value}}}});
        _execute(
            "INSERT INTO calls (net, key, own, place, takes, at) VALUES ($1, $2, $3, $4, 0, "
            "{now})",
            {net, named.key, std::int64_t{named.own}, place});
        return answer::done;
    });
}

answer sqlite_store::take(std::int64_t net, std::int64_t place, call const& named,
                          acceptor const& accept) {
    return _within(writing, [&] {
        rows taken = _earlier(net, place, true, named);
        if (taken.empty()) {
            taken = _execute(
                "DELETE FROM tokens WHERE place = $1 AND id = (SELECT id FROM tokens WHERE place = "
                "$1 ORDER BY id LIMIT 1) RETURNING id, value",
                {place});
            if (taken.empty())
                return answer::impossible;
            _apply({{place, {1, -1, {}}}});
            _execute(
                "INSERT INTO calls (net, key, own, place, takes, token, value, at) VALUES ($1, "
                "$2, $3, $4, 1, $5, $6, {now})",
                {net, named.key, std::int64_t{named.own}, place, taken[0][0], taken[0][1]});
        }
        accept({integer(taken[0][0]), std::get<blob>(taken[0][1]).bytes});
        return answer::done;
    });
}

bool sqlite_store::wait(double seconds, int bell) {
    auto const end = clock_type::now() + std::chrono::duration<double>(seconds);
    for (int pause = 1;; pause = std::min(2 * pause, 50)) {
        if (std::int64_t const now = _changes(); now != _seen) {
            _seen = now;
            return true;
        }
        auto const left =
            std::chrono::duration<double, std::milli>(end - clock_type::now()).count();
        if (left <= 0)
            return false;
        pollfd heard{bell, POLLIN, 0};
        if (poll(&heard, 1, std::min(pause, static_cast<int>(left) + 1)) > 0)
            return false;
    }
}

}  // namespace

std::unique_ptr<store> connect_sqlite(std::string const& file) {
    return std::make_unique<sqlite_store>(file);
}

}  // namespace ovel::durable::detail
