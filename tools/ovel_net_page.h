// SPDX-License-Identifier: Apache-2.0
// A run as a page for a browser.
#ifndef OVEL_NET_PAGE_H
#define OVEL_NET_PAGE_H

#include "ovel_net_model.h"
#include "ovel_net_run.h"
#include "ovel_trace.h"

#include <string>

namespace ovel_net {

// One document that needs nothing else: the net as it is drawn in `picture`, an SVG
// document, and what was recorded of the run.
std::string page(net const& model, result const& made, ovel::trace::recorder const& recorded,
                 std::string const& picture);

// Its parts as they stand in page/. In the first, @title@, @style@, @picture@,
// @data@ and @script@ stand for the rest.
extern char const page_html[];
extern char const page_css[];
extern char const page_js[];

}  // namespace ovel_net

#endif
