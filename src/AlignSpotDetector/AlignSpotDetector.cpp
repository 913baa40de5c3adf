#include "AlignSpotDetector/AlignSpotDetector.h"

#include <algorithm>
#include <cmath>

#include "AlignSpotDetector/AsdController.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

using Analysis::Core::IntMatrix2D;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

AlignSpotDetector::AlignSpotDetector() = default;

AlignSpotDetector::~AlignSpotDetector() = default;

void AlignSpotDetector::SetInput(const IntMatrix2D* input) {
  board_.input = input;
  if (board_.spotInfoList && !board_.spotInfoList->Clear()) {
    board_.status = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "");
    board_.properties.Set("Error.Msg", "Call to spotInfoList.Clear failed");
  }
}

AsdSpotPosition AlignSpotDetector::DetectSpotPosition() {
  try {
    AsdController controller(board_);
    return controller.DetectSpotPosition();
  } catch (...) {
    board_.status = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
    return AsdSpotPosition::DetectionFailed;
  }
}

namespace {

bool CopyOut(const Analysis::Core::IntWindow2D& from, IntMatrix2D* to) {
  return to != nullptr && to->CopyAll(from);
}

}  // namespace

bool AlignSpotDetector::GetForeground(IntMatrix2D* image) const {
  return CopyOut(board_.foreground, image);
}

bool AlignSpotDetector::GetBackground(IntMatrix2D* image) const {
  return CopyOut(board_.background, image);
}

bool AlignSpotDetector::GetRegionIdMap(IntMatrix2D* image) const {
  return CopyOut(board_.regionIdMap, image);
}

std::vector<AsdSpotInfo> AlignSpotDetector::GetSpots() const {
  if (!board_.spotInfoList) return {};
  return std::vector<AsdSpotInfo>(board_.spotInfoList->begin(), board_.spotInfoList->end());
}

void AlignSpotDetector::SetDropBelowThisFraction(double fraction) {
  board_.dropBelowThisFraction = std::isnan(fraction) ? kUndefinedDouble : std::clamp(fraction, 0.0, 1.0);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment
