// SPDX-License-Identifier: Apache-2.0
// Forwards to another store, and calls an observer at some points, which may kill the process
// or throw what a lost connection throws.
#ifndef OVEL_DURABLE_MORTAL_STORE_H
#define OVEL_DURABLE_MORTAL_STORE_H

#include "ovel_durable_store.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ovel_durable_test {

namespace parts = ovel::durable::detail;

// Calls `pass` at each point.
class mortal_store : public parts::store {
public:
    using observer = std::function<void(std::string const& point)>;

    mortal_store(std::unique_ptr<parts::store> behind, observer pass)
        : _behind(std::move(behind)), _pass(std::move(pass)) {}

    parts::turned take_turn(std::int64_t net, std::int64_t member,
                            parts::turn const& asked) override {
        if (!asked.ended.empty())
            _pass("before");
        parts::turned made = _behind->take_turn(net, member, asked);
        if (made.committed != 0)
            _pass("after");
        if (!made.claims.empty())
            _pass("claimed");
        return made;
    }

    parts::numbers open(parts::structure const& net) override {
        return _behind->open(net);
    }
    std::int64_t enter(std::int64_t net, std::string const& name, double lease,
                       std::vector<std::int64_t> const& transitions) override {
        return _behind->enter(net, name, lease, transitions);
    }
    void renew(std::int64_t net, std::int64_t member, std::string const& name, double lease,
               std::vector<std::int64_t> const& transitions) override {
        _behind->renew(net, member, name, lease, transitions);
    }
    std::vector<parts::claim> claims_of(std::int64_t member) override {
        return _behind->claims_of(member);
    }
    std::int64_t fired_by(std::int64_t member) override {
        return _behind->fired_by(member);
    }
    void disown(std::int64_t member, std::int64_t claim) override {
        _behind->disown(member, claim);
    }
    parts::answer put(std::int64_t net, std::int64_t place, std::string const& value,
                      parts::call const& named) override {
        parts::answer const made = _behind->put(net, place, value, named);
        _pass("put");
        return made;
    }
    parts::answer take(std::int64_t net, std::int64_t place, parts::call const& named,
                       parts::acceptor const& accept) override {
        parts::answer const made = _behind->take(net, place, named, accept);
        _pass("taken");
        return made;
    }
    parts::rest_state rest(std::int64_t net) override {
        return _behind->rest(net);
    }
    void fail(std::int64_t net, std::string const& why) override {
        _pass("failing");
        _behind->fail(net, why);
    }
    std::vector<std::string> nets() override {
        return _behind->nets();
    }
    parts::state look(std::string const& net) override {
        return _behind->look(net);
    }
    bool repeats(std::string const& net) override {
        return _behind->repeats(net);
    }
    void watch(std::int64_t net, std::string const& watcher, double seconds) override {
        _behind->watch(net, watcher, seconds);
    }
    void unwatch(std::string const& watcher) override {
        _behind->unwatch(watcher);
    }
    void tell(std::int64_t net) override {
        _behind->tell(net);
    }
    bool wait(double seconds, int bell) override {
        return _behind->wait(seconds, bell);
    }

private:
    std::unique_ptr<parts::store> const _behind;
    observer const _pass;
};

}  // namespace ovel_durable_test

#endif
