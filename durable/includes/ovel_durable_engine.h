// SPDX-License-Identifier: Apache-2.0
// The untyped part of durable nets: a member of a net whose tokens are byte strings.
// Programs use `ovel_durable.h`, which is typed.
#ifndef OVEL_DURABLE_ENGINE_H
#define OVEL_DURABLE_ENGINE_H

#include <ovel_frame.h>
#include <ovel_time.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#if !defined(_WIN32)
#define OVEL_DURABLE_EXPORT __attribute__((visibility("default")))
#else
#define OVEL_DURABLE_EXPORT
#endif

namespace ovel::durable {

// What a net fails with: its store, its structure or a codec. `what` is one line.
class OVEL_DURABLE_EXPORT error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Identifies one firing, or one call of a client. It stays the same however often and by
// which member that is repeated. No two firings share a key, of any nets.
class key {
public:
    explicit key(std::string text) : _text(std::move(text)) {}

    std::string const& text() const {
        return _text;
    }

    friend bool operator==(key const& left, key const& right) = default;

private:
    std::string _text;
};

// How a member takes part in its net. Times are in seconds.
struct options {
    unsigned int threads = 0;  // for bodies; 0: one for each processor
    unsigned int batch = 50;   // the most firings that it claims, or commits, at once

    // How long a member may stay silent before others take over its claims. It renews its
    // lease four times as often, independently of its bodies.
    double lease = 10;

    // How often it polls for work when no notification comes.
    double poll = 1;

    // How long it tries to reconnect before it fails.
    double patience = 60;

    // The most firings that it claims in all.
    std::uint64_t firings = std::uint64_t{1} << 62;

    // Its name in `explain`; empty: its machine and process.
    std::string name = {};

    // Called with one line when a connection is lost or restored, and when others have taken
    // over claims; by the member's threads. Empty: the error stream.
    std::function<void(std::string const&)> report = {};
};

namespace detail {

// A token that a firing has taken.
struct token {
    std::int64_t number;  // its name in the store, with that of its place
    std::string value;
};

// An arc of a transition, between it and the place with that index.
struct arc {
    std::size_t place;
    bool input;
    std::uint64_t weight;
};

// A body. `taken` has the tokens of each input arc and `put` gets the values for each
// output arc, at most its weight, in the order of the arcs. What it throws fails the
// net, whose tokens stay.
class body {
public:
    virtual ~body() = default;
    virtual void run(key const& firing, std::vector<std::vector<token>>& taken,
                     std::vector<std::vector<std::string>>& put) = 0;
};

// What is known of a net's places and transitions in its store.
struct place_state {
    std::string name;
    std::uint64_t capacity;
    std::uint64_t tokens;   // claimed ones as well
    std::uint64_t claimed;  // by open claims
    std::uint64_t free;     // slots that no firing has reserved
};
struct transition_state {
    std::string name;
    std::uint64_t fired;
    bool runs;     // a live member runs it
    bool enabled;  // now
};
struct claim_state {
    std::string transition;
    std::string member;
    std::uint64_t firings;
    double lease;  // seconds that are left of it; negative: it has run out
};

// A net at one moment.
struct state {
    std::string name;
    std::string failure;  // empty: none
    std::vector<place_state> places;
    std::vector<transition_state> transitions;
    std::vector<claim_state> claims;
    std::vector<std::string> members;  // those that live
};

class store;
class member;

// Makes connections to one store. The library's own by its URL.
using connector = std::function<std::unique_ptr<store>()>;
OVEL_DURABLE_EXPORT connector connect_to(std::string const& url);

// The names of the nets in a store, and one of them.
OVEL_DURABLE_EXPORT std::vector<std::string> nets_of(connector const& connect);
OVEL_DURABLE_EXPORT state state_of(connector const& connect, std::string const& net);

// Whether some value is that of several tokens that wait in the net.
OVEL_DURABLE_EXPORT bool repeats_values(connector const& connect, std::string const& net);

// As text, for people.
OVEL_DURABLE_EXPORT std::string explanation(state const& seen);

// A member of a net, or a client of one. Insertions come before all else, from one
// thread; `start`, `join` and the destructor are for one thread at a time; the rest is
// for any. All throw `error`.
class OVEL_DURABLE_EXPORT engine {
public:
    engine(connector connect, std::string net, options chosen);
    ~engine();
    engine(engine const&) = delete;
    engine& operator=(engine const&) = delete;

    std::size_t insert_place(std::string name, std::uint64_t capacity, std::string codec,
                             std::vector<std::string> initial);
    std::size_t insert_transition(std::string name, std::vector<arc> arcs,
                                  std::unique_ptr<body> code);

    std::string const& name() const;
    std::string const& name_of_place(std::size_t place) const;
    std::uint64_t capacity_of_place(std::size_t place) const;

    // Makes the net in the store, or compares it with the one that is there.
    void open();

    // Fires the transitions with these names; all without any.
    void start(std::optional<std::vector<std::string>> const& names);

    // Waits until the net is at rest, then ends the member. False, and it goes on, once
    // `deadline`, if there is one, has passed.
    bool join(time const* deadline);

    // Begins no further firing; `stop` also waits for running bodies and gives back the
    // claims.
    void halt();
    void stop();
    void fail(std::exception_ptr failure);

    // Put and take a token; without `wait` only if that is possible now. A call with
    // the key of an earlier one returns what that returned, and changes nothing. `accept`
    // gets what is taken before that is committed, more than once if that has to be repeated.
    // If it throws, the token stays, and the net fails with that.
    bool put(std::size_t place, std::string value, key const* call, bool wait);
    bool take(std::size_t place, key const* call, bool wait,
              std::function<void(token const&)> const& accept);

    state look();

private:
    std::unique_ptr<member> _member;
};

}  // namespace detail

}  // namespace ovel::durable

#endif
