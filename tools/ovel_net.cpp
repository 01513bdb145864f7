// SPDX-License-Identifier: Apache-2.0
// ovel-net: loads a Petri net from a PNML file, fires it concurrently and reports
// where it came to rest.
#include "ovel_net_check.h"
#include "ovel_net_failure.h"
#include "ovel_net_options.h"
#include "ovel_net_output.h"
#include "ovel_net_page.h"
#include "ovel_net_pnml.h"
#include "ovel_net_report.h"
#include "ovel_net_run.h"
#include "ovel_net_store.h"
#include "ovel_net_system.h"
#include "ovel_net_text.h"
#include "ovel_trace.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <list>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace ovel_net {

namespace {

std::atomic<bool> interrupted = false;  // relaxed: it publishes nothing else

// The first interrupt stops the net; the next one ends the program as usual.
extern "C" void note_interrupt(int signal) {
    interrupted.store(true, std::memory_order_relaxed);
    std::signal(signal, SIG_DFL);
}

// If interrupts are ignored, as for a script's background jobs, they stay ignored.
void hear_interrupts() {
    if (std::signal(SIGINT, note_interrupt) == SIG_IGN)
        std::signal(SIGINT, SIG_IGN);
}

// Shows a user at a terminal how a long run is going, in one line that it erases at the
// end.
class progress {
public:
    ~progress() {
        if (_shown)
            std::fputs("\r\x1b[K", stderr);
    }

    // Returns false once the user has interrupted the run.
    bool operator()(double seconds, std::uint64_t firings) {
        if (_terminal && seconds >= 1) {
            std::fprintf(stderr, "\r\x1b[K%.1f s, %llu firings", seconds,
                         static_cast<unsigned long long>(firings));
            _shown = true;
        }
        return !interrupted.load(std::memory_order_relaxed);
    }

private:
    bool const _terminal = error_stream_is_terminal();
    bool _shown = false;
};

void print(std::string const& text) {
    std::cout << text << std::flush;
    if (!std::cout)
        throw bad_file("standard output", 1, "cannot be written");
}

void check_and_tell(options const& chosen) {
    std::ostringstream warnings;
    net const model = read_pnml(chosen.file, warnings);
    analysis const made = analyse(model);
    warn_of_capacities(chosen.file, model, made, chosen.capacity, warnings);
    std::cerr << warnings.str();
    print(chosen.json ? check_json(model, made, chosen.capacity)
                      : check_report(model, made, chosen.capacity));
}

// The output files of a run. All are complete before the first one gets its name.
class output_files {
public:
    template <class Write>
    void add(std::string const& name, Write const& write) {
        if (name.empty())
            return;
        output_file& file = _files.emplace_back(name);
        write(file);
        file.close();
    }

    void commit() {
        for (output_file& each : _files)
            each.commit();
    }

private:
    std::list<output_file> _files;
};

void run_and_tell(options const& chosen) {
    std::ostringstream warnings;
    net const model = read_pnml(chosen.file, warnings);
    for (std::string const* const name : {&chosen.dot, &chosen.svg, &chosen.trace, &chosen.report})
        if (!name->empty())
            require_writable(*name);
    for (std::string const* const name : {&chosen.svg, &chosen.report})
        if (!name->empty())
            require_graphviz(*name);
    // Printed only now, because a failure prints nothing but its own line.
    std::cerr << warnings.str();

    std::optional<ovel::trace::recorder> recorded;
    if (!chosen.trace.empty() || !chosen.report.empty())
        recorded.emplace();
    result made;
    {
        progress shown;
        hear_interrupts();
        made = chosen.store.empty() ? run(model, chosen, std::ref(shown))
                                    : run_in_store(model, chosen, std::ref(shown));
    }
    if (recorded && recorded->dropped() != 0)
        std::cerr << "ovel-net: " << chosen.file << ":1: warning: of this long run "
                  << grouped(recorded->dropped()) << " late records were not kept\n";

    print(chosen.json ? json(model, made, chosen.explain) : report(model, made, chosen.explain));
    output_files files;
    files.add(chosen.dot, [&](output_file& file) { file.write(drawing(model, made)); });
    files.add(chosen.svg,
              [&](output_file& file) { file.write(svg(chosen.svg, drawing(model, made))); });
    files.add(chosen.trace, [&](output_file& file) {
        recorded->write([&](std::string_view text) { file.write(text); });
    });
    files.add(chosen.report, [&](output_file& file) {
        file.write(page(model, made, *recorded, svg(chosen.report, drawing(model, made))));
    });
    files.commit();
}

}  // namespace

}  // namespace ovel_net

int main(int argc, char** argv) {
    try {
        ovel_net::options const chosen = ovel_net::parse_options(argc, argv);
        if (chosen.help)
            ovel_net::print(ovel_net::usage);
        else if (chosen.file.empty())
            ovel_net::print(ovel_net::show_store(chosen.store));
        else if (chosen.check)
            ovel_net::check_and_tell(chosen);
        else
            ovel_net::run_and_tell(chosen);
        return 0;
    } catch (ovel_net::failure const& failed) {
        std::cerr << "ovel-net: " << failed.text << '\n';
        return failed.status;
    } catch (std::bad_alloc const&) {
        std::cerr << "ovel-net: out of memory\n";
        return 71;
    }
}
