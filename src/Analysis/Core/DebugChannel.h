#pragma once

#include <functional>
#include <string>

#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core {

// The debug channel
//
// Where the algorithms put timing and progress texts ("\tPhaseGenerator ProcessPixels: 3.2 ms\n").
// Silent by default. A host installs a sink to receive each text, or sets the environment variable
// QUARN_DEBUG to a non-empty value other than "0" to have the texts written to standard error. The
// channel never writes to standard output, which belongs to the host (and to the tool's results).
//
//   SetDebugSink([](const std::string& text) { myLog.Append(text); });
//   debug_printf("Processing row %d\n", row);
using DebugSink = std::function<void(const std::string& text)>;

// Installs (or, with an empty function, removes) the sink. Texts sent while a sink is installed go
// only to the sink. The sink is called from whichever thread sends the text, worker threads of a
// dispatched run included, one text at a time: it runs under the channel's lock, so it must not
// itself call debug_printf or SetDebugSink (that would deadlock) and should return quickly.
QUARN_CORE_EXPORT void SetDebugSink(DebugSink sink);

// True when a text would go anywhere; lets callers skip formatting work.
QUARN_CORE_EXPORT bool IsDebugEnabled();

// printf-style formatting into the channel.
QUARN_CORE_EXPORT void debug_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace Quarn::Metrology::Analysis::Core
