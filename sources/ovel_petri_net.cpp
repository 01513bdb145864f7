// Petri nets: their elements, the engine that fires them, and their start and stop.
//
// Counts. Of the `_size` committed tokens of a place, `_receive_size` are reserved
// by firings, and `_send_size` of its free slots are. A firing reserves all that its
// arcs ask for when it is initiated and commits it when it terminates, so no other
// thread ever sees half of it, and its code never waits.
//
// The queue. A transition is in `_queue` only if it is enabled, and leaves it when a
// reservation makes it otherwise. It is looked at again when one of its places gains
// tokens or slots, when one of its firings ends, and when it is activated; and then
// only if its arc at that place is enabled, and, from start to stop and unless it is
// reentrant, was not before. From start to stop the first few are kept in `_ahead`, for
// mostly a change queues no more.
//
// Rows. What the lists of arcs say, the engine reads in rows of plain values: each node,
// arc and neighbour that it looked at would be a line of memory to wait for, and those
// that a thread writes go to and fro between the processors with `_mutex`.
//
// Dispatching. From start to stop, whoever has changed something under `_mutex`
// initiates the firings of all that is queued before giving it up, so that, from the
// first such on, the queue is empty whenever `_mutex` is free. A firing that is initiated waits
// with the crew of its group, one for each group, until a thread of the group is free to run it:
// the largest space that fits first, then the longest time, then the first come, as the group
// itself would choose. The start of the net sorts the spaces and times, so that taking and waiting
// compare no times, and spaces only when they are scarce. A thread that ends a firing goes on with
// the next within the same hold of `_mutex`, and leaves when there is none that fits.
//
// Wake-ups. While a firing that fits waits and the group has threads to spare, one is
// called, with work scheduled on the group; the next is called by that one, when it
// has come and there is still something to do. So no more than one is on its way at
// a time, and short work is done without waking anybody. Callers of the token interface
// are woken when something has come to a place that one of them waits at, and the
// queue thread when the net is to stop and is at rest. All that is done after giving
// `_mutex` up.
//
// Lock order: `_mutex`, then a place's.

#include "ovel_petri_net.h"

#include "ovel_allocator_group.h"
#include "ovel_counter.h"
#include "ovel_guard.h"
#include "ovel_spin_wait.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <memory>
#include <tuple>
#include <utility>

namespace ovel {

petri_place::petri_place(unsigned int capacity)
    : _channel(capacity), _mutex(detail::current_spin()), _capacity(capacity) {}

petri_place::~petri_place() = default;

unsigned int petri_place::capacity() const {
    return _channel.capacity();
}

void petri_place::peek(any& token) {
    detail::guard const hold(_mutex);
    _channel.peek(token);
}

void petri_place::receive(any& token) {
    detail::guard const hold(_mutex);
    _channel.receive(token);
}

void petri_place::send(any const& token) {
    detail::guard const hold(_mutex);
    _channel.send(token);
}

void petri_place::_put(any&& token) {
    detail::guard const hold(_mutex);
    _channel.put(std::move(token));
}

void petri_place::receive_skip() {
    detail::guard const hold(_mutex);
    detail::add(_receive_skip, 1u);
}

void petri_place::send_skip() {
    detail::guard const hold(_mutex);
    detail::add(_send_skip, 1u);
}

// Takes up to `size` skips off the count, and returns how many. Relaxed: a firing that
// skips does so before it ends, on the same thread, and so finds at least its own.
unsigned int petri_place::_settle(detail::atomic<unsigned int>& skip, unsigned int size) {
    if (skip.load(std::memory_order_relaxed) == 0)
        return 0;
    detail::guard const hold(_mutex);
    unsigned int const settled = std::min(skip.load(std::memory_order_relaxed), size);
    detail::add(skip, -settled);
    return settled;
}

petri_arc::petri_arc(bool input, petri_place* place, petri_transition* transition,
                     petri_place*& place_reference, unsigned int size)
    : _input(input),
      _place(place),
      _transition(transition),
      _place_reference(place_reference),
      _size(size) {}

bool petri_arc::input() const {
    return _input;
}

bool petri_arc::output() const {
    return !_input;
}

petri_place* petri_arc::place() const {
    return _place;
}

petri_transition* petri_arc::transition() const {
    return _transition;
}

petri_place*& petri_arc::place_reference() const {
    return _place_reference;
}

unsigned int petri_arc::size() const {
    return _size;
}

petri_connector::petri_connector(bool input, petri_transition* transition,
                                 petri_place*& place_reference, unsigned int size,
                                 unsigned int capacity)
    : _input(input),
      _transition(transition),
      _place_reference(place_reference),
      _size(size),
      _capacity(capacity) {}

petri_connector petri_connector::size(unsigned int size) const {
    return {_input, _transition, _place_reference, size, _capacity};
}

petri_connector petri_connector::capacity(unsigned int capacity) const {
    return {_input, _transition, _place_reference, _size, capacity};
}

petri_function::petri_function() = default;
petri_function::petri_function(petri_function const&) = default;
petri_function& petri_function::operator=(petri_function const&) = default;
petri_function::~petri_function() = default;

petri_transition* petri_function::transition() const {
    return _transition;
}

petri_transition::petri_transition(petri_function& function, bool reentrant, double time,
                                   double space, unsigned int group, petri_net* net)
    : _function(function),
      _reentrant(reentrant),
      _time(time),
      _space(space),
      _group(group),
      _net(net) {}

petri_transition::petri_transition(petri_transition const&) = default;
petri_transition::~petri_transition() = default;

petri_function& petri_transition::function() const {
    return _function;
}

bool petri_transition::reentrant() const {
    return _reentrant;
}

double petri_transition::time() const {
    return _time;
}

double petri_transition::space() const {
    return _space;
}

unsigned int petri_transition::group() const {
    return _group;
}

petri_net* petri_transition::net() const {
    return _net;
}

petri_connector petri_transition::input(petri_place*& place_reference) {
    return {true, this, place_reference, 1, 1};
}

petri_connector petri_transition::output(petri_place*& place_reference) {
    return {false, this, place_reference, 1, 1};
}

void petri_transition::activate() {
    _net->activate(this);
}

void petri_transition::deactivate() {
    _net->deactivate(this);
}

bool petri_transition::enabled() const {
    if (!_activated || (!_reentrant && _firing != 0))
        return false;
    return std::all_of(_accesses.begin(), _accesses.end(),
                       [](detail::petri_access const& access) { return access.enabled(); });
}

// The place of the arc that this very variable names, or null.
petri_place* petri_transition::find_place(petri_place*& place_reference) const {
    for (petri_arc const* arc : _arcs)
        if (&arc->place_reference() == &place_reference)
            return arc->place();
    return nullptr;
}

unsigned int petri_transition::input_size() const {
    return _count(true);
}

unsigned int petri_transition::output_size() const {
    return _count(false);
}

unsigned int petri_transition::_count(bool input) const {
    return static_cast<unsigned int>(
        std::count_if(_arcs.begin(), _arcs.end(),
                      [input](petri_arc const* arc) { return arc->input() == input; }));
}

// Takes an arc in, the only one in its direction with its place, and the only one
// with its variable. Needs room in the row.
void petri_transition::insert_arc(list<petri_arc*>::prepared&& inserted) {
    petri_arc const* const arc = inserted->value;
    for (auto i = _arcs.begin(); i != _arcs.end(); ++i) {
        assure(arc->input() != (*i)->input() || arc->place() != (*i)->place());
        assure(&arc->place_reference() != &(*i)->place_reference());
    }
    _accesses.push_back(
        {arc->place(), arc->size(), arc->place()->capacity() - arc->size(), arc->input()});
    _arcs.push_back(std::move(inserted));
}

void petri_transition::operator()() {
    try {
        _function();
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

petri_queue_function::petri_queue_function(petri_net* net) : _net(net) {}

petri_queue_function::petri_queue_function(petri_queue_function const&) = default;
petri_queue_function& petri_queue_function::operator=(petri_queue_function const&) = default;
petri_queue_function::~petri_queue_function() = default;

// Takes the mutex. Who finds it taken stays away from it for a while that grows, and for
// longer where others end firings faster than the mutex, and all that it guards, can be
// handed over: one more thread would only slow them down. The spin count bounds the
// pauses of a call. Relaxed: a stale count costs a pause, or saves one.
void petri_net::_enter() {
    constexpr std::int64_t handover = 1024;  // ticks
    detail::spin_wait wait(_spin, detail::pace_for_net);
    while (!wait.is_over()) {
        if (_mutex.try_acquire())
            return;
        unsigned int ended;
        std::int64_t elapsed;
        do {
            unsigned int const before = _ended.load(std::memory_order_relaxed);
            std::int64_t const start = time_support::time_now();
            wait.pause();
            ended = _ended.load(std::memory_order_relaxed) - before;
            elapsed = time_support::time_now() - start;
        } while (!wait.is_over() && ended > 1 && ended * handover > elapsed);
    }
    _mutex.acquire();
}

// Holds a net's mutex for a change. When it is done, also when an exception ends it
// half way, it has fired what is enabled now and wakes whoever that concerns.
class petri_net::change {
public:
    explicit change(petri_net& net) : _net(net) {
        _net._enter();
    }
    ~change() {
        _net._dispatch();
        _net._leave();
    }
    change(change const&) = delete;
    change& operator=(change const&) = delete;

private:
    petri_net& _net;
};

namespace {

// Numbers below a bound. The least from some number on is found in as many steps as
// the bound has digits of base 64.
class number_set {
public:
    number_set() = default;
    explicit number_set(unsigned int bound) {
        unsigned int words = 0;
        for (unsigned int size = bound; size > 64; ++_top) {
            size = (size + 63) / 64;
            _first_word[_top] = words;
            words += size + 1;  // the last stays 0 and ends a search
        }
        if (words != 0)
            _words = std::make_unique<std::uint64_t[]>(words);
    }

    void insert(unsigned int number) {
        for (unsigned int level = 0; level != _top; ++level, number /= 64)
            _word(level, number) |= _bit(number);
        _top_word |= _bit(number);
    }
    void erase(unsigned int number) {
        for (unsigned int level = 0; level != _top; ++level, number /= 64)
            if ((_word(level, number) &= ~_bit(number)) != 0)
                return;
        _top_word &= ~_bit(number);
    }

    // The least that is `from` or more, or `none`. `from` is at most the bound.
    unsigned int find(unsigned int from) const {
        for (unsigned int level = 0; level != _top; ++level, from = from / 64 + 1)
            if (std::uint64_t const left = _word(level, from) & -_bit(from); left != 0)
                return _find_below(level, from / 64 * 64 + _lowest(left));
        std::uint64_t const left = from < 64 ? _top_word & -_bit(from) : 0;
        return left != 0 ? _find_below(_top, _lowest(left)) : none;
    }

    static constexpr unsigned int none = std::numeric_limits<unsigned int>::max();

private:
    static std::uint64_t _bit(unsigned int number) {
        return std::uint64_t{1} << number % 64;
    }
    static unsigned int _lowest(std::uint64_t word) {
        return static_cast<unsigned int>(std::countr_zero(word));
    }
    std::uint64_t& _word(unsigned int level, unsigned int number) const {
        return _words[_first_word[level] + number / 64];
    }
    // The least of those that `number` stands for on this level.
    unsigned int _find_below(unsigned int level, unsigned int number) const {
        while (level-- != 0)
            number = number * 64 + _lowest(_word(level, number * 64));
        return number;
    }

    // Bit i of the lowest level says whether i is there, of others whether any of the 64
    // is whose bits are in word i of the level below. The top is a single word.
    std::uint64_t _top_word = 0;
    std::unique_ptr<std::uint64_t[]> _words;  // the other levels
    unsigned int _top = 0;
    unsigned int _first_word[5];
};

// Firings that wait in queues, each first in, first out. They share one block, of which
// the entries used last are used next.
class waiting_firings {
public:
    static constexpr unsigned int none = std::numeric_limits<unsigned int>::max();

    struct queue {
        bool empty() const {
            return first == none;
        }
        unsigned int first = none;
        unsigned int last;
    };

    waiting_firings() = default;
    // With room for so many. Throws std::bad_alloc.
    explicit waiting_firings(unsigned int capacity)
        : _entries(new entry[capacity]), _capacity(capacity) {}

    // Throws std::bad_alloc.
    void push_back(queue& to, petri_transition* transition) {
        unsigned int const added = _take_entry();
        _entries[added] = {transition, none};
        (to.empty() ? to.first : _entries[to.last].next) = added;
        to.last = added;
    }
    petri_transition* pop_front(queue& from) {
        unsigned int const removed = from.first;
        from.first = std::exchange(_entries[removed].next, _free);
        _free = removed;
        return _entries[removed].transition;
    }

private:
    struct entry {
        petri_transition* transition;
        unsigned int next;
    };

    unsigned int _take_entry() {
        if (_free != none)
            return std::exchange(_free, _entries[_free].next);
        if (_used == _capacity) {
            std::unique_ptr<entry[]> grown(new entry[2 * _capacity]);
            std::copy_n(_entries.get(), _used, grown.get());
            _entries = std::move(grown);
            _capacity *= 2;
        }
        return _used++;
    }

    std::unique_ptr<entry[]> _entries;
    unsigned int _capacity = 0;
    unsigned int _used = 0;  // entries that have been taken once
    unsigned int _free = none;
};

}  // namespace

// The firings of a group that are initiated and have not ended, and the threads that run
// them: it is the work that these are called with. All under the net's mutex.
//
// Those that wait are kept by rank. Each pair of a space and a time that a transition of
// the group has is a rank, the largest space before the others, of equal spaces the
// longest time.
class petri_net::crew final : public thread_function {
public:
    crew(petri_net& net, thread_group& group, double space)
        : _net(net), _group(group), _budget(space), _threads(group.threads()), _space(space) {}

    unsigned int threads() const {
        return _threads;
    }

    // Gives the group's transitions, sorted, their ranks. Throws std::bad_alloc.
    void rank(petri_transition* const* begin, petri_transition* const* end);

    // Takes in a firing that has been initiated.
    void insert(petri_transition* transition) {
        // The group refuses it, with its own check.
        if (transition->space() > _budget)
            _group.schedule(*transition, transition->time(), transition->space());
        unsigned int const rank = transition->rank();
        _firings.push_back(_ranks[rank].waiting, transition);
        _waiting.insert(rank);
        touch();
    }

    // Whether one more thread is to be called, which counts as called then.
    bool calls();

    // Calls one, without the mutex.
    void call() {
        try {
            _group.schedule(*this, 1.0, 0.0);
        } catch (...) {
            assure(("unexpected exception", 0));
        }
    }

    // Has the net ask `calls` before its mutex is given up.
    void touch() {
        if (_called == _threads || std::exchange(_is_touched, true))
            return;
        _next_touched = std::exchange(_net._touched, this);
    }

    crew* untouch() {
        _is_touched = false;
        return _next_touched;
    }

    // A thread fires until there is nothing left for it to do.
    void operator()() override;

private:
    struct rank_entry {
        double space;
        waiting_firings::queue waiting;
    };

    petri_transition* _begin();
    petri_transition* _go_on(petri_net& net, petri_transition* ended);
    petri_transition* _take();

    // The rank of the firing to run next, or `number_set::none` when none fits.
    unsigned int _find() const {
        unsigned int fits = 0;
        if (_size != 0 && !(_ranks[0].space <= _space))
            fits =
                static_cast<unsigned int>(std::partition_point(&_ranks[0], &_ranks[0] + _size,
                                                               [this](rank_entry const& each) {
                                                                   return !(each.space <= _space);
                                                               }) -
                                          &_ranks[0]);
        return _waiting.find(fits);
    }

    petri_net& _net;
    thread_group& _group;
    double const _budget;
    unsigned int const _threads;
    unsigned int _called = 0;     // threads called and not gone
    unsigned int _occupants = 0;  // firings that take space
    unsigned int _size = 0;       // ranks
    double _space;                // free at this moment
    std::unique_ptr<rank_entry[]> _ranks;
    waiting_firings _firings;  // those that no thread runs yet
    number_set _waiting;       // the ranks that have some
    bool _coming = false;      // one of the threads called has not begun
    bool _is_touched = false;
    crew* _next_touched = nullptr;
};

void petri_net::crew::rank(petri_transition* const* begin, petri_transition* const* end) {
    auto const count = [&](auto const& visit) {
        unsigned int ranks = 0;
        for (petri_transition* const* first = begin; first != end; ++ranks) {
            petri_transition* const* last = first;
            while (last != end && (*last)->space() == (*first)->space() &&
                   (*last)->time() == (*first)->time())
                ++last;
            visit(ranks, first, last);
            first = last;
        }
        return ranks;
    };
    unsigned int const size = count([](auto...) {});
    std::unique_ptr<rank_entry[]> ranks(new rank_entry[size]);
    waiting_firings firings(static_cast<unsigned int>(end - begin));
    number_set waiting(size);
    count([&](unsigned int rank, petri_transition* const* first, petri_transition* const* last) {
        ranks[rank].space = (*first)->space();
        for (; first != last; ++first)
            (*first)->rank(rank);
    });
    _ranks = std::move(ranks);
    _firings = std::move(firings);
    _waiting = std::move(waiting);
    _size = size;
}

bool petri_net::crew::calls() {
    if (_coming || _called == _threads || _find() == number_set::none)
        return false;
    _coming = true;
    ++_called;
    ++_net._called;
    return true;
}

void petri_net::crew::operator()() {
    petri_net& net = _net;  // its line may be written by another thread meanwhile
    allocator_group* const group = allocator_group::global();
    for (petri_transition* firing = _begin(); firing != nullptr; firing = _go_on(net, firing)) {
        firing->petri_transition::operator()();  // not virtual, which would fetch one more line
        // The group sees one long piece of work here, so it would do this at its end only.
        group->flush_allocator(true);
    }
}

petri_transition* petri_net::crew::_begin() {
    change const hold(_net);
    _coming = false;
    return _take();
}

petri_transition* petri_net::crew::_go_on(petri_net& net, petri_transition* ended) {
    change const hold(net);
    try {
        net._terminate_transition(ended);
    } catch (...) {
        assure(("unexpected exception", 0));
    }
    double const space = ended->space();
    _space += space;
    // Fractions of the space need not add up to it again.
    if (space != 0 && --_occupants == 0)
        _space = _budget;
    net._dispatch();
    return _take();
}

// The firing to run next, or null when none fits; the thread is gone then.
petri_transition* petri_net::crew::_take() {
    touch();
    unsigned int const found = _find();
    if (found == number_set::none) {
        --_called;
        --_net._called;
        return nullptr;
    }
    rank_entry& from = _ranks[found];
    petri_transition* const taken = _firings.pop_front(from.waiting);
    if (from.waiting.empty())
        _waiting.erase(found);
    _space -= from.space;
    _occupants += from.space != 0;
    return taken;
}

void petri_queue_function::operator()() {
    { petri_net::change const start(*_net); }
    {
        detail::guard const hold(_net->_mutex);
        while (!_net->_acquired || !_net->_at_rest())
            _net->_rest.acquire(_net->_mutex);
        _net->_dispatching = false;
    }
    for (unsigned int i = 0; i != _net->_groups; ++i)
        _net->_thread_groups[i]->conclude();
}

// A slot of a place, reserved for a token that is given up unless it is put.
class petri_net::slot {
public:
    explicit slot(petri_place& place) : _place(&place) {
        place.reserve_send(1);
    }
    ~slot() {
        if (_place != nullptr)
            _place->withdraw_send(1);
    }
    slot(slot const&) = delete;
    slot& operator=(slot const&) = delete;

    void commit() {
        std::exchange(_place, nullptr)->commit_send(1);
    }

private:
    petri_place* _place;
};

// A start that is taken back unless it is completed.
class petri_net::start {
public:
    explicit start(petri_net& net) : _net(&net) {}
    ~start() {
        if (_net != nullptr)
            _net->_withdraw_start();
    }
    start(start const&) = delete;
    start& operator=(start const&) = delete;

    void complete() {
        _net = nullptr;
    }

private:
    petri_net* _net;
};

namespace {

// Joins a group or a thread, however long that takes.
constexpr auto join = [](auto& joined) {
    joined.acquire();
    return true;
};

}  // namespace

petri_net::petri_net() : petri_net(thread_base::default_stack_size) {}

petri_net::petri_net(unsigned int stack_size)
    : petri_net(thread_support::processors(), 0.0, stack_size) {}

petri_net::petri_net(unsigned int threads, double space, unsigned int stack_size)
    : petri_net(1, stack_size) {
    triple<unsigned int, double, unsigned int> const group{threads, space, stack_size};
    _construct_groups(&group);
}

petri_net::petri_net(triple<unsigned int, double, unsigned int> const* begin,
                     triple<unsigned int, double, unsigned int> const* end)
    : petri_net(static_cast<unsigned int>(end - begin), begin != end ? begin->third : 0) {
    _construct_groups(begin);
}

// A net without groups. Once it has run, the destructor takes back whatever the
// rest of a construction has done before it threw.
petri_net::petri_net(unsigned int groups, unsigned int stack_size)
    : _mutex(detail::current_spin()),
      _groups(groups),
      _thread_group_acquireds(groups),
      _queue_function(this),
      _queue_thread(stack_size),
      _condition(detail::current_spin()),
      _rest(0),
      _spin(detail::current_spin()) {
    assure(_groups != 0);
}

void petri_net::_construct_groups(triple<unsigned int, double, unsigned int> const* groups) {
    _thread_group_acquired = new bool[_groups];
    _thread_groups = new thread_group* [_groups] {
    };
    _crews = new crew* [_groups] {
    };
    for (unsigned int i = 0; i != _groups; ++i) {
        _thread_group_acquired[i] = true;
        _thread_groups[i] = new thread_group(groups[i].first, groups[i].second, groups[i].third);
        _crews[i] = new crew(*this, *_thread_groups[i], groups[i].second);
    }
}

petri_net::~petri_net() {
    _assure_stopped();
    for (petri_place* place : _places)
        delete place;
    for (petri_transition* transition : _transitions)
        delete transition;
    for (petri_arc* arc : _arcs)
        delete arc;
    if (_crews != nullptr)
        for (unsigned int i = 0; i != _groups; ++i)
            delete _crews[i];
    delete[] _crews;
    if (_thread_groups != nullptr)
        for (unsigned int i = 0; i != _groups; ++i)
            delete _thread_groups[i];
    delete[] _thread_groups;
    delete[] _thread_group_acquired;
}

void petri_net::_assure_stopped() const {
    assure(_acquired && _queue_thread_acquired && _thread_group_acquireds == _groups);
}

petri_place* petri_net::insert_place(unsigned int capacity) {
    _assure_stopped();
    assure(capacity != 0);
    auto place = std::make_unique<petri_place>(capacity);
    _places.push_back(place.get());
    return place.release();
}

petri_transition* petri_net::insert_transition(petri_function& function, bool reentrant,
                                               double time, double space, unsigned int group) {
    _assure_stopped();
    assure(time > 0 && space >= 0 && group < _groups);
    auto transition =
        std::make_unique<petri_transition>(function, reentrant, time, space, group, this);
    _transitions.push_back(transition.get());
    function.transition(transition.get());
    return transition.release();
}

petri_arc* petri_net::insert_input_arc(petri_place* place, petri_connector connector) {
    _assure_stopped();
    assure(connector.input());
    return _insert_arc(place, connector);
}

petri_arc* petri_net::insert_output_arc(petri_connector connector, petri_place* place) {
    _assure_stopped();
    assure(connector.output());
    return _insert_arc(place, connector);
}

// Everything is allocated before anything is linked, so that a failure leaves no
// arc that only one of its ends knows. The net is stopped, but a caller that it
// blocked may be on its way and look at the place's arcs.
petri_arc* petri_net::_insert_arc(petri_place* place, petri_connector const& connector) {
    assure(connector.size() != 0 && connector.size() <= place->capacity());
    auto arc = std::make_unique<petri_arc>(connector.input(), place, connector.transition(),
                                           connector.place_reference(), connector.size());
    auto of_net = list<petri_arc*>::prepare(arc.get());
    auto of_place = list<petri_arc*>::prepare(arc.get());
    auto of_transition = list<petri_arc*>::prepare(arc.get());
    detail::guard const hold(_mutex);
    place->side(arc->input()).ends.make_room();
    connector.transition()->accesses().make_room();
    _arcs.push_back(std::move(of_net));
    place->insert_arc(std::move(of_place));
    connector.transition()->insert_arc(std::move(of_transition));
    connector.place_reference() = place;
    // Tokens of a stopped net may have enabled the transition without this arc.
    if (connector.transition()->queued() && !arc->enabled())
        _dequeue(connector.transition());
    return arc.release();
}

list<petri_place*>::iterator petri_net::begin_places() {
    return _places.begin();
}

list<petri_place*>::iterator petri_net::end_places() {
    return _places.end();
}

list<petri_transition*>::iterator petri_net::begin_transitions() {
    return _transitions.begin();
}

list<petri_transition*>::iterator petri_net::end_transitions() {
    return _transitions.end();
}

list<petri_arc*>::iterator petri_net::begin_arcs() {
    return _arcs.begin();
}

list<petri_arc*>::iterator petri_net::end_arcs() {
    return _arcs.end();
}

// The engine. All of it is called with `_mutex` held, but for activation, which takes
// it.

void petri_net::_enqueue(petri_transition* transition) {
    _random = static_cast<unsigned int>(std::uint64_t{16807} * _random % 2147483647);
    transition->random(_random);
    if (!_dispatching || _ahead_size == _most_ahead) {
        try {
            transition->enqueue(_queue.insert(transition));
        } catch (...) {
            _missed = true;
            throw;
        }
        return;
    }
    unsigned int i = _ahead_size++;
    for (; i != 0 && !skip_list_order<petri_transition*>::precedes(transition, _ahead[i - 1]); --i)
        _ahead[i] = _ahead[i - 1];
    _ahead[i] = transition;
    transition->enqueue(_queue.end());
}

void petri_net::_enqueue_if_enabled(petri_transition* transition) {
    if (!transition->queued() && transition->enabled())
        _enqueue(transition);
}

void petri_net::_dequeue(petri_transition* transition) {
    auto const where = transition->dequeue();
    if (where != _queue.end()) {
        _queue.erase(where);
        return;
    }
    unsigned int i = --_ahead_size;
    while (_ahead[i] != transition)
        --i;
    for (; i != _ahead_size; ++i)
        _ahead[i] = _ahead[i + 1];
}

bool petri_net::_is_queue_empty() const {
    return _ahead_size == 0 && _queue.empty();
}

// The one to be dispatched first. There is one.
petri_transition* petri_net::_first_queued() {
    if (_ahead_size == 0)
        return *_queue.begin();
    petri_transition* const ahead = _ahead[_ahead_size - 1];
    if (_queue.empty() || skip_list_order<petri_transition*>::precedes(ahead, *_queue.begin()))
        return ahead;
    return *_queue.begin();
}

// Of a place that has gained tokens or slots: it had `before` available, and has `now`.
// An arc that was enabled before does not matter while the net dispatches. Unless its
// transition is reentrant, that is queued, fires, or lacks something else; for what
// comes to lack nothing is queued then, or, where there is no memory for that, has
// everything looked at from there on.
void petri_net::_enqueue_side(detail::petri_side const& side, unsigned int before,
                              unsigned int now) {
    if (!_dispatching || _missed)
        before = 0;
    if (before >= side.most)
        return;
    for (auto const& [transition, size, reentrant] : side.ends)
        if (size <= now && (size > before || reentrant))
            _enqueue_if_enabled(transition);
}

// The place has gained tokens.
void petri_net::_enqueue_receive_arcs(petri_place* place, unsigned int before) {
    _news |= place->_receivers != 0 && place->receive_enabled(1);
    _enqueue_side(place->_consumers, before, place->tokens());
}

// The place has gained free slots.
void petri_net::_enqueue_send_arcs(petri_place* place, unsigned int before) {
    _news |= place->_senders != 0 && place->send_enabled(1);
    _enqueue_side(place->_producers, before, place->slots());
}

// Of a place that has lost tokens or slots, and has `now` available.
void petri_net::_dequeue_side(detail::petri_side const& side, unsigned int now) {
    if (now >= side.most || _is_queue_empty())
        return;
    for (auto const& [transition, size, reentrant] : side.ends)
        if (size > now && transition->queued())
            _dequeue(transition);
}

// The place has lost tokens that were available.
void petri_net::_dequeue_receive_arcs(petri_place* place) {
    _dequeue_side(place->_consumers, place->tokens());
}

// The place has lost free slots.
void petri_net::_dequeue_send_arcs(petri_place* place) {
    _dequeue_side(place->_producers, place->slots());
}

// Commits what a firing of the transition reserved. What it skipped stays with the
// other side of the place, which is looked at as well.
void petri_net::_enqueue_arcs(petri_transition* transition) {
    for (detail::petri_access const& access : transition->accesses()) {
        petri_place* const place = access.place;
        unsigned int const tokens = place->tokens();
        unsigned int const slots = place->slots();
        bool const skipped = access.input ? place->commit_receive(access.size) != 0
                                          : place->commit_send(access.size) != 0;
        if (access.input || skipped)
            _enqueue_send_arcs(place, slots);
        if (!access.input || skipped)
            _enqueue_receive_arcs(place, tokens);
    }
}

// Reserves what a firing of the transition will take and put.
void petri_net::_dequeue_arcs(petri_transition* transition) {
    for (detail::petri_access const& access : transition->accesses()) {
        petri_place* const place = access.place;
        if (access.input) {
            place->reserve_receive(access.size);
            _dequeue_receive_arcs(place);
        } else {
            place->reserve_send(access.size);
            _dequeue_send_arcs(place);
        }
    }
}

void petri_net::_initiate_transition(petri_transition* transition) {
    ++_firings;
    transition->begin_fire();
    _dequeue_arcs(transition);
}

void petri_net::_terminate_transition(petri_transition* transition) {
    _enqueue_arcs(transition);
    transition->end_fire();
    --_firings;
    detail::add(_ended, 1u);
    _enqueue_if_enabled(transition);
}

// Initiates the firings of all that is queued, and so is enabled; of a reentrant transition
// as many at once as its group has threads.
void petri_net::_dispatch_transitions() {
    while (!_is_queue_empty()) {
        petri_transition* const transition = _first_queued();
        _dequeue(transition);
        crew& runs = *_crews[transition->group()];
        unsigned int left = transition->reentrant() ? runs.threads() : 1;
        do {
            _initiate_transition(transition);
            runs.insert(transition);
        } while (--left != 0 && transition->enabled());
    }
}

void petri_net::_dispatch() {
    if (!_dispatching)
        return;
    try {
        _dispatch_transitions();
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

bool petri_net::_at_rest() const {
    return _firings == 0 && _called == 0 && _is_queue_empty();
}

// Gives `_mutex` up, and wakes whoever has reason to look again.
void petri_net::_leave() {
    bool const stops = _acquired && _at_rest();
    bool const news = std::exchange(_news, false);
    crew* called = nullptr;
    bool more;
    do {
        if (called != nullptr)
            _mutex.acquire();
        called = nullptr;
        while (called == nullptr && _touched != nullptr) {
            crew* const touched = _touched;
            _touched = touched->untouch();
            if (touched->calls())
                called = touched;
        }
        more = _touched != nullptr;
        _mutex.release();
        if (called != nullptr)
            called->call();
    } while (more);
    if (news)
        _condition.release_all();
    if (stops)
        _rest.release_one();
}

void petri_net::activate(petri_transition* transition) {
    change const hold(*this);
    transition->activated(true);
    _enqueue_if_enabled(transition);
}

void petri_net::deactivate(petri_transition* transition) {
    detail::guard const hold(_mutex);
    transition->activated(false);
    if (transition->queued())
        _dequeue(transition);
}

void petri_net::_enqueue_initial_transitions() {
    for (auto i = _transitions.begin(); i != _transitions.end(); ++i) {
        assure((*i)->input_size() != 0 || (*i)->output_size() != 0);
        _enqueue_if_enabled(*i);
    }
    _missed = false;
}

// Gives all transitions their ranks, which those that were inserted since the last start
// may have changed.
void petri_net::_rank_transitions() {
    if (_ranked == _transitions.size())
        return;
    std::unique_ptr<petri_transition*[]> const sorted(new petri_transition*[_transitions.size()]);
    petri_transition** const end =
        std::copy(_transitions.begin(), _transitions.end(), sorted.get());
    std::sort(sorted.get(), end, [](petri_transition const* one, petri_transition const* other) {
        return std::tuple(one->group(), -one->space(), -one->time()) <
               std::tuple(other->group(), -other->space(), -other->time());
    });
    petri_transition** first = sorted.get();
    for (unsigned int group = 0; group != _groups; ++group) {
        petri_transition** const last = std::find_if(
            first, end, [group](petri_transition const* each) { return each->group() != group; });
        _crews[group]->rank(first, last);
        first = last;
    }
    _ranked = _transitions.size();
}

// Wait until there is a token or a slot, true, or until `given_up`, if any, holds, false.
// Relaxed: it is set before `_wake` takes the mutex.
bool petri_net::_await_token(petri_place* place, detail::atomic<bool> const* given_up) {
    while (!place->receive_enabled(1)) {
        if (given_up != nullptr && given_up->load(std::memory_order_relaxed))
            return false;
        ++place->_receivers;
        _condition.acquire(_mutex);
        --place->_receivers;
    }
    return true;
}

bool petri_net::_await_slot(petri_place* place, detail::atomic<bool> const* given_up) {
    while (!place->send_enabled(1)) {
        if (given_up != nullptr && given_up->load(std::memory_order_relaxed))
            return false;
        ++place->_senders;
        _condition.acquire(_mutex);
        --place->_senders;
    }
    return true;
}

// Has all callers that are blocked look again.
void petri_net::_wake() {
    change const hold(*this);
    _news = true;
}

void petri_net::peek(petri_place* place, any& token) {
    detail::guard const hold(_mutex);
    _await_token(place);
    place->peek(token);
}

bool petri_net::try_peek(petri_place* place, any& token) {
    detail::guard const hold(_mutex);
    if (!place->receive_enabled(1))
        return false;
    place->peek(token);
    return true;
}

void petri_net::receive(petri_place* place, any& token) {
    change const hold(*this);
    _await_token(place);
    _receive(place, token);
}

bool petri_net::try_receive(petri_place* place, any& token) {
    change const hold(*this);
    if (!place->receive_enabled(1))
        return false;
    _receive(place, token);
    return true;
}

void petri_net::send(petri_place* place, any const& token) {
    change const hold(*this);
    _await_slot(place);
    _send(place, token);
}

bool petri_net::try_send(petri_place* place, any const& token) {
    change const hold(*this);
    if (!place->send_enabled(1))
        return false;
    _send(place, token);
    return true;
}

// Takes a token that is available. A skip that this settles is made good when the
// firing that declared it ends.
void petri_net::_receive(petri_place* place, any& token) {
    unsigned int const slots = place->slots();
    place->reserve_receive(1);
    place->receive(token);
    place->commit_receive(1);
    _dequeue_receive_arcs(place);
    _enqueue_send_arcs(place, slots);
}

// Puts a token into a slot that is free.
void petri_net::_send(petri_place* place, any const& token) {
    unsigned int const tokens = place->tokens();
    {
        slot reserved(*place);
        place->send(token);  // throws when the token cannot be copied
        reserved.commit();
    }
    _dequeue_send_arcs(place);
    _enqueue_receive_arcs(place, tokens);
}

bool petri_net::_receive_unless(detail::atomic<bool> const& given_up, petri_place* place,
                                any& token) {
    change const hold(*this);
    if (!_await_token(place, &given_up))
        return false;
    _receive(place, token);
    return true;
}

bool petri_net::_put_unless(detail::atomic<bool> const& given_up, petri_place* place, maker make,
                            void* from) {
    change const hold(*this);
    if (!_await_slot(place, &given_up))
        return false;
    _put(place, make, from);
    return true;
}

bool petri_net::_try_put(petri_place* place, maker make, void* from) {
    change const hold(*this);
    if (!place->send_enabled(1))
        return false;
    _put(place, make, from);
    return true;
}

// Puts a token into a slot that is free. It is counted before it is there, so that all
// that may throw comes before the value is moved: the firings that take it are reserved
// under the mutex, later.
void petri_net::_put(petri_place* place, maker make, void* from) {
    unsigned int const tokens = place->tokens();
    place->count_in();
    try {
        _enqueue_receive_arcs(place, tokens);
        any token;
        make(token, from);
        place->_put(std::move(token));
    } catch (...) {
        place->count_out();
        _dequeue_receive_arcs(place);
        throw;
    }
    _dequeue_send_arcs(place);
}

void petri_net::release() {
    _assure_stopped();
    {
        // Nobody else changes a stopped net while it is started, but callers that
        // it blocks may wake up and look.
        detail::guard const hold(_mutex);
        _rank_transitions();
        _enqueue_initial_transitions();
    }
    start starting(*this);
    for (unsigned int i = 0; i != _groups; ++i) {
        _thread_groups[i]->release();
        _thread_group_acquired[i] = false;
        --_thread_group_acquireds;
    }
    starting.complete();
    {
        detail::guard const hold(_mutex);
        _acquired = false;
        _dispatching = true;
    }
    _queue_thread.schedule(_queue_function);
    _queue_thread.release();
    _queue_thread_acquired = false;
}

// Ends the groups that a start has begun with before one could not be started.
void petri_net::_withdraw_start() {
    for (unsigned int i = 0; i != _groups; ++i)
        if (!_thread_group_acquired[i])
            _thread_groups[i]->conclude();
    _join_groups(join);
}

// Whether the calling thread is one of the net's that fire.
bool petri_net::_runs_caller() const {
    return std::any_of(_thread_groups, _thread_groups + _groups,
                       [](thread_group const* each) { return each->_runs_caller(); });
}

void petri_net::acquire() {
    assure(!_runs_caller());
    _stop(join);
}

bool petri_net::try_acquire() {
    return _stop([](auto& joined) { return joined.try_acquire(); });
}

bool petri_net::timed_acquire(ovel::time const& deadline) {
    return _stop([&deadline](auto& joined) { return joined.timed_acquire(deadline); });
}

// Asks the net to stop when it is at rest, and joins its threads up to the first
// that `join` does not.
template <class Join>
bool petri_net::_stop(Join join) {
    assure(!_queue_thread_acquired || _thread_group_acquireds != _groups);
    {
        change const hold(*this);
        _acquired = true;
    }
    if (!_join_groups(join))
        return false;
    if (!_queue_thread_acquired)
        _queue_thread_acquired = join(_queue_thread);
    return _queue_thread_acquired;
}

template <class Join>
bool petri_net::_join_groups(Join join) {
    for (unsigned int i = 0; i != _groups; ++i) {
        if (_thread_group_acquired[i])
            continue;
        if (!join(*_thread_groups[i]))
            return false;
        _thread_group_acquired[i] = true;
        ++_thread_group_acquireds;
    }
    return true;
}

}  // namespace ovel
