// SPDX-License-Identifier: Apache-2.0
// The calls of clients, and how a member starts and ends.
#include "ovel_durable_member.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>

namespace ovel::durable::detail {

namespace {

std::string own_name() {
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    return std::string(host) + ':' + std::to_string(getpid());
}

}  // namespace

bell::bell() : _file(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (_file == -1)
        throw error("no file is left for a net");
}
bell::~bell() {
    close(_file);
}
void bell::ring() {
    eventfd_write(_file, 1);
}
void bell::silence() {
    eventfd_t count;
    eventfd_read(_file, &count);
}
void bell::wait(double seconds) const {
    pollfd heard{_file, POLLIN, 0};
    poll(&heard, 1, static_cast<int>(std::clamp(1e3 * seconds, 0.0, 1e6)) + 1);
}

member::member(connector connect, std::string name, options chosen)
    : plan{std::move(name), {}, {}},
      _connect(std::move(connect)),
      _chosen(std::move(chosen)),
      _threads(_chosen.threads != 0 ? _chosen.threads : thread_support::processors()),
      _name(_chosen.name.empty() ? own_name() : _chosen.name) {
    assure(_chosen.batch != 0);
    assure(_chosen.lease > 0 && _chosen.poll > 0 && _chosen.patience >= 0);
}

member::~member() {
    stop();
}

void member::_report(std::string const& what) const {
    if (_chosen.report)
        _chosen.report(what);
    else
        std::fprintf(stderr, "ovel_durable: net \"%s\": %s\n", plan.name.c_str(), what.c_str());
}

void member::search::again(unreachable const& lost, bool was_old) {
    bool const first = !_end;
    if (first) {
        _end = after(_of._chosen.patience);
        _pause = 0.05;
    }
    if (!was_old && seconds_until(*_end) <= 0)
        throw error(lost.what());
    if (first)
        _of._report(std::string(lost.what()) + "; trying again");
    if (was_old)
        return;
    // Not all members at the same moment.
    static thread_local std::minstd_rand random{std::random_device()()};
    double const pause = std::min(_pause * (0.5 + static_cast<double>(random() % 1000) / 1000),
                                  std::max(seconds_until(*_end), 0.0));
    _pause = std::min(2 * _pause, 2.0);
    thread_support::timed_yield(time::then(pause));
}

void member::search::found() {
    if (_end)
        _of._report("the connection to the store is back");
    _end.reset();
}

// For the seconds that it returns.
double member::_watch(store& with, std::string const& watcher) const {
    double const seconds = 4 * _chosen.poll + 1;
    with.watch(_numbers.net, watcher, seconds);
    return seconds;
}

// Runs `work` with a connection. `work` is repeated on another one when that is lost, so it
// must do nothing twice that counts.
template <class Work>
auto member::_borrow(Work const& work) {
    search sought(*this);
    for (;;) {
        bool is_old = false;
        try {
            std::unique_ptr<store> lent;
            {
                std::lock_guard const hold(_lock);
                if (!_idle.empty()) {
                    lent = std::move(_idle.back());
                    _idle.pop_back();
                }
            }
            is_old = lent != nullptr;
            if (lent == nullptr)
                lent = _connect();
            auto made = work(*lent);
            sought.found();
            std::lock_guard const hold(_lock);
            _idle.push_back(std::move(lent));
            return made;
        } catch (unreachable const& lost) {
            // The others were lost with it.
            std::vector<std::unique_ptr<store>> old;
            {
                std::lock_guard const hold(_lock);
                old.swap(_idle);
            }
            sought.again(lost, is_old);
        }
    }
}

void member::open() {
    std::lock_guard const one(_opening);
    if (_opened)
        return;
    std::unique_ptr<store> first = _connect();
    _numbers = first->open(plan);
    for (std::size_t i = 0; i < _numbers.transitions.size(); ++i)
        _indices[_numbers.transitions[i]] = i;
    std::lock_guard const hold(_lock);
    _idle.push_back(std::move(first));
    _opened = true;
}

void member::start(std::optional<std::vector<std::string>> const& names) {
    assure(!_running);
    open();
    _mine.clear();
    for (std::size_t i = 0; i < plan.transitions.size(); ++i)
        if (!names ||
            std::find(names->begin(), names->end(), plan.transitions[i].name) != names->end())
            _mine.push_back(_numbers.transitions[i]);
    if (names && _mine.size() != names->size())
        throw error("the net \"" + plan.name + "\" has not every transition that is to be run");
    {
        std::lock_guard const hold(_lock);
        _failure = nullptr;
        _failure_is_ours = false;
        _halted = false;
    }
    _committed = 0;
    _alarm.silence();
    _over.silence();
    _watch_end = clock_type::now();
    _budget = _chosen.firings;
    _quantity = std::min(_threads, _chosen.batch);
    _hot.clear();
    _last_claim = _next_look = clock_type::now();
    _next_renewal = after(_chosen.lease / 4);
    _store = _connect();
    _member = _store->enter(_numbers.net, _name, _chosen.lease, _mine);
    _group = std::make_unique<work_group>(_threads);
    {
        std::lock_guard const hold(_lock);
        _served = true;
    }
    _server.schedule(_serving);
    _server.release();
    _running = true;
}

void member::halt() {
    {
        std::lock_guard const hold(_lock);
        _halted = true;
    }
    _bell.ring();
    _over.ring();
}

void member::stop() {
    if (!_running)
        return;
    halt();
    _server.acquire();
    _running = false;
}

// What the net fails with first is what it has failed with.
void member::fail(std::exception_ptr failure) {
    {
        std::unique_lock hold(_lock);
        if (!_served) {
            hold.unlock();
            std::string const why = text_of(failure);
            open();
            _borrow([&](store& with) {
                with.fail(_numbers.net, why);
                with.tell(_numbers.net);
                return true;
            });
            return;
        }
        if (_failure == nullptr) {
            _failure = std::move(failure);
            _failure_is_ours = true;
        }
    }
    halt();
    _alarm.ring();
}

void member::_throw_failure() {
    std::lock_guard const hold(_lock);
    if (_failure != nullptr)
        std::rethrow_exception(_failure);
}

bool member::join(time const* deadline) {
    assure(_running);
    if (!_wait_for_rest(after(deadline == nullptr ? 1e9 : (*deadline - time::now()).seconds())))
        return false;
    stop();
    _throw_failure();
    return true;
}

// False if `end` passes first. The server decides: while it has firings the net is not at
// rest, and when it has none it queries the store anyway. Only a query that began after this
// call counts.
bool member::_wait_for_rest(moment const& end) {
    std::unique_lock hold(_lock);
    std::uint64_t const question = ++_questions;
    _bell.ring();
    while (!_halted && _at_rest < question) {
        hold.unlock();
        double const left = seconds_until(end);
        if (left <= 0)
            return false;
        _over.wait(left);
        _over.silence();
        hold.lock();
    }
    return true;
}

std::string member::_new_key() {
    static std::string const process = [] {
        std::random_device source;
        std::string made = "ovel";
        for (int i = 0; i < 4; ++i)
            made += '-' + std::to_string(source());
        return made;
    }();
    static ovel::detail::atomic<std::uint64_t> next{0};
    return process + '-' + std::to_string(next++);
}

answer member::_call(std::function<answer(store&, call const&)> const& once, key const* named,
                     bool wait) {
    open();
    call asked{named != nullptr ? named->text() : _new_key(), named == nullptr, {}};
    std::string const watcher = _new_key();
    {
        std::lock_guard const hold(_lock);
        asked.forget.swap(_forget);
    }
    int tries = 0;
    answer const made = _borrow([&](store& with) {
        ++tries;
        bool watches = false;
        double pause = 0.05;  // at first, for a transaction that was under way at that moment
        answer got = once(with, asked);
        while (got == answer::busy || (wait && got != answer::done)) {
            if (got == answer::busy) {
                with.wait(0.001, _alarm.file());
            } else if (watches) {
                with.wait(std::min(pause, _chosen.poll), _alarm.file());
                pause = _chosen.poll;
                _throw_failure();
                if (std::string const failure = with.rest(_numbers.net).failure; !failure.empty())
                    throw error(failure);
            }
            if (wait)
                _watch(with, watcher);
            watches = wait;
            got = once(with, asked);
        }
        if (watches)
            with.unwatch(watcher);
        return got;
    });
    // After a lost connection the first request may still reach the server, and must find the key.
    if (asked.own && tries == 1) {
        std::lock_guard const hold(_lock);
        _forget.push_back(asked.key);
    }
    return made;
}

bool member::put(std::size_t place, std::string value, key const* named, bool wait) {
    auto const once = [&](store& with, call const& asked) {
        return with.put(_numbers.net, _numbers.places[place], value, asked);
    };
    return _call(once, named, wait) == answer::done;
}

bool member::take(std::size_t place, key const* named, bool wait, acceptor const& accept) {
    bool refused = false;
    auto const checked = [&](token const& taken) {
        try {
            accept(taken);
        } catch (...) {
            refused = true;
            throw;
        }
    };
    auto const once = [&](store& with, call const& asked) {
        return with.take(_numbers.net, _numbers.places[place], asked, checked);
    };
    try {
        return _call(once, named, wait) == answer::done;
    } catch (...) {
        try {
            if (refused)
                fail(std::current_exception());
        } catch (error const&) {
            // The call throws what was first.
        }
        throw;
    }
}

state member::look() {
    open();
    return _borrow([&](store& with) { return with.look(plan.name); });
}

engine::engine(connector connect, std::string net, options chosen)
    : _member(std::make_unique<member>(std::move(connect), std::move(net), std::move(chosen))) {}
// In a fork neither its threads nor its connections are the member's: to end one of those would
// end the parent's.
engine::~engine() {
    if (_member->inherited())
        static_cast<void>(_member.release());
}

std::size_t engine::insert_place(std::string name, std::uint64_t capacity, std::string codec,
                                 std::vector<std::string> initial) {
    for (place_entry const& each : _member->plan.places)
        assure(each.name != name);
    assure(capacity != 0 && capacity <= std::uint64_t{1} << 62);
    assure(initial.size() <= capacity);
    _member->plan.places.push_back(
        {std::move(name), capacity, std::move(codec), std::move(initial)});
    return _member->plan.places.size() - 1;
}

std::size_t engine::insert_transition(std::string name, std::vector<arc> arcs,
                                      std::unique_ptr<body> code) {
    for (transition_entry const& each : _member->plan.transitions)
        assure(each.name != name);
    assure(!arcs.empty());
    for (arc const& each : arcs)
        assure(each.weight != 0 && each.weight <= std::uint64_t{1} << 31);
    _member->plan.transitions.push_back({std::move(name), std::move(arcs)});
    _member->codes.push_back(std::move(code));
    return _member->plan.transitions.size() - 1;
}

std::string const& engine::name() const {
    return _member->plan.name;
}
std::string const& engine::name_of_place(std::size_t place) const {
    return _member->plan.places[place].name;
}
std::uint64_t engine::capacity_of_place(std::size_t place) const {
    return _member->plan.places[place].capacity;
}

void engine::open() {
    _member->open();
}
void engine::start(std::optional<std::vector<std::string>> const& names) {
    _member->start(names);
}
bool engine::join(time const* deadline) {
    return _member->join(deadline);
}
void engine::halt() {
    _member->halt();
}
void engine::stop() {
    _member->stop();
}
void engine::fail(std::exception_ptr failure) {
    _member->fail(std::move(failure));
}
bool engine::put(std::size_t place, std::string value, key const* call, bool wait) {
    return _member->put(place, std::move(value), call, wait);
}
bool engine::take(std::size_t place, key const* call, bool wait,
                  std::function<void(token const&)> const& accept) {
    return _member->take(place, call, wait, accept);
}
state engine::look() {
    return _member->look();
}

}  // namespace ovel::durable::detail
