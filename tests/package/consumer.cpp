// Sends a number through a net and prints it: what is linked is there and works.
#include <ovel.h>

#include <cstdio>

struct doubler : ovel::petri_function {
    ovel::petri_place* numbers = nullptr;
    ovel::petri_place* results = nullptr;

    void operator()() override {
        ovel::any token;
        numbers->receive(token);
        results->send(2 * ovel::any_cast<int&>(token));
    }
};

int main() {
    ovel::petri_net net;
    ovel::petri_place* const in = net.insert_place(1);
    ovel::petri_place* const out = net.insert_place(1);
    doubler work;
    ovel::petri_transition* const twice = net.insert_transition(work, true, 1.0, 0.0, 0);
    net.insert_input_arc(in, twice->input(work.numbers));
    net.insert_output_arc(twice->output(work.results), out);
    net.release();
    net.send(in, 21);
    ovel::any result;
    net.receive(out, result);
    net.acquire();
    std::printf("%d\n", ovel::any_cast<int&>(result));
}
