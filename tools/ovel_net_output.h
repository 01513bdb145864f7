// SPDX-License-Identifier: Apache-2.0
// Files that the program writes: whole or not at all.
#ifndef OVEL_NET_OUTPUT_H
#define OVEL_NET_OUTPUT_H

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace ovel_net {

// A file being written. Until `commit` it has another name, beside its own, and
// what is not committed is removed; so the name never stands for half a file. A
// name of something other than a file, such as a terminal, is added to directly.
// Everything that goes wrong is thrown as a `failure`.
class output_file {
public:
    explicit output_file(std::string const& name);
    ~output_file();
    output_file(output_file const&) = delete;
    output_file& operator=(output_file const&) = delete;

    void write(std::string_view text);

    // After the last `write`: now it is whole.
    void close();

    // After `close`: now it has its name.
    void commit();

private:
    std::string const _name;  // as the user wrote it
    std::string _target;      // where it leads, through links
    std::string _temporary;   // empty: written to directly, or committed
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> _file;
};

// The picture of `drawing`, by Graphviz, as an SVG document that is to go into the
// file `name`.
std::string svg(std::string const& name, std::string const& drawing);

// Throw when a later drawing would: before a run, rather than after it.
void require_writable(std::string const& name);
void require_graphviz(std::string const& name);

}  // namespace ovel_net

#endif
