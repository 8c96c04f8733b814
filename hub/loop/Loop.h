#pragma once

#include "Log.h"
#include "LoopSource.h"

namespace ParvaneHub {

using Parvane::LoopSource;

} // namespace ParvaneHub
