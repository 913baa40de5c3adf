#include "Core/Board/WiringCheck.h"

#include "Core/Board/Undefined.h"

namespace Quarn::Metrology::PhaseProcessing::Core {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

WiringCheck& WiringCheck::Require(bool condition, unsigned line, const char* message) {
  if (!condition) {
    target_ = Status(0, code_, line, source_, message);
    passed_ = false;
  }
  return *this;
}

WiringCheck& WiringCheck::RequireDefined(double parameter, unsigned line, const char* message) {
  return Require(!IsUndefined(parameter), line, message);
}

WiringCheck& WiringCheck::RequireDefined(int parameter, unsigned line, const char* message) {
  return Require(!IsUndefined(parameter), line, message);
}

bool CheckSizeDefined(Status& status, int width, int height, const char* source, unsigned line) {
  if (IsUndefinedSize(width)) {
    status = Status(0, StatusCode::kNotSet, line, source, "The width is undefined");
    return false;
  }
  if (IsUndefinedSize(height)) {
    status = Status(0, StatusCode::kNotSet, line, source, "The height is undefined");
    return false;
  }
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core
