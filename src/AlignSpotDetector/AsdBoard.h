#pragma once

#include <memory>

#include "AlignSpotDetector/AsdProperties.h"
#include "AlignSpotDetector/AsdRegionRestrictor.h"
#include "AlignSpotDetector/AsdSpotInfo.h"
#include "Analysis/Core/Array.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/RegionInfo.h"
#include "Analysis/Core/Status.h"
#include "Core/Board/Undefined.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

// AsdBoard
//
// Everything one align spot detector holds: its parameters (with the defaults below, set by the
// constructor and again by `Clear`), the pointer to the caller's image, the working images and the
// spot list of the last run, the named results and the status every step writes its failures into.
// `AsdController` runs the detection steps against a board; `AlignSpotDetector` is the facade that
// owns one.
//
// Parameters (pixels are camera pixels, x = column, y = row, rows growing downwards; counts are
// camera counts):
//   maxNumberOfSaturatedPixels  32         saturated foreground pixels tolerated
//   interestRegionRadius        undefined  half-width of the square region of interest, pixels
//   reticleCenterX, reticleCenterY undefined  the reticle centre, column and row
//   reticleCenterR              undefined  radius of the central obscuration, pixels
//   backgroundSigma             undefined  written by the sigma clipping (noise of the background)
//   clipThatManySigmas          6          a pixel is foreground beyond this many background sigmas
//   dropThatManySigmas          12         a spot needs a sum of at least this many sigmas
//   dropBelowThisFraction       0.05       ... and at least this fraction of the brightest spot's sum
//   saturationThreshold         250        counts at which a pixel counts as saturated
//   regionRestrictor            Full       quadrants that may hold the spot
// "Undefined" is the largest finite double (see Core/Board/Undefined.h); the detector refuses to
// run while a parameter it needs is undefined.
//
// The spot list is created by `Initialize` (with the property dictionary) and destroyed by
// `Finalize`; a detection needs both. Copies are deep.
class QUARN_PP_EXPORT AsdBoard {
 public:
  static constexpr const char* kSource = "AlignSpotDetector\\AsdBoard";

  AsdBoard();
  AsdBoard(const AsdBoard& other);
  AsdBoard& operator=(const AsdBoard& other);
  virtual ~AsdBoard();

  // Restores the parameter defaults (backgroundSigma included). The input pointer, the working
  // images, the spot list, the properties and the status are left as they are.
  void Clear();
  // Creates the property dictionary and the spot list (capacity 4); code 3 when either cannot be.
  void Initialize();
  // Destroys the spot list and the property dictionary; code 2 when the dictionary refuses.
  void Finalize();

  // Parameters.
  int maxNumberOfSaturatedPixels;
  double interestRegionRadius;
  double reticleCenterX;
  double reticleCenterY;
  double reticleCenterR;
  double backgroundSigma;
  double clipThatManySigmas;
  double dropThatManySigmas;
  double dropBelowThisFraction;
  double saturationThreshold;
  AsdProperties properties;
  AsdRegionRestrictor regionRestrictor;
  Analysis::Core::Status status{__LINE__, kSource};

  // The caller's image (not owned; it must stay alive while a detection runs).
  const Analysis::Core::IntMatrix2D* input = nullptr;

  // Working data of the last run.
  Analysis::Core::IntMatrix2D foreground;
  Analysis::Core::IntMatrix2D background;
  Analysis::Core::RegionIdMatrix2D regionIdMap;
  std::unique_ptr<Analysis::Core::Array<AsdSpotInfo>> spotInfoList;
  Analysis::Core::Array<Analysis::Core::RegionInfo> regions;  // the region finder's descriptions

 private:
  void SetDefaults();
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment
