// SPDX-License-Identifier: Apache-2.0
// The part of a store that is the same SQL in every database.
#ifndef OVEL_DURABLE_SQL_H
#define OVEL_DURABLE_SQL_H

#include "ovel_durable_store.h"

#include <chrono>
#include <functional>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace ovel::durable::detail {

struct blob {
    std::string bytes;
};

// A parameter, or a field of a row. A pointer is to the bytes of a blob that are kept elsewhere;
// no field is one. Only PostgreSQL has the last two.
using value = std::variant<std::monostate, std::int64_t, double, std::string, blob,
                           std::string const*, std::vector<std::int64_t>, std::vector<blob>>;
using row = std::vector<value>;
using rows = std::vector<row>;

// By texts that are looked up without a copy.
struct text_hash : std::hash<std::string_view> {
    using is_transparent = void;
};
template <class Mapped>
using text_map = std::unordered_map<std::string, Mapped, text_hash, std::equal_to<>>;

// The version of the tables.
inline constexpr std::int64_t tables_version = 2;

// Another connection is in the way and will not be for long. The statement, or the whole
// transaction that it was part of, did nothing and can be repeated on this connection.
class busy : public unreachable {
public:
    using unreachable::unreachable;
};

class sql_store : public store {
public:
    numbers open(structure const& net) override;
    std::int64_t enter(std::int64_t net, std::string const& name, double lease,
                       std::vector<std::int64_t> const& transitions) override;
    void renew(std::int64_t net, std::int64_t member, std::string const& name, double lease,
               std::vector<std::int64_t> const& transitions) override;
    std::vector<claim> claims_of(std::int64_t member) override;
    std::int64_t fired_by(std::int64_t member) override;
    void disown(std::int64_t member, std::int64_t claim) override;
    rest_state rest(std::int64_t net) override;
    void fail(std::int64_t net, std::string const& why) override;
    std::vector<std::string> nets() override;
    state look(std::string const& net) override;
    bool repeats(std::string const& net) override;
    void watch(std::int64_t net, std::string const& watcher, double seconds) override;
    void unwatch(std::string const& watcher) override;

protected:
    // How much of a transaction others may do meanwhile.
    enum access { reading, writing };

    // Runs one statement, which is prepared once. Parameters are $1, $2 and so on, and
    // {now} stands for the database's clock, in seconds. Repeats it while the database is
    // busy, unless it is part of a transaction: then `_within` repeats all of that.
    rows _execute(std::string_view statement, row const& parameters) {
        auto const once = [&] {
            return _execute_once(statement, parameters);
        };
        return _begun ? once() : _repeated(once);
    }

    // The following throw `busy` at once.
    virtual rows _execute_once(std::string_view statement, row const& parameters) = 0;
    virtual void _begin(access wanted) = 0;
    virtual void _commit() = 0;
    virtual void _roll_back() noexcept = 0;

    // Keeps others from making tables or a net, in a transaction that has begun.
    virtual void _exclude_others() = 0;

    // Makes the tables, in that transaction.
    virtual void _make_tables() = 0;

    // The version of the tables in the store; 0 if there are none.
    virtual std::int64_t _version() = 0;

    // Puts the first tokens and the room of a place that has been made.
    virtual void _furnish(std::int64_t place, place_entry const& made) = 0;

    // The transitions of a net that are enabled: their numbers, for a subquery.
    virtual std::string _enabled() const = 0;

    // An arc of a transition, by the number of its place. They never change.
    struct placed_arc {
        std::int64_t place;
        bool input;
        std::int64_t weight;
    };
    std::vector<placed_arc> const& _arcs(std::int64_t transition);

    // How many firings the row c of `claims` has, for a subquery.
    virtual std::string _firings() const = 0;

    // The tokens that wait in the place p, and its free slots, for a subquery.
    virtual std::string _waiting() const = 0;
    virtual std::string _free() const = 0;

    // `work` in a transaction, which is rolled back and repeated while the database is busy.
    template <class Work>
    auto _within(access wanted, Work const& work) {
        return _repeated([&] {
            _begin(wanted);
            _begun = true;
            try {
                auto made = work();
                _commit();
                _begun = false;
                return made;
            } catch (...) {
                _begun = false;
                _roll_back();
                throw;
            }
        });
    }

    // Repeats `work` while it throws `busy`, for some 30 s.
    template <class Work>
    std::invoke_result_t<Work const&> _repeated(Work const& work) {
        for (back_off pauses;;)
            try {
                return work();
            } catch (busy const&) {
                if (!pauses.pause())
                    throw;
            }
    }

private:
    // Pauses that are short at first, as a transaction is, and grow.
    class back_off {
    public:
        // False once they have taken too long in all.
        bool pause();

    private:
        int _count = 0;
        std::chrono::steady_clock::time_point const _end =
            std::chrono::steady_clock::now() + std::chrono::seconds(30);
    };

    bool _has_tables();
    void _enter_runs(std::int64_t member, std::vector<std::int64_t> const& transitions);
    numbers _make(structure const& net);
    numbers _compare(structure const& net, std::int64_t number, std::string const& nonce);
    void _fold();

    std::unordered_map<std::int64_t, std::vector<placed_arc>> _known;  // arcs by transition
    bool _begun = false;                                               // a transaction
};

inline std::int64_t integer(value const& field) {
    return std::get<std::int64_t>(field);
}
inline std::string const& text(value const& field) {
    return std::get<std::string>(field);
}

// The key of a call belongs to an earlier one that did something else.
[[noreturn]] void refuse_key(std::string const& key);

}  // namespace ovel::durable::detail

#endif
