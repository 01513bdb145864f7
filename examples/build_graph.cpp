// SPDX-License-Identifier: Apache-2.0
// A parallel build of a small dependency graph: a transition for each target, a place for
// each dependency. Independent targets are built in parallel, and the result shows that
// every dependency was built before it was needed.

#include <ovel_petri.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <tuple>

int main() {
    using artifact = std::string;
    ovel::net build;
    std::atomic<int> steps = 0;
    auto const file = [&](char const* name) {
        return build.insert_place<artifact>(name, 1);
    };

    auto const a_source = file("a.cpp"), b_source = file("b.cpp"), c_source = file("c.cpp");
    auto const a_object = file("a.o"), b_object = file("b.o"), c_object = file("c.o");
    // Two targets need the library: a place for each of them.
    auto const library_for_program = file("library"), library_for_test = file("library'");
    auto const program = file("program"), report = file("report"), package = file("package");

    auto const compile = [&](artifact const& source) {
        ++steps;
        return source + ".o";
    };
    build.insert_transition("compile a", from(a_source), to(a_object), compile);
    build.insert_transition("compile b", from(b_source), to(b_object), compile);
    build.insert_transition("compile c", from(c_source), to(c_object), compile);
    build.insert_transition("archive", from(a_object, b_object),
                            to(library_for_program, library_for_test),
                            [&](artifact const& a, artifact const& b) {
                                ++steps;
                                artifact const library = "lib(" + a + " " + b + ")";
                                return std::tuple(library, library);
                            });
    build.insert_transition("link", from(library_for_program, c_object), to(program),
                            [&](artifact const& library, artifact const& object) {
                                ++steps;
                                return "program(" + library + " " + object + ")";
                            });
    build.insert_transition("test", from(library_for_test), to(report),
                            [&](artifact const& library) {
                                ++steps;
                                return "tested(" + library + ")";
                            });
    build.insert_transition("pack", from(program, report), to(package),
                            [&](artifact const& binary, artifact const& passed) {
                                ++steps;
                                return binary + " " + passed;
                            });

    build.start();
    a_source.send("a");
    b_source.send("b");
    c_source.send("c");
    artifact const packed = package.receive();
    build.join();

    std::printf("%d steps: %s\n", steps.load(), packed.c_str());
    return steps == 7 && packed == "program(lib(a.o b.o) c.o) tested(lib(a.o b.o))" ? 0 : 1;
}
