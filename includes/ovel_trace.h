// SPDX-License-Identifier: Apache-2.0
// Records what a program's threads do and when, for trace viewers such as Perfetto or
// Chrome's. Not part of `ovel.h`.
//
//     trace::recorder recorded;  // from here on scopes are recorded
//     ...
//     void operator()() override {  // of a transition
//         trace::scope here("eat", trace::firing);
//         {
//             trace::scope waiting("for salt", trace::wait);
//             salt.acquire();
//         }
//         ...
//     }
//     ...
//     recorded.save("trace.json");  // open it in the viewer
//
// The nets of `ovel_petri.h` open such scopes themselves: one for each firing, named
// after its transition, and one for each wait of a blocked sender or receiver, named
// after the place.
#ifndef OVEL_TRACE_H
#define OVEL_TRACE_H

#include "ovel_assure.h"
#include "ovel_mutex.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovel::detail {

class net_core;

}  // namespace ovel::detail

namespace ovel::trace {

// The kind of a scope. Viewers show it as its category.
enum kind { work, firing, wait };

// A scope that has ended. Times are nanoseconds of std::chrono::steady_clock.
struct event {
    char const* name;    // valid as long as the recorder
    std::int64_t begin;  // when it began
    std::int64_t end;    // when it ended
    kind what;           // its category
};

namespace detail {

// The events of one thread, in pieces that never move. The thread itself appends;
// meanwhile any thread may read the events that `_size` counts.
class buffer {
public:
    buffer(unsigned int number, std::size_t most) : _number(number), _most(most) {}
    ~buffer() {
        for (piece* each = _first; each != nullptr;)
            delete std::exchange(each, each->next);
    }
    buffer(buffer const&) = delete;
    buffer& operator=(buffer const&) = delete;

    // Called by its own thread only.
    void add(event const& ended) {
        // Relaxed, here and for the count of dropped events: only this thread writes
        // them.
        std::size_t const size = _size.load(std::memory_order_relaxed);
        if (size == _most || (size % piece::length == 0 && !_grow())) {
            _dropped.store(_dropped.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            return;
        }
        _last->events[size % piece::length] = ended;
        // Release: publishes the event, and the piece that holds it, to `each`.
        _size.store(size + 1, std::memory_order_release);
    }
    void name(char const* name) {
        // Release: publishes the text to `name()`.
        _name.store(name, std::memory_order_release);
    }

    // Any thread may call the functions from here on.
    template <class Use>
    void each(Use& use) const {
        // Acquire: pairs with the release in `add`.
        std::size_t const size = _size.load(std::memory_order_acquire);
        piece const* from = size == 0 ? nullptr : _first;
        for (std::size_t i = 0; i < size; ++i) {
            if (i != 0 && i % piece::length == 0)
                from = from->next;
            use(_number, from->events[i % piece::length]);
        }
    }
    std::uint64_t dropped() const {
        // Relaxed: the count publishes nothing else.
        return _dropped.load(std::memory_order_relaxed);
    }
    unsigned int number() const {
        return _number;
    }
    // The thread's name, or null. Acquire: pairs with the release in the other `name`.
    char const* name() const {
        return _name.load(std::memory_order_acquire);
    }

    buffer* next = nullptr;  // of the same recorder; under its _lock

private:
    struct piece {
        // 32 KiB: few allocations, and little memory for a thread with few events.
        static constexpr std::size_t length = 1024;
        event events[length];
        piece* next = nullptr;
    };

    bool _grow() {
        auto* const added = new (std::nothrow) piece;
        if (added == nullptr)
            return false;
        (_first == nullptr ? _first : _last->next) = added;
        _last = added;
        return true;
    }

    unsigned int const _number;
    std::size_t const _most;
    piece* _first = nullptr;  // set, as each `next` is, before `_size` counts its events
    piece* _last = nullptr;   // its own thread only
    std::atomic<std::size_t> _size = 0;
    std::atomic<std::uint64_t> _dropped = 0;
    std::atomic<char const*> _name = nullptr;
};

// Nanoseconds as microseconds. Uses integers because the decimal point of a printed
// double depends on the locale.
inline std::string microseconds(std::int64_t nanoseconds) {
    std::string const part = std::to_string(1000 + nanoseconds % 1000);
    return std::to_string(nanoseconds / 1000) + '.' + part.substr(1);
}

// The length in bytes of the UTF-8 character that `text` begins with. 0 if it is not one:
// truncated, overlong, half of a surrogate pair, or out of range.
inline std::size_t character_length(std::string_view text) {
    auto const byte = [text](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    unsigned char const first = byte(0);
    if (first < 0x80)
        return 1;
    if (first < 0xc2 || first > 0xf4)
        return 0;
    std::size_t const length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (text.size() < length)
        return 0;
    for (std::size_t i = 1; i != length; ++i)
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
    unsigned char const second = byte(1);
    bool const excluded = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                          (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
    return excluded ? 0 : length;
}

// A name as a JSON string. Replaces invalid UTF-8 by the replacement character.
inline std::string quoted(std::string_view name) {
    std::string text = "\"";
    while (!name.empty()) {
        char const c = name.front();
        std::size_t const length = character_length(name);
        if (length == 0) {
            text += "\\ufffd";
        } else if (static_cast<unsigned char>(c) < ' ') {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned int>(c));
            text += code;
        } else {
            if (c == '"' || c == '\\')
                text += '\\';
            text += name.substr(0, length);
        }
        name.remove_prefix(length == 0 ? 1 : length);
    }
    return text + '"';
}

inline std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Not a member, whose parameter would shadow the field that the check's text names.
inline void assure_alone(void const* _active) {
    assure(_active == 0);
}

}  // namespace detail

// A name for scopes that may be destroyed before the recorder: the recorder shares
// ownership of the text. Any thread may use it.
class shared_name {
public:
    // Takes ownership of the text.
    explicit shared_name(std::string text)
        : _text(std::make_shared<std::string const>(std::move(text))) {}

    // The text. Valid as long as the name.
    std::string const& text() const {
        return *_text;
    }

private:
    friend class recorder;

    std::shared_ptr<std::string const> const _text;
    // The identity of the recorder that shares the text. Relaxed: a stale value only
    // makes a recorder take another share.
    std::atomic<std::uint64_t> mutable _sharer = 0;
};

// Records the scopes of all threads from its construction until `stop`. Only one recorder
// may record at a time in a process (on Windows, in a module): constructing another
// before the first has stopped fails the check "_active == 0". It keeps 32 bytes for each
// scope that has ended, 24 with 32-bit words, in pieces of 32 KiB for each thread,
// including threads that have ended. It must outlive the scopes that began while it
// recorded. So before you destroy it, make sure that no other thread begins a scope, or
// call `stop` and wait for the scopes that may have begun.
class recorder {
public:
    // Keeps the first `most` scopes of each thread and counts the rest.
    explicit recorder(std::size_t most = 1'000'000) : _most(most) {
        recorder* other = nullptr;
        // One step: if two recorders begin at once, only one succeeds. Release: publishes
        // this recorder to `_buffer`. Relaxed: after a failure the check reads nothing
        // else.
        if (!_active.compare_exchange_strong(other, this, std::memory_order_release,
                                             std::memory_order_relaxed))
            detail::assure_alone(other);
    }
    ~recorder() {
        stop();
        for (detail::buffer* each = _first; each != nullptr;)
            delete std::exchange(each, each->next);
    }
    recorder(recorder const&) = delete;
    recorder& operator=(recorder const&) = delete;

    // Stops recording scopes that begin from now on. Does not block.
    void stop() {
        recorder* self = this;
        _active.compare_exchange_strong(self, nullptr);
    }

    // Calls `use(thread, event)` for each scope that has ended, one thread after another.
    // Threads are numbered from 0 in the order of their first scopes. The scopes of a
    // thread come in the order in which they ended. What a scope's thread wrote before
    // the scope ended is visible to `use`. Other threads may record meanwhile, but a
    // thread that records its first scope may have to wait.
    template <class Use>
    void each(Use use) const {
        _each_buffer([&](detail::buffer const& from) { from.each(use); });
    }

    // The number of scopes that were not kept.
    std::uint64_t dropped() const {
        // Relaxed, as for each buffer: the count publishes nothing else.
        std::uint64_t sum = _lost.load(std::memory_order_relaxed);
        _each_buffer([&](detail::buffer const& from) { sum += from.dropped(); });
        return sum;
    }

    // Calls `sink(text)` with one piece of the trace after another, each a
    // std::string_view. Together they form one JSON object with complete events, in
    // microseconds since the recorder's construction, and the names of threads. Otherwise
    // like `each`.
    template <class Sink>
    void write(Sink sink) const {
        sink(std::string_view("{\"displayTimeUnit\":\"ns\",\"traceEvents\":["));
        char const* separator = "\n";
        auto const put = [&](std::string const& text) {
            sink(std::string_view(separator + text));
            separator = ",\n";
        };
        auto const put_event = [&](unsigned int thread, event const& each) {
            constexpr char const* kinds[] = {"work", "firing", "wait"};
            put("{\"name\":" + detail::quoted(each.name) + ",\"cat\":\"" + kinds[each.what] +
                "\",\"ph\":\"X\",\"ts\":" + detail::microseconds(each.begin - _start) +
                ",\"dur\":" + detail::microseconds(each.end - each.begin) +
                ",\"pid\":1,\"tid\":" + std::to_string(thread) + '}');
        };
        _each_buffer([&](detail::buffer const& from) {
            std::string const number = std::to_string(from.number());
            put("{\"name\":\"thread_name\",\"ph\":\"M\",\"pid\":1,\"tid\":" + number +
                ",\"args\":{\"name\":" +
                detail::quoted(from.name() == nullptr ? "thread " + number : from.name()) + "}}");
            from.each(put_event);
        });
        sink(std::string_view("\n]}\n"));
    }

    // Writes the trace to a file. Returns false if that fails.
    [[nodiscard]] bool save(char const* file) const {
        std::FILE* const out = std::fopen(file, "wb");
        if (out == nullptr)
            return false;
        bool whole = true;
        write([&](std::string_view text) {
            whole = whole && std::fwrite(text.data(), 1, text.size(), out) == text.size();
        });
        return std::fclose(out) == 0 && whole;
    }

private:
    friend class ovel::detail::net_core;
    friend class scope;
    friend void name_thread(char const* name);

    // Relaxed: a thread that just misses a recorder only does not show there.
    static bool _is_active() {
        return _active.load(std::memory_order_relaxed) != nullptr;
    }

    // The calling thread's buffer in the active recorder; null if no recorder is active
    // or memory runs out. Acquire: makes the constructed recorder visible; pairs with the
    // constructor.
    static detail::buffer* _buffer() {
        recorder* const active = _active.load(std::memory_order_acquire);
        if (active == nullptr)
            return nullptr;
        return active->_own_buffer();
    }
    // The same for a scope with this name.
    static detail::buffer* _buffer(shared_name const& name) {
        recorder* const active = _active.load(std::memory_order_acquire);
        return active != nullptr && active->_share(name) ? active->_own_buffer() : nullptr;
    }

    detail::buffer* _own_buffer() {
        // A later recorder may have the same address, but not the same identity.
        thread_local std::uint64_t known = 0;
        thread_local detail::buffer* own = nullptr;
        if (known != _identity) {
            own = _add_buffer();
            known = own != nullptr ? _identity : 0;
        }
        return own;
    }

    // Takes a share of the name to keep its text alive. Returns false if memory runs out.
    // Relaxed: see `_sharer` and `dropped`; `_lock` guards the names.
    bool _share(shared_name const& name) {
        if (name._sharer.load(std::memory_order_relaxed) == _identity)
            return true;
        bool shared = true;
        _lock.acquire();
        try {
            _names.push_back(name._text);
            name._sharer.store(_identity, std::memory_order_relaxed);
        } catch (std::bad_alloc const&) {
            _lost.fetch_add(1, std::memory_order_relaxed);
            shared = false;
        }
        _lock.release();
        return shared;
    }

    detail::buffer* _add_buffer() {
        _lock.acquire();
        unsigned int const number = _last == nullptr ? 0 : _last->number() + 1;
        auto* const added = new (std::nothrow) detail::buffer(number, _most);
        if (added != nullptr) {
            (_first == nullptr ? _first : _last->next) = added;
            _last = added;
        } else {
            _lost.fetch_add(1, std::memory_order_relaxed);  // see `dropped`
        }
        _lock.release();
        return added;
    }

    template <class Use>
    void _each_buffer(Use use) const {
        _lock.acquire();
        detail::buffer const* const first = _first;
        detail::buffer const* const last = _last;
        _lock.release();
        // The links up to the last buffer no longer change.
        for (detail::buffer const* each = first; each != nullptr;
             each = each == last ? nullptr : each->next)
            use(*each);
    }

    static inline std::atomic<recorder*> _active = nullptr;
    static inline std::atomic<std::uint64_t> _identities = 0;

    std::size_t const _most;
    std::int64_t const _start = detail::now();
    std::uint64_t const _identity = ++_identities;
    mutable mutex _lock;               // guards _first, _last, each buffer's next, and _names
    detail::buffer* _first = nullptr;  // under _lock
    detail::buffer* _last = nullptr;   // under _lock
    std::vector<std::shared_ptr<std::string const>> _names;  // under _lock
    std::atomic<std::uint64_t> _lost = 0;
};

// Records the time from its construction to its destruction, on one thread, if a recorder
// is active when it begins. Otherwise it costs one read. A name that is not a
// `shared_name` is not copied: keep it valid as long as the recorder. The scopes of a
// thread nest.
class [[nodiscard]] scope {
public:
    // Begins the scope. If memory runs out, the recorder counts it as dropped.
    explicit scope(char const* name, kind what = work) : scope(recorder::_buffer(), name, what) {}
    explicit scope(shared_name const& name, kind what = work)
        : scope(recorder::_buffer(name), name.text().c_str(), what) {}
    ~scope() {
        if (_buffer == nullptr)
            return;
        _event.end = detail::now();
        _buffer->add(_event);
    }
    scope(scope const&) = delete;
    scope& operator=(scope const&) = delete;

private:
    scope(detail::buffer* buffer, char const* name, kind what)
        : _buffer(buffer), _event{name, 0, 0, what} {
        if (_buffer != nullptr)
            _event.begin = detail::now();
    }

    detail::buffer* const _buffer;
    event _event;
};

// Names the calling thread in the active recorder's trace. Does not copy `name`.
inline void name_thread(char const* name) {
    if (detail::buffer* const own = recorder::_buffer())
        own->name(name);
}

}  // namespace ovel::trace

#endif
