#pragma once

#include <string>
#include <vector>

#include "AlignSpotDetector/AsdBoard.h"
#include "AlignSpotDetector/AsdRegionRestrictor.h"
#include "AlignSpotDetector/AsdSpotInfo.h"
#include "AlignSpotDetector/AsdSpotPosition.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

// AlignSpotDetector
//
// Finds the single bright alignment spot in an integer camera image and says where it lies
// relative to a reticle centre with a central obscuration: in one of four quadrants, behind the
// obscuration, or that no decision is possible (no spot, several spots, too many saturated
// pixels). See AsdController for the steps and AsdBoard for the parameters and their defaults.
//
// Only the input's window is searched: the working images are invalid outside it.
//
// Coordinates are camera pixels: x = column, y = row, rows growing downwards, the image's origin
// (start row and column) included; a pixel's coordinate is its centre. The centre of mass and the
// sigmas of a spot are weighted with the raw counts of the pixels that stand out from the
// background by more than clipThatManySigmas background deviations.
//
// Besides the position, a run leaves the foreground (pixels standing out from the background,
// masked to the region of interest), the background (the noise floor), the map of the surviving
// spots' regions (the brightest spot carries the highest id) and the result properties
// ("Regions.Size", "Region.0.CenterOfMassX", ...; see AsdProperties).
//
// Status: a detection that cannot run (input missing, a parameter undefined) returns
// `DetectionFailed` with code 4 in the status; an internal failure gives code 6 (or 21 when the
// detector was not initialised). The status is not reset by a run: a failure stays recorded until a
// later one overwrites it or the host clears it, so a host that sets a missing parameter can simply
// run again; judge a run by the position it returns, not by the status (see AsdController). No
// exception leaves the class.
//
//   IntMatrix2D image = ...;          // the camera frame
//   AlignSpotDetector detector;
//   detector.Initialize();
//   detector.SetReticleCenterX(640.0);
//   detector.SetReticleCenterY(480.0);
//   detector.SetReticleCenterR(20.0);        // obscuration radius, pixels
//   detector.SetInterestRegionRadius(300.0); // half-width of the square searched, pixels
//   detector.SetInput(&image);
//   AsdSpotPosition position = detector.DetectSpotPosition();
//   if (position == AsdSpotPosition::Quadrant2) {
//     double x = std::atof(detector.GetProperty("Region.0.CenterOfMassX").c_str());
//   }
class QUARN_PP_EXPORT AlignSpotDetector {
 public:
  static constexpr const char* kSource = "AlignSpotDetector\\AlignSpotDetector";

  AlignSpotDetector();
  virtual ~AlignSpotDetector();

  // Creates and destroys the property dictionary and the spot list (see AsdBoard).
  void Initialize() { board_.Initialize(); }
  void Finalize() { board_.Finalize(); }
  // Restores the parameter defaults; the input and the results stay.
  void Clear() { board_.Clear(); }

  // The image to search (not owned; it must stay alive until the detection returns). Clears the
  // spot list of the previous run.
  void SetInput(const Analysis::Core::IntMatrix2D* input);

  AsdSpotPosition DetectSpotPosition();

  // Copy the working images of the last run into the caller's matrix (shape, origin and values);
  // false for a null matrix or when it cannot be sized.
  bool GetForeground(Analysis::Core::IntMatrix2D* image) const;
  bool GetBackground(Analysis::Core::IntMatrix2D* image) const;
  bool GetRegionIdMap(Analysis::Core::IntMatrix2D* image) const;

  // The spots at full precision (the properties hold six significant digits), in the order of the
  // "Region.<i>" properties: brightest first. Like those properties they are the spots of the last
  // run that got as far as finding regions, so read them after a run that returned a quadrant,
  // SpotBehindObscuration or TooManySignificantSpots. Empty before Initialize.
  std::vector<AsdSpotInfo> GetSpots() const;

  const std::string& GetProperty(const std::string& key) const { return board_.properties.Get(key); }
  void SetProperty(const std::string& key, const std::string& value) { board_.properties.Set(key, value); }
  // Every key of the result dictionary, in dictionary order.
  std::vector<std::string> GetPropertyKeys() const { return board_.properties.GetKeys(); }

  int GetMaxNumberOfSaturatedPixels() const { return board_.maxNumberOfSaturatedPixels; }
  void SetMaxNumberOfSaturatedPixels(int count) { board_.maxNumberOfSaturatedPixels = count; }
  double GetInterestRegionRadius() const { return board_.interestRegionRadius; }
  void SetInterestRegionRadius(double pixels) { board_.interestRegionRadius = pixels; }
  double GetReticleCenterX() const { return board_.reticleCenterX; }
  void SetReticleCenterX(double column) { board_.reticleCenterX = column; }
  double GetReticleCenterY() const { return board_.reticleCenterY; }
  void SetReticleCenterY(double row) { board_.reticleCenterY = row; }
  double GetReticleCenterR() const { return board_.reticleCenterR; }
  void SetReticleCenterR(double pixels) { board_.reticleCenterR = pixels; }
  double GetClipThatManySigmas() const { return board_.clipThatManySigmas; }
  void SetClipThatManySigmas(double sigmas) { board_.clipThatManySigmas = sigmas; }
  double GetDropThatManySigmas() const { return board_.dropThatManySigmas; }
  void SetDropThatManySigmas(double sigmas) { board_.dropThatManySigmas = sigmas; }
  double GetDropBelowThisFraction() const { return board_.dropBelowThisFraction; }
  // Clamped to [0, 1]: a fraction of the brightest spot's sum. NaN has no place in that range and
  // makes the fraction undefined, so that the next detection fails its wiring test (code 4) instead
  // of running with a fraction nobody chose (a NaN threshold would drop nothing).
  void SetDropBelowThisFraction(double fraction);
  double GetSaturationThreshold() const { return board_.saturationThreshold; }
  void SetSaturationThreshold(double counts) { board_.saturationThreshold = counts; }
  AsdRegionRestrictor GetRegionRestrictor() const { return board_.regionRestrictor; }
  void SetRegionRestrictor(AsdRegionRestrictor restrictor) { board_.regionRestrictor = restrictor; }

  const Analysis::Core::Status& GetStatus() const { return board_.status; }
  Analysis::Core::Status& GetStatus() { return board_.status; }

 private:
  AsdBoard board_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment
