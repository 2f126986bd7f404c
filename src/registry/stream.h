// The streaming layer's handler table (registry/stream_handlers.cpp). The
// interface the handlers implement is in codecs/rows.h.
#pragma once

#include "codecs/rows.h"

namespace il::stream {

// The handler table, in the order in which opening tries the readers.
extern const Handler kHandlers[];
extern const int kHandlerCount;

}  // namespace il::stream
