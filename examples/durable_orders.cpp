// SPDX-License-Identifier: Apache-2.0
// Three processes charge, pack and ship orders. One of them dies and comes back, and
// still each order is shipped once.
//
// The net is in an SQLite file; with another URL the processes could run on several
// machines. Each program builds the net and names the transitions that it runs. The
// packer kills itself in the middle of its third order, as in a power failure. Its
// replacement repeats that order with the same key.
#include "ovel_durable.h"

#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

namespace {

struct order {
    int number;
    std::string goods;
};

}  // namespace

template <>
struct ovel::durable::codec<order> {
    static constexpr char const* name = "order";
    static std::string encode(order const& value) {
        return std::to_string(value.number) + ' ' + value.goods;
    }
    static order decode(std::string_view bytes) {
        std::size_t const blank = bytes.find(' ');
        if (blank == bytes.npos)
            throw error("an order is a number and goods");
        return {std::stoi(std::string(bytes.substr(0, blank))),
                std::string(bytes.substr(blank + 1))};
    }
};

namespace {

constexpr int orders = 8;

// The shop, the same in each process.
class shop {
public:
    shop(std::string const& store, bool mortal)
        : net(store, "shop", settings()),
          placed(net.insert_place<order>("placed", 100)),
          paid(net.insert_place<order>("paid", 2)),
          packed(net.insert_place<order>("packed", 2)),
          shipped(net.insert_place<order>("shipped", 100)) {
        // A payment service that gets the key charges the customer only once, whatever
        // happens between its answer and the commit.
        net.insert_transition(
            "charge", from(placed), to(paid), [](ovel::durable::key const& firing, order next) {
                std::printf("charged order %d, payment %s\n", next.number, firing.text().c_str());
                return next;
            });
        net.insert_transition("pack", from(paid), to(packed),
                              [mortal, count = 0](order next) mutable {
                                  if (mortal && ++count == 3)
                                      std::raise(SIGKILL);
                                  return next;
                              });
        net.insert_transition("ship", from(packed), to(shipped), [](order next) { return next; });
    }

    ovel::durable::net net;
    ovel::durable::place<order> placed, paid, packed, shipped;

private:
    static ovel::durable::options settings() {
        ovel::durable::options chosen;
        chosen.threads = 1;
        chosen.lease = 1;  // seconds until others take over what a dead process had claimed
        chosen.poll = 0.2;
        return chosen;
    }
};

pid_t start(char const* program, std::string const& store, std::string role, bool mortal) {
    std::string name = program, url = store, fate = mortal ? "mortal" : "immortal";
    char* const arguments[] = {name.data(), url.data(), role.data(), fate.data(), nullptr};
    pid_t process = 0;
    if (posix_spawn(&process, program, nullptr, nullptr, arguments, environ) != 0)
        std::abort();
    return process;
}

bool was_killed(pid_t process) {
    int status = 0;
    waitpid(process, &status, 0);
    return WIFSIGNALED(status);
}

// One of the three processes.
void work(char** arguments) {
    shop own(arguments[1], arguments[3] == std::string("mortal"));
    own.net.start({arguments[2]});
    own.net.join();  // when all of them are at rest
}

bool sell(char const* program, std::string const& store) {
    shop own(store, false);
    // An order's number is the key: sending it again, even after a crash of this process,
    // would change nothing.
    for (int i = 1; i <= orders; ++i)
        own.placed.send({i, i % 2 == 0 ? "tea" : "coffee"},
                        ovel::durable::key("order " + std::to_string(i)));

    pid_t const charger = start(program, store, "charge", false);
    pid_t const shipper = start(program, store, "ship", false);
    pid_t const packer = start(program, store, "pack", true);
    if (!was_killed(packer))
        return false;
    std::printf("the packer died\n");
    pid_t const next = start(program, store, "pack", false);
    for (pid_t const each : {charger, shipper, next})
        if (was_killed(each))
            return false;

    std::set<int> shipped;
    while (auto const next_one = own.shipped.try_receive())
        if (!shipped.insert(next_one->number).second)
            return false;  // twice
    std::printf("%zu of %d orders shipped\n%s", shipped.size(), orders, own.net.explain().c_str());
    return shipped.size() == orders;
}

}  // namespace

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (count == 4) {
        work(arguments);
        return 0;
    }
    std::string folder = (std::filesystem::temp_directory_path() / "ovel_orders.XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr)
        return 1;
    bool const right = sell("/proc/self/exe", "sqlite:" + folder + "/shop.db");
    std::filesystem::remove_all(folder);
    return right ? 0 : 1;
}
