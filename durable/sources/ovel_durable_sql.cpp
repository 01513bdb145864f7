// SPDX-License-Identifier: Apache-2.0
#include "ovel_durable_sql.h"

#include <algorithm>
#include <random>
#include <thread>

namespace ovel::durable::detail {

namespace {

// A part of keys that no other net has.
std::string new_nonce() {
    static constexpr char digits[] = "0123456789abcdef";
    std::random_device source;
    std::string made;
    for (int i = 0; i < 20; ++i)
        made += digits[source() % 16];
    return made;
}

std::string quoted(std::string const& name) {
    return '"' + name + '"';
}

// The length of the character of UTF-8 that `text` begins with; 0 if it begins with none.
std::size_t length_of_character(std::string_view text) {
    auto const byte = [&](std::size_t i) -> unsigned int {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
    };
    unsigned int const first = byte(0);
    std::size_t const length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    for (std::size_t i = 1; i < length; ++i)
        if (byte(i) >> 6 != 2)
            return 0;
    if (length == 1)
        return 1;
    unsigned int const two = first << 8 | byte(1);
    bool const known = length == 2   ? first >= 0xc2
                       : length == 3 ? two >= 0xe0a0 && (two < 0xeda0 || two >= 0xee00)
                                     : two >= 0xf090 && two < 0xf490;
    return known ? length : 0;
}

// As text that a database takes: UTF-8, and no NUL.
std::string printable(std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string made;
    while (!text.empty()) {
        std::size_t const length = text[0] != '\0' ? length_of_character(text) : 0;
        auto const first = static_cast<unsigned char>(text[0]);
        if (length != 0)
            made += text.substr(0, length);
        else
            made += std::string("\\x") + digits[first >> 4] + digits[first & 15];
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return made;
}

// Compares what the store has of a net with what the program inserted, and throws the
// first difference.
class comparison {
public:
    explicit comparison(std::string const& net) : _net(net) {}

    void equal(std::string const& of, std::string const& there, std::string const& here) const {
        if (there != here)
            _differ(of + ' ' + there + " there and " + here + " here");
    }
    void equal(std::string const& of, std::uint64_t there, std::uint64_t here) const {
        equal(of, std::to_string(there), std::to_string(here));
    }

    // The names of all places, or transitions, in their order.
    void names(std::string const& kind, std::vector<std::string> const& there,
               std::vector<std::string> const& here) const {
        _lacking(kind, there, here, "here");
        _lacking(kind, here, there, "there");
        for (std::size_t i = 0; i < there.size(); ++i)
            equal(kind + " number " + std::to_string(i + 1) + " is", quoted(there[i]),
                  quoted(here[i]));
    }

private:
    void _lacking(std::string const& kind, std::vector<std::string> const& all,
                  std::vector<std::string> const& some, std::string const& where) const {
        for (std::string const& each : all)
            if (std::find(some.begin(), some.end(), each) == some.end())
                _differ(kind + ' ' + quoted(each) + " is missing " + where);
    }
    [[noreturn]] void _differ(std::string const& what) const {
        throw error("the net " + quoted(_net) + " in the store is another one: " + what);
    }

    std::string const& _net;
};

// As "2 of "orders", 1 of "clerks"".
template <class Name>
std::string text_of(std::vector<arc> const& arcs, bool input, Name const& name) {
    std::string made;
    for (arc const& each : arcs)
        if (each.input == input)
            made += (made.empty() ? "" : ", ") + std::to_string(each.weight) + " of " +
                    quoted(name(each.place));
    return made.empty() ? "nothing" : made;
}

}  // namespace

std::vector<arc> merged(std::vector<arc> const& arcs) {
    std::vector<arc> made;
    for (arc const& each : arcs) {
        auto const same = std::find_if(made.begin(), made.end(), [&](arc const& other) {
            return other.place == each.place && other.input == each.input;
        });
        if (same == made.end())
            made.push_back(each);
        else
            same->weight += each.weight;
    }
    return made;
}

void refuse_key(std::string const& key) {
    throw error(quoted(key) + " is the key of an earlier call, of another kind or place");
}

bool sql_store::back_off::pause() {
    if (std::chrono::steady_clock::now() >= _end)
        return false;
    static thread_local std::minstd_rand random{std::random_device()()};
    std::this_thread::sleep_for(
        std::chrono::microseconds(50 + random() % std::min(100 * ++_count, 10000)));
    return true;
}

numbers sql_store::open(structure const& net) {
    return _within(writing, [&] {
        _exclude_others();
        if (!_has_tables())
            _make_tables();
        _fold();
        rows const there = _execute("SELECT id, nonce FROM nets WHERE name = $1", {net.name});
        return there.empty() ? _make(net) : _compare(net, integer(there[0][0]), text(there[0][1]));
    });
}

// Throws if they are those of another version of this library.
bool sql_store::_has_tables() {
    std::int64_t const version = _version();
    if (version != 0 && version != tables_version)
        throw error("the store's tables are of version " + std::to_string(version) +
                    ", and this program knows version " + std::to_string(tables_version) +
                    ": end its nets with the release that made them, or use another store");
    return version != 0;
}

numbers sql_store::_make(structure const& net) {
    numbers made;
    made.nonce = new_nonce();
    made.net = integer(_execute("INSERT INTO nets (name, nonce) VALUES ($1, $2) RETURNING id",
                                {net.name, made.nonce})[0][0]);
    for (place_entry const& each : net.places) {
        auto const position = static_cast<std::int64_t>(made.places.size());
        made.places.push_back(
            integer(_execute("INSERT INTO places (net, position, name, capacity, codec) "
                             "VALUES ($1, $2, $3, $4, $5) RETURNING id",
                             {made.net, position, each.name,
                              static_cast<std::int64_t>(each.capacity), each.codec})[0][0]));
        _furnish(made.places.back(), each);
    }
    for (transition_entry const& each : net.transitions) {
        auto const position = static_cast<std::int64_t>(made.transitions.size());
        std::int64_t const number =
            integer(_execute("INSERT INTO transitions (net, position, name, fired) "
                             "VALUES ($1, $2, $3, 0) RETURNING id",
                             {made.net, position, each.name})[0][0]);
        made.transitions.push_back(number);
        std::int64_t arcs = 0;
        for (arc const& between : merged(each.arcs))
            _execute(
                "INSERT INTO arcs (transition, position, place, input, weight) "
                "VALUES ($1, $2, $3, $4, $5)",
                {number, arcs++, made.places[between.place], std::int64_t{between.input ? 1 : 0},
                 static_cast<std::int64_t>(between.weight)});
    }
    return made;
}

numbers sql_store::_compare(structure const& net, std::int64_t number, std::string const& nonce) {
    numbers made{number, nonce, {}, {}};
    comparison const compared(net.name);
    rows const places = _execute(
        "SELECT id, name, capacity, codec FROM places WHERE net = $1 ORDER BY position", {number});
    std::vector<std::string> there, here;
    for (row const& each : places) {
        made.places.push_back(integer(each[0]));
        there.push_back(text(each[1]));
    }
    for (place_entry const& each : net.places)
        here.push_back(each.name);
    compared.names("place", there, here);
    for (std::size_t i = 0; i < places.size(); ++i) {
        std::string const name = "place " + quoted(here[i]);
        compared.equal(name + " has capacity", static_cast<std::uint64_t>(integer(places[i][2])),
                       net.places[i].capacity);
        compared.equal(name + " has codec", quoted(text(places[i][3])),
                       quoted(net.places[i].codec));
    }

    rows const transitions =
        _execute("SELECT id, name FROM transitions WHERE net = $1 ORDER BY position", {number});
    std::vector<std::string> const names = std::move(here);
    there.clear();
    here.clear();
    for (row const& each : transitions) {
        made.transitions.push_back(integer(each[0]));
        there.push_back(text(each[1]));
    }
    for (transition_entry const& each : net.transitions)
        here.push_back(each.name);
    compared.names("transition", there, here);
    auto const name_of = [&](std::size_t place) {
        return names[place];
    };
    for (std::size_t i = 0; i < transitions.size(); ++i) {
        std::vector<arc> arcs;
        for (row const& each : _execute("SELECT place, input, weight FROM arcs "
                                        "WHERE transition = $1 ORDER BY position",
                                        {transitions[i][0]})) {
            auto const place = std::find(made.places.begin(), made.places.end(), integer(each[0]));
            arcs.push_back({static_cast<std::size_t>(place - made.places.begin()),
                            integer(each[1]) != 0, static_cast<std::uint64_t>(integer(each[2]))});
        }
        std::vector<arc> const own = merged(net.transitions[i].arcs);
        for (bool const input : {true, false})
            compared.equal("transition " + quoted(here[i]) + (input ? " takes" : " puts"),
                           text_of(arcs, input, name_of), text_of(own, input, name_of));
    }
    return made;
}

std::vector<sql_store::placed_arc> const& sql_store::_arcs(std::int64_t transition) {
    auto const known = _known.find(transition);
    if (known != _known.end())
        return known->second;
    std::vector<placed_arc> arcs;
    for (row const& each :
         _execute("SELECT place, input, weight FROM arcs WHERE transition = $1 ORDER BY position",
                  {transition}))
        arcs.push_back({integer(each[0]), integer(each[1]) != 0, integer(each[2])});
    return _known.emplace(transition, std::move(arcs)).first->second;
}

// What members that are long gone have fired is added up, and what clients that are long
// gone will not ask for again is forgotten.
void sql_store::_fold() {
    for (row const& each :
         _execute("SELECT id FROM members WHERE until < {now} - 3600 AND id NOT IN (SELECT member "
                  "FROM claims)",
                  {})) {
        // What is deleted is what is added: the member may wake and commit meanwhile.
        for (row const& run :
             _execute("DELETE FROM runs WHERE member = $1 RETURNING transition, fired", each))
            _execute("UPDATE transitions SET fired = fired + $2 WHERE id = $1", run);
        _execute("DELETE FROM members WHERE id = $1 AND until < {now} - 3600", each);
    }
    _execute("DELETE FROM watchers WHERE until < {now} - 60", {});
    _execute("DELETE FROM calls WHERE own = 1 AND at < {now} - 86400", {});
}

std::int64_t sql_store::enter(std::int64_t net, std::string const& name, double lease,
                              std::vector<std::int64_t> const& transitions) {
    return _within(writing, [&] {
        if (!transitions.empty())
            _execute("UPDATE nets SET failure = NULL WHERE id = $1 AND failure IS NOT NULL", {net});
        std::int64_t const member =
            integer(_execute("INSERT INTO members (net, name, until) VALUES ($1, $2, {now} + $3) "
                             "RETURNING id",
                             {net, name, lease})[0][0]);
        _enter_runs(member, transitions);
        return member;
    });
}

void sql_store::_enter_runs(std::int64_t member, std::vector<std::int64_t> const& transitions) {
    for (std::int64_t const each : transitions)
        _execute(
            "INSERT INTO runs (member, transition, fired) VALUES ($1, $2, 0) ON CONFLICT DO "
            "NOTHING",
            {member, each});
}

// A member that slept for very long is entered again.
void sql_store::renew(std::int64_t net, std::int64_t member, std::string const& name, double lease,
                      std::vector<std::int64_t> const& transitions) {
    if (!_execute("UPDATE members SET until = {now} + $2 WHERE id = $1 RETURNING 1",
                  {member, lease})
             .empty())
        return;
    _within(writing, [&] {
        _execute("INSERT INTO members (id, net, name, until) VALUES ($1, $2, $3, {now} + $4)",
                 {member, net, name, lease});
        _enter_runs(member, transitions);
        return true;
    });
}

std::vector<claim> sql_store::claims_of(std::int64_t member) {
    std::vector<claim> made;
    for (row const& each :
         _execute("SELECT id, epoch, transition FROM claims WHERE member = $1", {member}))
        made.push_back({integer(each[0]), integer(each[1]), integer(each[2]), {}, {}});
    return made;
}

std::int64_t sql_store::fired_by(std::int64_t member) {
    return integer(
        _execute("SELECT CAST(coalesce(sum(fired), 0) AS bigint) FROM runs WHERE member = $1",
                 {member})[0][0]);
}

// No member has the number 0.
void sql_store::disown(std::int64_t member, std::int64_t claim) {
    _execute("UPDATE claims SET member = 0 WHERE id = $1 AND member = $2", {claim, member});
}

// One statement, which sees one moment.
rest_state sql_store::rest(std::int64_t net) {
    static constexpr char statement[] =
        " UNION ALL SELECT 1, 0, coalesce(failure, '') FROM nets WHERE id = $1"
        " UNION ALL SELECT 2, 0, '' WHERE EXISTS (SELECT 1 FROM claims WHERE net = $1)"
        " UNION ALL SELECT 3, 0, '' WHERE EXISTS (SELECT 1 FROM claims c LEFT JOIN members m ON "
        "m.id = c.member WHERE c.net = $1 AND coalesce(m.until, 0) < {now})";
    rest_state seen;
    for (row const& each :
         _execute("SELECT 0, id, '' FROM (" + _enabled() + ") e" + statement, {net}))
        switch (integer(each[0])) {
            case 0:
                seen.enabled.push_back(integer(each[1]));
                break;
            case 1:
                seen.failure = text(each[2]);
                break;
            case 2:
                seen.claims = true;
                break;
            default:
                seen.lost_claims = true;
        }
    return seen;
}

// The first failure stays. What is thrown may quote any bytes.
void sql_store::fail(std::int64_t net, std::string const& why) {
    _execute("UPDATE nets SET failure = $2 WHERE id = $1 AND failure IS NULL",
             {net, printable(why)});
}

std::vector<std::string> sql_store::nets() {
    std::vector<std::string> names;
    if (_has_tables())
        for (row const& each : _execute("SELECT name FROM nets ORDER BY id", {}))
            names.push_back(text(each[0]));
    return names;
}

state sql_store::look(std::string const& net) {
    return _within(reading, [&] {
        state seen;
        seen.name = net;
        rows const there = _has_tables()
                               ? _execute(
                                     "SELECT id, coalesce(failure, '') FROM nets WHERE name = "
                                     "$1",
                                     {net})
                               : rows();
        if (there.empty())
            throw error("there is no net " + quoted(net) + " in the store");
        value const& number = there[0][0];
        seen.failure = text(there[0][1]);
        auto const count = [](value const& field) {
            return static_cast<std::uint64_t>(integer(field));
        };
        for (row const& each : _execute(
                 "SELECT p.name, p.capacity, " + _waiting() +
                     ", CAST(coalesce((SELECT sum(a.weight * " + _firings() +
                     ") FROM claims c JOIN arcs a ON "
                     "a.transition = c.transition WHERE c.net = $1 AND a.place = p.id AND a.input "
                     "= 1), 0) AS bigint), " +
                     _free() + " FROM places p WHERE p.net = $1 ORDER BY p.position",
                 {number}))
            seen.places.push_back({text(each[0]), count(each[1]), count(each[2]) + count(each[3]),
                                   count(each[3]), count(each[4])});
        for (row const& each : _execute(
                 "SELECT t.name, CAST(t.fired + coalesce((SELECT sum(fired) FROM runs r WHERE "
                 "r.transition = t.id), 0) AS bigint), (SELECT count(*) FROM runs r JOIN members m "
                 "ON m.id = r.member WHERE r.transition = t.id AND m.until >= {now}), (SELECT "
                 "count(*) FROM (" +
                     _enabled() +
                     ") e WHERE e.id = t.id) FROM transitions t WHERE t.net = $1 ORDER BY "
                     "t.position",
                 {number}))
            seen.transitions.push_back(
                {text(each[0]), count(each[1]), count(each[2]) != 0, count(each[3]) != 0});
        for (row const& each : _execute(
                 "SELECT t.name, coalesce(m.name, ''), CAST(sum(" + _firings() +
                     ") AS bigint), CAST(coalesce(min(m.until), "
                     "0) - {now} AS double precision) FROM claims c JOIN transitions t ON t.id = "
                     "c.transition LEFT JOIN members m ON m.id = c.member WHERE c.net = $1 GROUP "
                     "BY t.position, t.name, c.member, m.name ORDER BY t.position, c.member",
                 {number}))
            seen.claims.push_back(
                {text(each[0]), text(each[1]), count(each[2]), std::get<double>(each[3])});
        for (row const& each :
             _execute("SELECT name FROM members WHERE net = $1 AND until >= {now} ORDER BY id",
                      {number}))
            seen.members.push_back(text(each[0]));
        return seen;
    });
}

bool sql_store::repeats(std::string const& net) {
    return !_execute(
                "SELECT 1 FROM tokens k JOIN places p ON p.id = k.place JOIN nets n ON n.id = "
                "p.net WHERE n.name = $1 GROUP BY k.value HAVING count(*) > 1 LIMIT 1",
                {net})
                .empty();
}

void sql_store::watch(std::int64_t net, std::string const& watcher, double seconds) {
    _execute(
        "INSERT INTO watchers (id, net, until) VALUES ($1, $2, {now} + $3) "
        "ON CONFLICT (id) DO UPDATE SET until = excluded.until",
        {watcher, net, seconds});
}

void sql_store::unwatch(std::string const& watcher) {
    try {
        _execute("DELETE FROM watchers WHERE id = $1", {watcher});
    } catch (error const&) {
        // Its time ends by itself.
    }
}

}  // namespace ovel::durable::detail
