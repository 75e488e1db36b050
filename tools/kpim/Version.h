// What kpim --version prints, apart from the command line: each build for other hosts compiles it
// again.
#pragma once

namespace kpim {

/// The version and the vendor's hosts, a line each.
extern const char kVersionText[];

}  // namespace kpim
