// SPDX-License-Identifier: Apache-2.0
// The library is a separate shared object, so its variables are the writable segments of
// that object. All symbols are bound at load (-z now), because restoring would undo a
// later relocation.

#include "snapshot.h"

#include <link.h>
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace ovel::simulation::snapshot {

namespace {

struct range {
    char* begin;
    std::vector<char> contents;
};

std::vector<range>& ranges() {
    static std::vector<range> kept;
    return kept;
}

int visit(dl_phdr_info* info, std::size_t, void*) {
    if (std::strstr(info->dlpi_name, "libovel_simulated") == nullptr)
        return 0;
    std::uintptr_t constants_end = 0;  // end of what the loader has made read-only
    for (int each = 0; each != info->dlpi_phnum; ++each)
        if (info->dlpi_phdr[each].p_type == PT_GNU_RELRO)
            constants_end =
                info->dlpi_addr + info->dlpi_phdr[each].p_vaddr + info->dlpi_phdr[each].p_memsz;
    for (int each = 0; each != info->dlpi_phnum; ++each) {
        ElfW(Phdr) const& header = info->dlpi_phdr[each];
        if (header.p_type != PT_LOAD || (header.p_flags & PF_W) == 0)
            continue;
        std::uintptr_t begin = info->dlpi_addr + header.p_vaddr;
        std::uintptr_t const end = begin + header.p_memsz;
        if (constants_end > begin && constants_end <= end)
            begin = constants_end;
        if (begin != end)
            ranges().push_back({reinterpret_cast<char*>(begin),
                                {reinterpret_cast<char*>(begin), reinterpret_cast<char*>(end)}});
    }
    return 0;
}

}  // namespace

void keep() {
    ranges().clear();
    dl_iterate_phdr(visit, nullptr);
}

void restore() {
    for (range const& each : ranges())
        std::memcpy(each.begin, each.contents.data(), each.contents.size());
}

}  // namespace ovel::simulation::snapshot
