// SPDX-License-Identifier: Apache-2.0
// The server of a member: what it claims, commits and gives back, and when.
#include "ovel_durable_member.h"

#include <algorithm>
#include <deque>
#include <map>
#include <random>

namespace ovel::durable::detail {

namespace {

constexpr double linger = 0.002;    // s that a firing waits for others to be committed with
constexpr double refresh = 0.05;    // s after which a busy member looks for more to do
constexpr double too_short = 0.02;  // s that what was claimed lasted: so claim more at once
constexpr double too_long = 0.1;    // or less, for the others
constexpr unsigned int most_misses = 6;
constexpr std::size_t most_bytes = 64 << 20;  // of values in one transaction, or a single outcome

std::size_t size_of(outcome const& made) {
    std::size_t size = 0;
    for (auto const& [place, value] : made.put)
        size += value.size();
    return size;
}

}  // namespace

std::string text_of(std::exception_ptr const& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (std::exception const& thrown) {
        return thrown.what();
    } catch (...) {
        return "an exception of an unknown type";
    }
}

void member::_serve() {
    search sought(*this);
    for (bool over = false; !over;) {
        try {
            if (_store == nullptr) {
                _store = _connect();
                _watch_end = _next_look = _next_renewal = clock_type::now();
            }
            _work(sought);
            over = true;
        } catch (unreachable const& lost) {
            _store.reset();
            try {
                sought.again(lost, false);
            } catch (...) {
                fail(std::current_exception());
                over = true;
            }
        } catch (...) {
            fail(std::current_exception());
            over = true;
        }
    }
    // Bodies still running after a failure leave their claims to other members.
    _group->join();
    _leave();
    std::lock_guard const hold(_lock);
    _finished.clear();
    _pending.clear();
    _returned.clear();
    _own.clear();
    _unfinished = 0;
}

// Also settles what a connection that was lost has left: see `_pending`.
void member::_renew() {
    _store->renew(_numbers.net, _member, _name, _chosen.lease, _mine);
    std::set<std::pair<std::int64_t, std::int64_t>> there;
    for (claim const& each : _store->claims_of(_member)) {
        there.emplace(each.number, each.epoch);
        if (_own.count({each.number, each.epoch}) == 0)
            _store->disown(_member, each.number);
    }
    auto const gone = [&](auto const& number, auto const& epoch) {
        return there.count({number, epoch}) == 0 && _own.erase({number, epoch}) != 0;
    };
    std::erase_if(_returned, [&](auto const& each) { return gone(each.first, each.second); });
    std::size_t const ended =
        std::erase_if(_pending, [&](outcome const& each) { return gone(each.number, each.epoch); });
    if (ended != 0) {
        // Those that are not counted as this member's were others'.
        std::int64_t const counted = _store->fired_by(_member);
        auto const own = static_cast<std::size_t>(std::max<std::int64_t>(counted - _committed, 0));
        _committed = counted;
        if (own < ended)
            _report_fenced(ended - own);
    }
    _next_renewal = after(_chosen.lease / 4);
}

// The search is over when a whole round has succeeded: what a connection is lost over may
// be what is asked next.
void member::_work(search& sought) {
    while (_decide()) {
        if (seconds_until(_next_renewal) <= 0)
            _renew();
        _turn();
        _look();
        sought.found();
    }
}

// The failure is the server's to record until that has succeeded. Under _lock, which it
// drops and retakes.
void member::_record_failure(std::unique_lock<lockable<mutex>>& hold) {
    std::string const why = text_of(_failure);
    hold.unlock();
    _store->fail(_numbers.net, why);
    _store->tell(_numbers.net);
    hold.lock();
    _failure_is_ours = false;
}

// Waits until there is something to do; false when all is done.
bool member::_decide() {
    std::unique_lock hold(_lock);
    for (;;) {
        if (_failure_is_ours)
            _record_failure(hold);
        bool const unsettled = !_pending.empty() || !_returned.empty();
        bool const done = _unfinished == 0 && _finished.empty() && !unsettled;
        if (_budget == 0 && !_halted && done) {
            _halted = true;
            _over.ring();
        }
        if (_halted && done)
            return false;
        moment next = _next_renewal;
        bool const idle = _is_idle();
        if (unsettled || (idle && _budget != 0 && (!_hot.empty() || _take_over)))
            return true;
        if (!_finished.empty()) {
            if (_halted || _unfinished == 0 || _finished.size() >= _chosen.batch)
                return true;
            next =
                std::min(next, _oldest + std::chrono::microseconds(static_cast<int>(1e6 * linger)));
        }
        if (idle && _looked != _questions)
            _next_look = clock_type::now();
        if (idle)
            next = std::min(next, _next_look);
        if (seconds_until(next) <= 0)
            return true;
        _waits = true;
        hold.unlock();
        // While all threads are busy there is nothing to look for.
        if (!idle || seconds_until(_watch_end) <= 0)
            _bell.wait(seconds_until(next));
        else if (_store->wait(seconds_until(next), _bell.file()))
            _next_look = clock_type::now();
        hold.lock();
        _waits = false;
        _bell.silence();
    }
}

// Whether it can claim more, under _lock. When bodies are short, the next ones are claimed
// while the group runs the last, so that neither waits for the other.
bool member::_is_idle() const {
    return !_halted && (_unfinished < _threads || (_short && _unfinished <= _quantity));
}

// One transaction, if there is a reason for it.
void member::_turn() {
    turn asked;
    {
        std::lock_guard const hold(_lock);
        std::vector<end> later;
        std::size_t bytes = 0;
        for (outcome const& each : _pending)
            bytes += size_of(each);
        for (end& each : _finished)
            if (each.what == end::returned) {
                _returned.emplace_back(each.made.number, each.made.epoch);
            } else if (each.what == end::committed) {
                bytes += size_of(each.made);
                bool const fits = _pending.size() < _chosen.batch && bytes <= most_bytes;
                if (fits || _pending.empty())
                    _pending.push_back(std::move(each.made));
                else
                    later.push_back(std::move(each));
            }
        _finished = std::move(later);
        if (_is_idle() && _budget != 0 && (!_hot.empty() || _take_over)) {
            double const lasted = -seconds_until(_last_claim);
            _short = lasted < too_short;
            if (lasted < too_short)
                _quantity = std::min<std::size_t>(2 * _quantity, _chosen.batch);
            else if (lasted > too_long)
                _quantity = std::max<std::size_t>(_quantity / 2, std::min(_threads, _chosen.batch));
            auto const quantity =
                static_cast<std::size_t>(std::min<std::uint64_t>(_quantity, _budget));
            // One after the other is the first, and each has its turn when they are many.
            if (!_hot.empty())
                std::rotate(_hot.begin(), _hot.begin() + 1, _hot.end());
            asked.wanted.assign(_hot.begin(), _hot.begin() + static_cast<std::ptrdiff_t>(
                                                                 std::min(_hot.size(), quantity)));
            asked.most = static_cast<std::int64_t>(
                std::max<std::size_t>(quantity / std::max<std::size_t>(asked.wanted.size(), 1), 1));
            asked.take_over = _take_over;
            if (_take_over) {
                asked.wanted = _mine;
                asked.most = static_cast<std::int64_t>(quantity);
            }
        }
    }
    asked.ended = _pending;
    asked.returned = _returned;
    if (asked.ended.empty() && asked.returned.empty() && asked.wanted.empty())
        return;
    turned const made = _store->take_turn(_numbers.net, _member, asked);
    _pending.clear();
    _returned.clear();
    _settle(asked, made);
    if (!asked.wanted.empty())
        _learn(asked, made);
}

// What has been committed and given back is no longer the member's; and what was not has
// not been for some time.
void member::_settle(turn const& asked, turned const& made) {
    for (outcome const& each : asked.ended)
        _own.erase({each.number, each.epoch});
    for (auto const& each : asked.returned)
        _own.erase(each);
    _committed += static_cast<std::int64_t>(made.committed);
    if (std::size_t const lost = asked.ended.size() - made.committed; lost != 0)
        _report_fenced(lost);
}

void member::_report_fenced(std::size_t firings) const {
    _report("others had taken over " + std::to_string(firings) + " of its firings, " +
            "whose commit changed nothing");
}

// Hands out the claims, and draws from them what to ask for next.
void member::_learn(turn const& asked, turned const& made) {
    _last_claim = clock_type::now();
    _take_over = false;
    static thread_local std::minstd_rand random{std::random_device()()};
    std::set<std::int64_t> yielded;
    for (claim const& each : made.claims) {
        yielded.insert(each.transition);
        _own.emplace(each.number, each.epoch);
    }
    std::erase_if(_hot, [&](std::int64_t each) {
        return !asked.take_over &&
               std::find(asked.wanted.begin(), asked.wanted.end(), each) != asked.wanted.end() &&
               yielded.count(each) == 0;
    });
    if (yielded.empty())
        _misses = std::min(_misses + 1, most_misses);
    else
        _misses = 0;
    // Other members hold what was enabled and could not be claimed, for a moment. Two that miss
    // each other's must not try again together.
    if (_hot.empty())
        _next_look = _misses == 0 ? clock_type::now()
                                  : after(0.0005 * (1 << _misses) *
                                          (0.5 + static_cast<double>(random() % 1000) / 1000));
    _budget -= std::min<std::uint64_t>(_budget, made.claims.size());
    {
        std::lock_guard const hold(_lock);
        _unfinished += made.claims.size();
    }
    for (claim const& each : made.claims)
        _group->submit([this, own = each]() mutable { _fire(own); });
}

// Asks the store what is enabled, when it is time to.
void member::_look() {
    {
        std::lock_guard const hold(_lock);
        if (!_is_idle() || seconds_until(_next_look) > 0)
            return;
        _looked = _questions;
    }
    rest_state const seen = _store->rest(_numbers.net);
    if (!seen.failure.empty()) {
        {
            std::lock_guard const hold(_lock);
            if (_failure == nullptr)
                _failure = std::make_exception_ptr(error(seen.failure));
        }
        _alarm.ring();
        return halt();
    }
    if (!seen.claims && seen.enabled.empty()) {
        {
            std::lock_guard const hold(_lock);
            _at_rest = _looked;
        }
        _over.ring();
    }
    for (std::int64_t const each : seen.enabled)
        if (std::find(_mine.begin(), _mine.end(), each) != _mine.end() &&
            std::find(_hot.begin(), _hot.end(), each) == _hot.end())
            _hot.push_back(each);
    _take_over = seen.lost_claims && !_mine.empty();
    bool const watched = seconds_until(_watch_end) > _chosen.poll;
    if (!_hot.empty() || _take_over) {
        if (watched)
            _store->unwatch(_watcher);
        _watch_end = clock_type::now();
        _next_look = after(refresh);
    } else if (watched) {
        _next_look = after(_watch_begins ? std::min(refresh, _chosen.poll) : _chosen.poll);
        _watch_begins = false;
    } else {
        _watch_begins = true;
        // What changed before that has to be looked for once more.
        moment const begin = clock_type::now();
        _watch_end = begin + (after(_watch(*_store, _watcher)) - clock_type::now());
        _next_look = begin;
    }
}

void member::_leave() noexcept {
    try {
        if (_store == nullptr)
            _store = _connect();
        {
            std::unique_lock hold(_lock);
            if (_failure_is_ours)
                _record_failure(hold);
            _served = false;
        }
        _store->unwatch(_watcher);
        _store->renew(_numbers.net, _member, _name, 0, {});
        _store->tell(_numbers.net);
    } catch (std::exception const&) {
        // Its lease runs out by itself.
    }
    _store.reset();
    std::lock_guard const hold(_lock);
    _served = false;
}

void member::_fire(claim& own) {
    end made{{own.number, own.epoch, own.transition, {}, {}}, end::committed};
    bool halted;
    {
        std::lock_guard const hold(_lock);
        halted = _halted;
    }
    if (halted) {
        made.what = end::returned;
    } else {
        try {
            _run_body(own, made.made);
        } catch (...) {
            fail(std::current_exception());
            made.what = end::kept;
        }
    }
    _finish(std::move(made));
}

void member::_run_body(claim& own, outcome& made) {
    std::size_t const index = _indices.at(own.transition);
    std::vector<arc> const& arcs = plan.transitions[index].arcs;
    // The tokens, by place.
    std::map<std::size_t, std::deque<token>> from;
    std::size_t next = 0;
    for (arc const& each : merged(arcs))
        for (std::uint64_t i = 0; each.input && i < each.weight; ++i, ++next)
            from[each.place].push_back({own.tokens[next], std::move(own.values[next])});
    std::vector<std::vector<token>> taken;
    std::size_t outputs = 0;
    for (arc const& each : arcs) {
        if (!each.input) {
            ++outputs;
            continue;
        }
        std::vector<token>& tokens = taken.emplace_back();
        for (std::uint64_t i = 0; i < each.weight; ++i) {
            tokens.push_back(std::move(from[each.place].front()));
            from[each.place].pop_front();
        }
    }
    std::vector<std::vector<std::string>> put(outputs);
    codes[index]->run(key(_numbers.nonce + '-' + std::to_string(own.number)), taken, put);
    std::size_t output = 0;
    for (arc const& each : arcs) {
        if (each.input)
            continue;
        std::vector<std::string>& values = put[output++];
        assure(values.size() <= each.weight);
        std::int64_t const place = _numbers.places[each.place];
        if (values.size() != each.weight)
            made.spare.emplace_back(place, static_cast<std::int64_t>(each.weight - values.size()));
        for (std::string& value : values)
            made.put.emplace_back(place, std::move(value));
    }
}

// The server is woken for what it would not wait with.
void member::_finish(end&& made) {
    bool wake;
    {
        std::lock_guard const hold(_lock);
        if (_finished.empty())
            _oldest = clock_type::now();
        _finished.push_back(std::move(made));
        bool const was_idle = _is_idle();
        --_unfinished;
        wake = _waits && (_finished.size() == 1 || _finished.size() == _chosen.batch ||
                          _unfinished == 0 || was_idle != _is_idle());
    }
    if (wake)
        _bell.ring();
}

}  // namespace ovel::durable::detail
