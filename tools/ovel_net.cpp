// ovel-net: loads a Petri net from a PNML file, fires it concurrently and reports
// where it came to rest.
#include "ovel_net_check.h"
#include "ovel_net_failure.h"
#include "ovel_net_options.h"
#include "ovel_net_output.h"
#include "ovel_net_pnml.h"
#include "ovel_net_report.h"
#include "ovel_net_run.h"
#include "ovel_net_system.h"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <new>
#include <sstream>
#include <string>

namespace ovel_net {

namespace {

// Tells a user at a terminal how a long run is going, in one line that goes again.
class progress {
public:
    ~progress() {
        if (_shown)
            std::fputs("\r\x1b[K", stderr);
    }

    void operator()(double seconds, std::uint64_t firings) {
        if (!_terminal || seconds < 1)
            return;
        std::fprintf(stderr, "\r\x1b[K%.1f s, %llu firings", seconds,
                     static_cast<unsigned long long>(firings));
        _shown = true;
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

void run_and_tell(options const& chosen) {
    std::ostringstream warnings;
    net const model = read_pnml(chosen.file, warnings);
    if (!chosen.dot.empty())
        require_writable(chosen.dot);
    if (!chosen.svg.empty()) {
        require_writable(chosen.svg);
        require_graphviz(chosen.svg);
    }
    // Only now, for whoever gets a fault is told nothing else.
    std::cerr << warnings.str();

    result made;
    {
        progress shown;
        made = run(model, chosen, std::ref(shown));
    }

    print(chosen.json ? json(model, made, chosen.explain) : report(model, made, chosen.explain));
    if (!chosen.dot.empty()) {
        output_file file(chosen.dot);
        file.write(drawing(model, made));
        file.commit();
    }
    if (!chosen.svg.empty()) {
        output_file file(chosen.svg);
        file.write_svg(drawing(model, made));
        file.commit();
    }
}

}  // namespace

}  // namespace ovel_net

int main(int argc, char** argv) {
    try {
        ovel_net::options const chosen = ovel_net::parse_options(argc, argv);
        if (chosen.help)
            std::cout << ovel_net::usage;
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
