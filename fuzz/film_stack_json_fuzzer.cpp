// The film-stack description (LibraryJson) on arbitrary text. Promises: Read either succeeds with
// a clear status or refuses the text with code 20 (malformed or impossible value) or 21 (missing
// field) and a message; it never crashes, hangs or reads outside the text.
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "SwliMba/LibDef/Library.h"
#include "SwliMba/LibDef/LibraryJson.h"

namespace Core = ::Quarn::Metrology::Analysis::Core;
namespace Fuzz = ::Quarn::Fuzz;
namespace LibDef = ::Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef;
using Fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  LibDef::Library library;
  LibDef::LibraryJson reader;
  const bool read = reader.Read(text, library);
  const Core::Status& status = reader.GetStatus();
  if (read) {
    Require(!status.IsError(), "a text read leaves no failure");
  } else {
    Require(status.GetCode() == Core::StatusCode::kArgumentOutOfRange ||
                status.GetCode() == Core::StatusCode::kNotSet,
            "a refused text has code 20 or 21");
    Require(!status.GetMessage().empty(), "a refused text says why");
  }
  return 0;
}
