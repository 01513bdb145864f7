// SPDX-License-Identifier: Apache-2.0
// A member of a net: its connections, and the thread that claims and commits.
//
// Threads. The server, one thread, talks to the store about firings. Bodies run on the
// group's threads; what they leave goes to `_finished`, under `_lock`, and the server
// commits it. Calls of clients, and `join`, run on their own threads and borrow a
// connection each. No call to the store, and no body, is made under `_lock`.
//
// Commits that may have happened. The server keeps what it asked to be committed in
// `_pending` until it has the answer, and asks again on the next connection: the claims
// are gone if it was done, so it is done once. What it claimed in a transaction whose
// answer was lost is given up, to be taken over by any member, itself included. Such a
// transaction may be committed late, after the next connection was made: so whenever it
// renews its lease the member gives up claims in its name that it does not know.
#ifndef OVEL_DURABLE_MEMBER_H
#define OVEL_DURABLE_MEMBER_H

#include "ovel_durable_store.h"

#include <ovel_mutex.h>
#include <ovel_petri.h>
#include <ovel_std.h>
#include <ovel_thread.h>
#include <ovel_work.h>

#include <chrono>
#include <set>
#include <unordered_map>

#include <unistd.h>

namespace ovel::durable::detail {

using clock_type = std::chrono::steady_clock;
using moment = clock_type::time_point;

inline moment after(double seconds) {
    return clock_type::now() +
           std::chrono::duration_cast<clock_type::duration>(std::chrono::duration<double>(seconds));
}
inline double seconds_until(moment const& point) {
    return std::chrono::duration<double>(point - clock_type::now()).count();
}

// What was thrown.
std::string text_of(std::exception_ptr const& failure);

// Wakes a thread that waits on a connection: readable once it was rung.
class bell {
public:
    bell();
    ~bell();
    bell(bell const&) = delete;
    bell& operator=(bell const&) = delete;

    void ring();
    void silence();
    void wait(double seconds) const;
    int file() const {
        return _file;
    }

private:
    int const _file;
};

class member {
public:
    member(connector connect, std::string name, options chosen);
    ~member();
    member(member const&) = delete;
    member& operator=(member const&) = delete;

    // Of the net, before it is opened.
    structure plan;
    std::vector<std::unique_ptr<body>> codes;

    void open();
    void start(std::optional<std::vector<std::string>> const& names);
    bool join(time const* deadline);
    void halt();
    void stop();
    void fail(std::exception_ptr failure);
    bool put(std::size_t place, std::string value, key const* named, bool wait);
    bool take(std::size_t place, key const* named, bool wait, acceptor const& accept);
    state look();

    // Whether this process is a fork of the one that has made it.
    bool inherited() const {
        return _process != getpid();
    }

private:
    // A firing that has ended.
    struct end {
        outcome made;
        enum { committed, returned, kept } what;
    };

    // Once the connection is lost, how it is sought.
    class search {
    public:
        explicit search(member& of) : _of(of) {}

        // Reports `lost`, the first time. Unless the connection was an old one, waits for a
        // while, and rethrows it when that was too often.
        void again(unreachable const& lost, bool was_old);
        void found();

    private:
        member& _of;
        std::optional<moment> _end;
        double _pause = 0;
    };

    // Clients.
    template <class Work>
    auto _borrow(Work const& work);
    answer _call(std::function<answer(store&, call const&)> const& once, key const* named,
                 bool wait);
    double _watch(store& with, std::string const& watcher) const;
    bool _wait_for_rest(moment const& end);
    static std::string _new_key();
    void _report(std::string const& what) const;
    void _throw_failure();

    // The server.
    void _serve();
    void _work(search& sought);
    bool _decide();
    bool _is_idle() const;
    void _look();
    void _turn();
    void _settle(turn const& asked, turned const& made);
    void _report_fenced(std::size_t firings) const;
    void _learn(turn const& asked, turned const& made);
    void _renew();
    void _record_failure(std::unique_lock<lockable<mutex>>& hold);
    void _leave() noexcept;

    // The group's threads.
    void _fire(claim& own);
    void _run_body(claim& own, outcome& made);
    void _finish(end&& made);

    pid_t const _process = getpid();
    connector const _connect;
    options const _chosen;
    unsigned int const _threads;
    std::string const _name;

    // Set by `open`.
    numbers _numbers;
    std::unordered_map<std::int64_t, std::size_t> _indices;  // of transitions

    // Lock order: `_opening`, then `_lock`.
    lockable<mutex> _opening;  // held while the net is opened, which blocks
    bool _opened = false;      // under _opening
    lockable<mutex> _lock;
    std::vector<std::unique_ptr<store>> _idle;  // connections not in use; under _lock, as all
                                                // up to the bells
    std::vector<std::string> _forget;           // keys whose answer has come
    std::exception_ptr _failure;
    bool _failure_is_ours = false;  // the server has to record it in the store
    bool _served = false;           // there is a server, which will look for that
    bool _halted = false;
    std::vector<end> _finished;
    std::size_t _unfinished = 0;   // claims that the group has
    moment _oldest;                // when the first of `_finished` came
    bool _waits = false;           // the server, on its bell
    std::uint64_t _questions = 0;  // how often `join` has asked whether the net rests
    std::uint64_t _at_rest = 0;    // the last of these that was answered by yes
    bell _bell;
    bell _alarm;  // stays rung once the net has failed
    bell _over;   // rung for `join` when the member is halted, or the net rests

    // The server's own, and its starter's.
    std::int64_t _member = 0;
    std::vector<std::int64_t> _mine;  // transitions
    std::vector<std::int64_t> _hot;   // of those, that may be enabled
    std::uint64_t _budget = 0;        // claims that may still be made
    std::size_t _quantity = 1;        // claims that it asks for
    moment _last_claim;
    moment _next_look;
    moment _next_renewal;
    unsigned int _misses = 0;  // claims in a row that others had got first
    bool _take_over = false;
    std::uint64_t _looked = 0;  // the last question that it has looked for
    std::string const _watcher = _new_key();
    moment _watch_end;           // until then the store tells it of changes
    bool _watch_begins = false;  // transactions may be committing that did not see the watcher
    bool _short = false;         // bodies are short, so it claims ahead
    std::unique_ptr<store> _store;
    std::vector<outcome> _pending;
    std::vector<std::pair<std::int64_t, std::int64_t>> _returned;  // to be, as `_pending`
    std::int64_t _committed = 0;                                   // firings, as far as it knows
    std::set<std::pair<std::int64_t, std::int64_t>> _own;  // numbers and epochs of its claims

    bool _running = false;  // the owner's
    std::unique_ptr<work_group> _group;
    work<std::function<void()>> _serving{[this] {
        _serve();
    }};
    thread _server;
};

}  // namespace ovel::durable::detail

#endif
