// SPDX-License-Identifier: Apache-2.0
// A pool of limited resources: requests wait for one of two connections, a request that comes
// to its deadline gives up, and `explain` says what the others wait for.

#include <ovel_petri.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

using namespace std::chrono_literals;

namespace {

int failures = 0;

void expect(bool holds, char const* what) {
    std::printf("%s: %s\n", holds ? "yes" : "NO", what);
    failures += holds ? 0 : 1;
}

// Something that must be returned: it can be moved, and not copied.
struct connection {
    explicit connection(int number) : number(number) {}
    connection(connection&&) = default;
    connection& operator=(connection&&) = default;

    int number;
};

}  // namespace

int main() {
    ovel::net net(2);
    auto const free = net.insert_place<connection>("free connections", 4);
    auto const requests = net.insert_place<int>("requests", 4);
    auto const answers = net.insert_place<int>("answers", 4);
    // A request and a connection are taken together, so none is held while the other lacks.
    // A connection counts until its firing ends, and its return has a slot of its own: the
    // place has room for two of each.
    net.insert_transition(
        "serve", from(requests, free), to(answers, free),
        [](int request, connection used) { return std::tuple(2 * request, std::move(used)); },
        {.reentrant = true});
    free.send(connection(1));
    free.send(connection(2));
    net.start();

    requests.send(21);
    expect(answers.receive_until(1h) == 42, "a request is answered");

    // Other code of the program borrows both connections.
    std::optional<connection> first = free.receive_until(1h);
    std::optional<connection> second = free.receive_until(1h);
    expect(first && second, "a thread borrows connections as the net does");
    expect(!free.receive_until(5ms), "a third one is not there within 5 ms");

    // Without a connection requests pile up. A deadline bounds how long a client waits.
    int sent = 0;
    while (requests.send_until(int(sent), 5ms))
        ++sent;
    expect(sent == 4, "as many requests wait as the place holds, and the next gives up");
    ovel::explanation const why = net.explain();
    std::fputs(why.text().c_str(), stdout);
    expect(why.transitions[0].arcs[1].lacks(), "the net says that it lacks connections");

    // A client that is no longer interested is interrupted.
    {
        std::jthread client([&](std::stop_token const& stop) {
            expect(!requests.send_until(5, stop), "a client that is asked to stop gives up");
        });
        client.request_stop();
    }

    // Returned, they serve what has waited.
    expect(free.send(std::move(*first)) && free.send(std::move(*second)), "both are returned");
    int answered = 0;
    for (; answered != sent; ++answered)
        answers.receive();
    expect(answered == 4, "all that waited is answered");
    expect(free.size() == 2, "and no connection is lost");
    net.join();
    return failures;
}
