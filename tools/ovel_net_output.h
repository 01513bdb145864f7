// SPDX-License-Identifier: Apache-2.0
// Output files, which the program writes completely or not at all.
#ifndef OVEL_NET_OUTPUT_H
#define OVEL_NET_OUTPUT_H

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace ovel_net {

// A file being written. Until `commit` it has a temporary name next to its own, and it is
// removed if it is never committed. So the name never refers to a partial file. If the
// name is not a regular file, for example a terminal, writes go to it directly. Throws a
// `failure` on every error.
class output_file {
public:
    explicit output_file(std::string const& name);
    ~output_file();
    output_file(output_file const&) = delete;
    output_file& operator=(output_file const&) = delete;

    void write(std::string_view text);

    // Call it after the last `write`. The file is then complete.
    void close();

    // Call it after `close`. The file then has its name.
    void commit();

private:
    std::string const _name;  // as the user wrote it
    std::string _target;      // what it resolves to through links
    std::string _temporary;   // empty: written directly, or committed
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> _file;
};

// Renders `drawing` with Graphviz as an SVG document for the file `name`.
std::string svg(std::string const& name, std::string const& drawing);

// Throws if drawing later would fail, so that the error comes before a run instead of
// after it.
void require_writable(std::string const& name);
void require_graphviz(std::string const& name);

}  // namespace ovel_net

#endif
