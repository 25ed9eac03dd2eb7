#pragma once

#include <string>

#include "engine/EngineError.h"

namespace vt {

// Puts the vtnfs built with the application into the data folder (where the
// instances run it from) and makes the folders both instances need. A
// running engine keeps its old binary: the copy is written beside it and
// renamed over it.
EngineResult installEngine(const std::string& dataDirectory, const std::string& bundledEngine);

}  // namespace vt
