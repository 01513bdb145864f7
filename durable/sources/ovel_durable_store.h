// SPDX-License-Identifier: Apache-2.0
// A connection to the database that holds a net, and what is asked of it. Each
// operation is one transaction, or one query, of the database.
//
// The tables. A token is in exactly one of `tokens`, where it waits in its place, and a
// row of `claims`, whose firing has taken it. A slot of a place is taken by a token that
// waits there, by one that a claim has taken from there, by a claim that will put one
// there, or it is free; `rooms` counts the free ones. So a claim moves tokens into its
// row and takes room for what it will put, and a commit deletes the claim, puts its
// tokens, and makes room where it took some. The marking follows from the tables alone.
//
//     nets         a name, the part of keys that is the net's own, why it failed
//     places, transitions, arcs    the structure, in the order of insertion
//     tokens       of a place, in the order of their numbers
//     rooms        free slots of a place
//     claims       claimed firings: number, epoch and member, the tokens they took; in SQLite
//                  one in a row, in PostgreSQL several
//     members      until when each has its lease, by the database's clock
//     runs         which transitions a member runs, and how often it has fired each
//     watchers     connections that wait for notifications, and until when
//     calls        the keys of clients' calls, with what those did and returned
//
// Fencing. Taking over a claim raises its epoch. A commit deletes the claim of its
// number and epoch; where there is none, it changes nothing. The number is never used
// again, so it makes the key of the firing. A member that slept and took its own claim
// over from the one that had it meanwhile may end it twice, under two epochs.
#ifndef OVEL_DURABLE_STORE_H
#define OVEL_DURABLE_STORE_H

#include "ovel_durable_engine.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ovel::durable::detail {

// The connection is gone, or the database does not answer: what was asked may have
// been done or not, and may be asked again on another connection.
class unreachable : public error {
public:
    using error::error;
};

// What is inserted into a net before it is opened.
struct place_entry {
    std::string name;
    std::uint64_t capacity;
    std::string codec;
    std::vector<std::string> initial;  // put when the net is made
};
struct transition_entry {
    std::string name;
    std::vector<arc> arcs;
};
struct structure {
    std::string name;
    std::vector<place_entry> places;
    std::vector<transition_entry> transitions;
};

// The arcs of a transition as they stand in the store: one for each place and
// direction, in the order in which they are first named.
std::vector<arc> merged(std::vector<arc> const& arcs);

// The store's numbers for a net that is open, by the structure's indices.
struct numbers {
    std::int64_t net = 0;
    std::string nonce;
    std::vector<std::int64_t> places;
    std::vector<std::int64_t> transitions;
};

// A firing that its member has claimed: the tokens of the input places in the order in
// which the transition's arcs first name them.
struct claim {
    std::int64_t number = 0;
    std::int64_t epoch = 0;
    std::int64_t transition = 0;
    std::vector<std::int64_t> tokens;
    std::vector<std::string> values;
};

// What became of a claim.
struct outcome {
    std::int64_t number;
    std::int64_t epoch;
    std::int64_t transition;
    std::vector<std::pair<std::int64_t, std::string>> put;     // place, value
    std::vector<std::pair<std::int64_t, std::int64_t>> spare;  // place, slots not filled
};

// One transaction of a member: the firings that have ended, those that have not begun
// and are given back, and the claims that it wants: new ones, or those that others have lost.
struct turn {
    std::vector<outcome> ended;
    std::vector<std::pair<std::int64_t, std::int64_t>> returned;  // number, epoch
    std::vector<std::int64_t> wanted;                             // transitions
    std::int64_t most = 0;   // new claims for each of them, lost ones for all
    bool take_over = false;  // lost ones
};
struct turned {
    std::size_t committed = 0;
    std::size_t returned = 0;
    std::vector<claim> claims;
};

// A net as one query sees it.
struct rest_state {
    bool claims = false;                // there are some
    bool lost_claims = false;           // and some whose member has no lease any more
    std::vector<std::int64_t> enabled;  // transitions
    std::string failure;
};

// What a client's call is known by. Its own keys are forgotten once it has the answer.
struct call {
    std::string key;
    bool own;
    std::vector<std::string> forget;
};

// What came of one.
enum class answer { done, impossible, busy };  // busy: others are at it just now

// Gets a token that was taken, before that is committed. If it throws, the token stays.
using acceptor = std::function<void(token const&)>;

class store {
public:
    virtual ~store() = default;

    // Makes the net, with its initial tokens, unless there is one of that name; that
    // must have the same structure, or the error names the difference.
    virtual numbers open(structure const& net) = 0;

    // Enters a member that runs `transitions`, and forgets why the net failed if there
    // are any. Returns its number.
    virtual std::int64_t enter(std::int64_t net, std::string const& name, double lease,
                               std::vector<std::int64_t> const& transitions) = 0;

    // Renews its lease, or ends it with 0 seconds.
    virtual void renew(std::int64_t net, std::int64_t member, std::string const& name, double lease,
                       std::vector<std::int64_t> const& transitions) = 0;

    // The next three also tell watchers of what they have changed, as `tell` does.
    virtual turned take_turn(std::int64_t net, std::int64_t member, turn const& asked) = 0;

    virtual answer put(std::int64_t net, std::int64_t place, std::string const& value,
                       call const& named) = 0;
    virtual answer take(std::int64_t net, std::int64_t place, call const& named,
                        acceptor const& accept) = 0;

    // The claims that are the member's, without their tokens.
    virtual std::vector<claim> claims_of(std::int64_t member) = 0;

    // How many firings it has committed.
    virtual std::int64_t fired_by(std::int64_t member) = 0;

    // Gives a claim up: any member may take it over.
    virtual void disown(std::int64_t member, std::int64_t claim) = 0;

    virtual rest_state rest(std::int64_t net) = 0;
    virtual void fail(std::int64_t net, std::string const& why) = 0;

    virtual std::vector<std::string> nets() = 0;
    virtual state look(std::string const& net) = 0;

    // Whether two tokens that wait in the net have the same value.
    virtual bool repeats(std::string const& net) = 0;

    // For `seconds` from now, `wait` returns on changes of the net. Check for earlier changes
    // after this call, and once more for a transaction that is committing at this moment.
    virtual void watch(std::int64_t net, std::string const& watcher, double seconds) = 0;

    // These two do what they can and throw nothing: what they follow was committed, and
    // watchers poll as well.
    virtual void unwatch(std::string const& watcher) = 0;

    // Tells watchers of the net, if there are any, that it has changed; after the change.
    virtual void tell(std::int64_t net) = 0;

    // Waits for a change, for `bell` to be readable, or for `seconds`; whether it was
    // a change.
    virtual bool wait(double seconds, int bell) = 0;
};

std::unique_ptr<store> connect_postgresql(std::string const& url);
std::unique_ptr<store> connect_sqlite(std::string const& file);

}  // namespace ovel::durable::detail

#endif
