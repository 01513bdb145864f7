// SPDX-License-Identifier: Apache-2.0
// Nets in a database of PostgreSQL, in a schema of their own.
#include "ovel_durable_postgresql_fields.h"
#include "ovel_durable_postgresql_tables.h"

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>
#include <unordered_map>

namespace ovel::durable::detail {

namespace {

using clock_type = std::chrono::steady_clock;
using result = std::unique_ptr<PGresult, void (*)(PGresult*)>;

// The first line of a message, which may have more.
std::string first_line(char const* message) {
    std::string line(message, std::strcspn(message, "\n"));
    return line.empty() ? "no reason given" : line;
}

class postgresql_store : public sql_store {
public:
    explicit postgresql_store(std::string const& url);

    turned take_turn(std::int64_t net, std::int64_t member, turn const& asked) override;
    answer put(std::int64_t net, std::int64_t place, std::string const& value,
               call const& named) override;
    answer take(std::int64_t net, std::int64_t place, call const& named,
                acceptor const& accept) override;
    std::vector<claim> claims_of(std::int64_t member) override;
    void disown(std::int64_t member, std::int64_t claim) override;
    void watch(std::int64_t net, std::string const& watcher, double seconds) override;
    void unwatch(std::string const& watcher) override;
    void tell(std::int64_t net) override;
    bool wait(double seconds, int bell) override;

protected:
    rows _execute_once(std::string_view statement, row const& given) override;
    void _begin(access wanted) override {
        _run(wanted == writing ? "BEGIN ISOLATION LEVEL READ COMMITTED"
                               : "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    }
    void _commit() override {
        _run("COMMIT");
    }
    void _roll_back() noexcept override {
        PQclear(PQexec(_connection.get(), "ROLLBACK"));
    }
    // The number is ours.
    void _exclude_others() override {
        _run("SELECT pg_catalog.pg_advisory_xact_lock(7310021996)");
    }
    void _make_tables() override;
    std::int64_t _version() override;
    void _furnish(std::int64_t place, place_entry const& made) override;
    std::string _enabled() const override {
        return "SELECT t.id FROM transitions t WHERE t.net = $1 AND NOT EXISTS (SELECT 1 FROM arcs "
               "a WHERE a.transition = t.id AND a.weight > CASE a.input WHEN 1 THEN (SELECT "
               "count(*) FROM (SELECT 1 FROM tokens k WHERE k.place = a.place LIMIT a.weight) x) "
               "ELSE (SELECT coalesce(sum(r.free), 0) FROM rooms r WHERE r.place = a.place) END)";
    }
    std::string _firings() const override {
        return "cardinality(c.open)";
    }
    std::string _waiting() const override {
        return "(SELECT count(*) FROM tokens k WHERE k.place = p.id)";
    }
    std::string _free() const override {
        return "CAST((SELECT coalesce(sum(free), 0) FROM rooms r WHERE r.place = p.id) AS bigint)";
    }

private:
    void _run(char const* statement) {
        _check(result(PQexec(_connection.get(), statement), &PQclear));
    }
    std::string const& _name_of(std::string_view statement, parameters const& given);
    bool _hear();
    void _hand_out(row& from, std::vector<claim>& to);
    result _check(result made);

    std::unique_ptr<PGconn, void (*)(PGconn*)> _connection;
    text_map<std::string> _prepared;  // the names, by the texts
    bool _listens = false;
    bool _told = false;  // of a change, since the last `wait`
};

postgresql_store::postgresql_store(std::string const& url) : _connection(nullptr, &PQfinish) {
    // What the URL says comes later and holds. A server that is gone without a word is noticed
    // in half a minute.
    char const* const names[] = {
        "application_name",    "connect_timeout",  "tcp_user_timeout", "keepalives_idle",
        "keepalives_interval", "keepalives_count", "dbname",           nullptr};
    char const* const values[] = {"ovel", "10", "30000", "10", "5", "3", url.c_str(), nullptr};
    _connection.reset(PQconnectdbParams(names, values, 1));
    if (PQstatus(_connection.get()) != CONNECTION_OK)
        throw unreachable("no connection to the store: " +
                          first_line(PQerrorMessage(_connection.get())));
    PQsetNoticeProcessor(
        _connection.get(), [](void*, char const*) {}, nullptr);
    // The tables change too quickly for the plans that fit them at one moment. A process that is
    // stopped within a transaction loses its connection before others miss its locks for long.
    _run(
        "SET search_path = ovel_durable, pg_catalog; SET plan_cache_mode = force_generic_plan; "
        "SET enable_seqscan = off; SET jit = off; SET client_encoding = 'UTF8'; "
        "SET default_transaction_isolation = 'read committed'; "
        "SET idle_in_transaction_session_timeout = '10s'");
}

result postgresql_store::_check(result made) {
    ExecStatusType const status = PQresultStatus(made.get());
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
        return made;
    std::string const what = first_line(PQerrorMessage(_connection.get()));
    char const* const state = PQresultErrorField(made.get(), PG_DIAG_SQLSTATE);
    std::string const code = state != nullptr ? state : "";
    // The server is ending.
    if (PQstatus(_connection.get()) != CONNECTION_OK || code.empty() || code.starts_with("57P") ||
        code.starts_with("08"))
        throw unreachable("the connection to the store is lost: " + what);
    if (code == "40001" || code == "40P01" || code == "55P03")
        throw busy("the store: " + what);
    throw error("the store: " + what);
}

// The name of the prepared statement.
std::string const& postgresql_store::_name_of(std::string_view statement, parameters const& given) {
    auto known = _prepared.find(statement);
    if (known == _prepared.end()) {
        std::string const name = 's' + std::to_string(_prepared.size());
        static constexpr char placeholder[] = "{now}";
        std::string real(statement);
        for (std::size_t at; (at = real.find(placeholder)) != real.npos;)
            real.replace(at, sizeof placeholder - 1, "clock()");
        _check(result(PQprepare(_connection.get(), name.c_str(), real.c_str(),
                                static_cast<int>(given.types.size()), given.types.data()),
                      &PQclear));
        known = _prepared.emplace(statement, name).first;
    }
    return known->second;
}

rows rows_of(PGresult* made) {
    rows read(static_cast<std::size_t>(PQntuples(made)));
    for (std::size_t i = 0; i < read.size(); ++i)
        for (int column = 0; column < PQnfields(made); ++column)
            read[i].push_back(field(made, static_cast<int>(i), column));
    return read;
}

rows postgresql_store::_execute_once(std::string_view statement, row const& given) {
    parameters const sent(given);
    std::string const& name = _name_of(statement, sent);
    result const made = _check(
        result(PQexecPrepared(_connection.get(), name.c_str(), static_cast<int>(sent.values.size()),
                              sent.values.data(), sent.lengths.data(), sent.formats.data(), 1),
               &PQclear));
    _hear();
    return rows_of(made.get());
}

// Reads what notifications have come.
bool postgresql_store::_hear() {
    while (PGnotify* const note = PQnotifies(_connection.get())) {
        PQfreemem(note);
        _told = true;
    }
    return _told;
}

std::int64_t postgresql_store::_version() {
    return _execute(
               "SELECT 1 FROM pg_catalog.pg_tables WHERE schemaname = 'ovel_durable' AND "
               "tablename = 'version'",
               {})
                   .empty()
               ? 0
               : integer(_execute("SELECT number FROM version", {})[0][0]);
}

void postgresql_store::_make_tables() {
    _run("CREATE SCHEMA IF NOT EXISTS ovel_durable");
    _run(postgresql_tables);
    _execute("INSERT INTO version VALUES ($1)", {tables_version});
}

void postgresql_store::_furnish(std::int64_t place, place_entry const& made) {
    _execute("SELECT make_room($1, $2)::text",
             {place, static_cast<std::int64_t>(made.capacity - made.initial.size())});
    for (std::string const& each : made.initial)
        _execute("INSERT INTO tokens (place, value) VALUES ($1, $2)", {place, blob{each}});
}

// A firing's number, and its parts.
constexpr int index_bits = 16;
std::int64_t row_of(std::int64_t number) {
    return number >> index_bits;
}
std::int64_t number_of(std::int64_t row, std::int64_t index) {
    return (row << index_bits) + index;
}

turned postgresql_store::take_turn(std::int64_t net, std::int64_t member, turn const& asked) {
    using list = std::vector<std::int64_t>;
    list firings, row_ids, row_epochs, row_ends, put_ends, put_places, freed_ends, freed_places,
        freed_slots, back_numbers, back_epochs, in_places, in_weights, in_ends, out_places,
        out_weights, out_ends;
    std::vector<blob> put_values;
    // By row: those of one are next to each other.
    std::vector<outcome const*> sorted;
    for (outcome const& each : asked.ended)
        sorted.push_back(&each);
    std::stable_sort(sorted.begin(), sorted.end(), [](auto const* left, auto const* right) {
        return std::pair(row_of(left->number), left->epoch) <
               std::pair(row_of(right->number), right->epoch);
    });
    for (outcome const* const one : sorted) {
        outcome const& each = *one;
        firings.push_back(each.number - number_of(row_of(each.number), 0));
        auto const which = static_cast<std::int64_t>(firings.size());  // from 1
        if (row_ids.empty() || row_ids.back() != row_of(each.number) ||
            row_epochs.back() != each.epoch) {
            row_ids.push_back(row_of(each.number));
            row_epochs.push_back(each.epoch);
            row_ends.push_back(which);
        }
        row_ends.back() = which;
        for (auto const& [place, bytes] : each.put) {
            put_ends.push_back(which);
            put_places.push_back(place);
            put_values.push_back({bytes});
        }
        auto const free = [&](std::int64_t place, std::int64_t slots) {
            freed_ends.push_back(which);
            freed_places.push_back(place);
            freed_slots.push_back(slots);
        };
        for (auto const& [place, slots] : each.spare)
            free(place, slots);
        for (placed_arc const& from : _arcs(each.transition))
            if (from.input)
                free(from.place, from.weight);
    }
    for (auto const& [number, epoch] : asked.returned) {
        back_numbers.push_back(number);
        back_epochs.push_back(epoch);
    }
    for (std::int64_t const each : asked.wanted) {
        for (placed_arc const& arc : _arcs(each)) {
            (arc.input ? in_places : out_places).push_back(arc.place);
            (arc.input ? in_weights : out_weights).push_back(arc.weight);
        }
        in_ends.push_back(static_cast<std::int64_t>(in_places.size()));
        out_ends.push_back(static_cast<std::int64_t>(out_places.size()));
    }
    turned made;
    bool watched = false;
    for (row& each :
         _execute("SELECT * FROM take_turn($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, "
                  "$14, $15, $16, $17, $18, $19, $20, $21, $22, $23)",
                  {net,
                   member,
                   firings,
                   row_ids,
                   row_epochs,
                   row_ends,
                   put_ends,
                   put_places,
                   put_values,
                   freed_ends,
                   freed_places,
                   freed_slots,
                   back_numbers,
                   back_epochs,
                   asked.wanted,
                   asked.most,
                   std::int64_t{asked.take_over},
                   in_places,
                   in_weights,
                   in_ends,
                   out_places,
                   out_weights,
                   out_ends}))
        switch (integer(each[0])) {
            case 0:
                made.committed = static_cast<std::size_t>(integer(each[1]));
                break;
            case 1:
                made.returned = static_cast<std::size_t>(integer(each[1]));
                break;
            case 2:
                _hand_out(each, made.claims);
                break;
            default:
                watched = true;
        }
    // In the same transaction the notification would make others wait for its write to the disk.
    if (watched)
        tell(net);
    return made;
}

// The claims of a row that `take_turn` has returned.
void postgresql_store::_hand_out(row& from, std::vector<claim>& to) {
    auto const& tokens = std::get<std::vector<std::int64_t>>(from[5]);
    auto& values = std::get<std::vector<blob>>(from[6]);
    std::size_t width = 0;
    for (placed_arc const& each : _arcs(integer(from[3])))
        width += each.input ? static_cast<std::size_t>(each.weight) : 0;
    for (std::int64_t const index : std::get<std::vector<std::int64_t>>(from[4])) {
        claim& own = to.emplace_back();
        own.number = number_of(integer(from[1]), index);
        own.epoch = integer(from[2]);
        own.transition = integer(from[3]);
        std::size_t const first = static_cast<std::size_t>(index) * width;
        for (std::size_t i = first; i < first + width; ++i) {
            own.tokens.push_back(tokens.at(i));
            own.values.push_back(std::move(values.at(i).bytes));
        }
    }
}

std::vector<claim> postgresql_store::claims_of(std::int64_t member) {
    std::vector<claim> made;
    for (row const& each :
         _execute("SELECT id, epoch, transition, open FROM claims WHERE member = $1", {member}))
        for (std::int64_t const index : std::get<std::vector<std::int64_t>>(each[3]))
            made.push_back(
                {number_of(integer(each[0]), index), integer(each[1]), integer(each[2]), {}, {}});
    return made;
}

// With those of its row: they came to the member in one transaction.
void postgresql_store::disown(std::int64_t member, std::int64_t claim) {
    _execute("UPDATE claims SET member = 0 WHERE id = $1 AND $2 = ANY (open) AND member = $3",
             {row_of(claim), claim - number_of(row_of(claim), 0), member});
}

// The keys to forget are the library's own and contain no blanks.
std::string joined(std::vector<std::string> const& keys) {
    std::string all;
    for (std::string const& each : keys)
        all += (all.empty() ? "" : " ") + each;
    return all;
}

answer result_of(std::int64_t number, call const& named) {
    if (number == 3)
        refuse_key(named.key);
    return number == 0 ? answer::done : number == 1 ? answer::impossible : answer::busy;
}

answer postgresql_store::put(std::int64_t net, std::int64_t place, std::string const& bytes,
                             call const& named) {
    answer const made = result_of(
        integer(_execute(
            "SELECT put_token($1, $2, $3, $4, $5, $6)",
            {net, place, &bytes, named.key, std::int64_t{named.own}, joined(named.forget)})[0][0]),
        named);
    if (made == answer::done)
        tell(net);
    return made;
}

answer postgresql_store::take(std::int64_t net, std::int64_t place, call const& named,
                              acceptor const& accept) {
    answer const made = _within(writing, [&] {
        row const taken =
            _execute("SELECT * FROM take_token($1, $2, $3, $4, $5)",
                     {net, place, named.key, std::int64_t{named.own}, joined(named.forget)})[0];
        answer const result = result_of(integer(taken[0]), named);
        if (result == answer::done)
            accept({integer(taken[1]), std::get<blob>(taken[2]).bytes});
        return result;
    });
    if (made == answer::done)
        tell(net);
    return made;
}

void postgresql_store::tell(std::int64_t net) {
    try {
        _execute(
            "SELECT pg_notify('ovel_durable_' || $1::text, '')::text WHERE EXISTS (SELECT 1 FROM "
            "watchers WHERE net = $1 AND until > {now})",
            {net});
    } catch (error const&) {
        // A connection that is lost will be missed by the next call.
    }
}

void postgresql_store::watch(std::int64_t net, std::string const& watcher, double seconds) {
    if (!_listens)
        _run(("LISTEN ovel_durable_" + std::to_string(net)).c_str());
    _listens = true;
    _told = false;
    sql_store::watch(net, watcher, seconds);
}

// A connection that nobody waits on must not collect notifications.
void postgresql_store::unwatch(std::string const& watcher) {
    sql_store::unwatch(watcher);
    if (_listens)
        PQclear(PQexec(_connection.get(), "UNLISTEN *"));
    _listens = false;
}

bool postgresql_store::wait(double seconds, int bell) {
    auto const end = clock_type::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        if (PQconsumeInput(_connection.get()) == 0)
            throw unreachable("the connection to the store is lost: " +
                              first_line(PQerrorMessage(_connection.get())));
        if (_hear()) {
            _told = false;
            return true;
        }
        auto const left =
            std::chrono::duration<double, std::milli>(end - clock_type::now()).count();
        if (left <= 0)
            return false;
        pollfd heard[] = {{PQsocket(_connection.get()), POLLIN, 0}, {bell, POLLIN, 0}};
        poll(heard, 2, static_cast<int>(std::min(left, 1e6)) + 1);
        if ((heard[1].revents & POLLIN) != 0)
            return false;
    }
}

}  // namespace

std::unique_ptr<store> connect_postgresql(std::string const& url) {
    return std::make_unique<postgresql_store>(url);
}

}  // namespace ovel::durable::detail
