// SPDX-License-Identifier: Apache-2.0
// Priorities. Of the waiting work items, a free thread takes the one with the largest space
// that fits, then the longest `time`, then the oldest. If `time` is the time left on the
// path that begins with the item, the critical path goes first. Or use it as a plain
// priority, as here. Transitions of a net are ordered in the same way.

#include <ovel_petri.h>
#include <ovel_thread_group.h>
#include <ovel_work.h>

#include <cstdio>
#include <string>

int main() {
    // One thread, and everything is scheduled before it starts. So the order is fixed.
    std::string order;
    ovel::work mail([&] { order += "mail "; });
    ovel::work alarm([&] { order += "alarm "; });
    ovel::work backup([&] { order += "backup "; });
    ovel::work print([&] { order += "print "; });

    ovel::thread_group group(1, 1.0, ovel::thread_base::default_stack_size);
    group.schedule(mail, 5.0, 0.0);
    group.schedule(print, 5.0, 0.0);
    group.schedule(alarm, 9.0, 0.0);
    group.schedule(backup, 1.0, 0.5);
    group.release();
    group.conclude();
    group.acquire();
    std::printf("the group:  %s\n", order.c_str());

    // Two transitions compete for the same token, and the more urgent one gets it.
    int urgent = 0;
    int idle = 0;
    ovel::net net(1);
    auto const turn = net.insert_place<int>("turn", 1);
    net.insert_transition("idle", from(turn), [&](int) { ++idle; }, {.time = 1.0});
    net.insert_transition("urgent", from(turn), [&](int) { ++urgent; }, {.time = 2.0});
    turn.send(1);
    net.start();
    net.join();
    std::printf("the net:    urgent %d, idle %d\n", urgent, idle);

    return order == "backup alarm mail print " && urgent == 1 && idle == 0 ? 0 : 1;
}
