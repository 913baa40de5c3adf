#include "AlignSpotDetector/AsdBoard.h"

#include <new>

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

using Analysis::Core::Array;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

AsdBoard::AsdBoard() {
  SetDefaults();
}

AsdBoard::AsdBoard(const AsdBoard& other) {
  *this = other;
}

AsdBoard& AsdBoard::operator=(const AsdBoard& other) {
  if (this == &other) return *this;
  maxNumberOfSaturatedPixels = other.maxNumberOfSaturatedPixels;
  interestRegionRadius = other.interestRegionRadius;
  reticleCenterX = other.reticleCenterX;
  reticleCenterY = other.reticleCenterY;
  reticleCenterR = other.reticleCenterR;
  backgroundSigma = other.backgroundSigma;
  clipThatManySigmas = other.clipThatManySigmas;
  dropThatManySigmas = other.dropThatManySigmas;
  dropBelowThisFraction = other.dropBelowThisFraction;
  saturationThreshold = other.saturationThreshold;
  properties = other.properties;
  regionRestrictor = other.regionRestrictor;
  status = other.status;
  input = other.input;
  foreground = other.foreground;
  background = other.background;
  regionIdMap = other.regionIdMap;
  regions = other.regions;
  spotInfoList.reset();
  if (other.spotInfoList) {
    spotInfoList.reset(new (std::nothrow) Array<AsdSpotInfo>(*other.spotInfoList));
    if (!spotInfoList) status = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
  }
  return *this;
}

AsdBoard::~AsdBoard() = default;

void AsdBoard::SetDefaults() {
  maxNumberOfSaturatedPixels = 32;
  interestRegionRadius = kUndefinedDouble;
  reticleCenterX = kUndefinedDouble;
  reticleCenterY = kUndefinedDouble;
  reticleCenterR = kUndefinedDouble;
  backgroundSigma = kUndefinedDouble;
  clipThatManySigmas = 6.0;
  dropThatManySigmas = 12.0;
  dropBelowThisFraction = 0.05;
  saturationThreshold = 250.0;
  regionRestrictor = AsdRegionRestrictor::Full;
}

void AsdBoard::Clear() {
  SetDefaults();
}

void AsdBoard::Initialize() {
  if (!properties.Initialize()) {
    status = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
    return;
  }
  if (!spotInfoList) {
    spotInfoList.reset(new (std::nothrow) Array<AsdSpotInfo>(4));
    if (!spotInfoList || spotInfoList->Capacity() < 4) {
      spotInfoList.reset();
      status = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "");
    }
  }
}

void AsdBoard::Finalize() {
  spotInfoList.reset();
  if (!properties.Finalize()) status = Status(0, StatusCode::kNoData, __LINE__, kSource, "");
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment
