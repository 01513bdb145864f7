// SPDX-License-Identifier: Apache-2.0
// A run as an HTML page.
#ifndef OVEL_NET_PAGE_H
#define OVEL_NET_PAGE_H

#include "ovel_net_model.h"
#include "ovel_net_run.h"
#include "ovel_trace.h"

#include <string>

namespace ovel_net {

// A self-contained document: the net as drawn in `picture`, an SVG document, and the
// recording of the run.
std::string page(net const& model, result const& made, ovel::trace::recorder const& recorded,
                 std::string const& picture);

// The parts, as in page/. In the first, @title@, @style@, @picture@, @data@ and @script@
// are placeholders. The last consists of both scripts.
extern char const page_html[];
extern char const page_css[];
extern char const page_js[];

}  // namespace ovel_net

#endif
