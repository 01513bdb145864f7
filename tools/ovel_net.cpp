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
#include "ovel_net_system.h"
#include "ovel_net_text.h"
#include "ovel_trace.h"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

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

// Whole, once `write` has written it.
template <class Write>
void write_file(std::string const& name, Write const& write) {
    output_file file(name);
    write(file);
    file.commit();
}

void run_and_tell(options const& chosen) {
    std::ostringstream warnings;
    net const model = read_pnml(chosen.file, warnings);
    for (std::string const* const name : {&chosen.dot, &chosen.svg, &chosen.trace, &chosen.report})
        if (!name->empty())
            require_writable(*name);
    for (std::string const* const name : {&chosen.svg, &chosen.report})
        if (!name->empty())
            require_graphviz(*name);
    // Only now, for whoever gets a fault is told nothing else.
    std::cerr << warnings.str();

    std::optional<ovel::trace::recorder> recorded;
    if (!chosen.trace.empty() || !chosen.report.empty())
        recorded.emplace();
    result made;
    {
        progress shown;
        made = run(model, chosen, std::ref(shown));
    }
    if (recorded && recorded->dropped() != 0)
        std::cerr << "ovel-net: " << chosen.file << ":1: warning: of this long run "
                  << grouped(recorded->dropped()) << " late records were not kept\n";

    print(chosen.json ? json(model, made, chosen.explain) : report(model, made, chosen.explain));
    if (!chosen.dot.empty())
        write_file(chosen.dot, [&](output_file& file) { file.write(drawing(model, made)); });
    if (!chosen.svg.empty())
        write_file(chosen.svg,
                   [&](output_file& file) { file.write(svg(chosen.svg, drawing(model, made))); });
    if (!chosen.trace.empty())
        write_file(chosen.trace, [&](output_file& file) {
            recorded->write([&](std::string_view text) { file.write(text); });
        });
    if (!chosen.report.empty())
        write_file(chosen.report, [&](output_file& file) {
            file.write(page(model, made, *recorded, svg(chosen.report, drawing(model, made))));
        });
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
