#pragma once

#include <string>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core {

// WiringCheck
//
// The checking form of a controller's wiring test. Each condition is tested in turn; every one that
// fails assigns to the board's status a new status with the given code, the controller's source
// path, the line of the test and the test's message (often none). Testing goes on after a failure,
// so the status left behind is that of the last failing test: the status is a single record, not a
// list, and hosts rely on it naming the last missing piece.
//
//   const bool wired = WiringCheck(board.status, StatusCode::kControllerFailed, kSource)
//                          .Require(board.input != nullptr, __LINE__)
//                          .RequireDefined(board.reticleCenterX, __LINE__)
//                          .Passed();
class QUARN_PP_EXPORT WiringCheck {
 public:
  WiringCheck(Analysis::Core::Status& target, unsigned code, std::string source)
      : target_(target), code_(code), source_(std::move(source)) {}

  WiringCheck& Require(bool condition, unsigned line, const char* message = "");
  WiringCheck& RequireDefined(double parameter, unsigned line, const char* message = "");
  WiringCheck& RequireDefined(int parameter, unsigned line, const char* message = "");

  bool Passed() const { return passed_; }

 private:
  Analysis::Core::Status& target_;
  unsigned code_;
  std::string source_;
  bool passed_ = true;
};

// CheckSizeDefined
//
// The boolean form used by controllers that work on an image of a set size: false with code 21
// and "The width is undefined" when the width is 0 or less (the height is then not looked at),
// false with code 21 and "The height is undefined" when the height is 0 or less, true otherwise.
QUARN_PP_EXPORT bool CheckSizeDefined(Analysis::Core::Status& status, int width, int height,
                                      const char* source, unsigned line);

}  // namespace Quarn::Metrology::PhaseProcessing::Core
