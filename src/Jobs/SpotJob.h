#pragma once

#include <string>
#include <utility>
#include <vector>

#include "AlignSpotDetector/AlignSpotDetector.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Jobs/JobData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Jobs {

// Spot-detection options, with the tool's defaults (centre, radius and obscuration have none).
struct SpotOptions {
  double centerX = 0.0;  // reticle centre: column and row in pixels (0, 0 = top-left pixel)
  double centerY = 0.0;
  double radius = 0.0;            // half-width of the square searched
  double obscuration = 0.0;       // radius of the central obscuration
  std::string restrict = "full";  // "full", "13" or "24": the quadrants that may hold the spot
  double saturation = -1.0;       // counts; negative: 250 for 8 bits, the same fraction of full scale above
  int maxSaturated = 32;
};

// One spot as the detector describes it: the numbers and their text as the detector writes it.
struct SpotFound {
  double centerOfMassX = 0.0, centerOfMassY = 0.0;
  double sigmaX = 0.0, sigmaY = 0.0;
  double x0 = 0.0, x1 = 0.0, y0 = 0.0, y1 = 0.0;  // bounding box
  double size = 0.0;                              // pixels
  double sum = 0.0;                               // counts
  // Text of the fields in the order the tool prints them: CenterOfMassX, CenterOfMassY, SigmaX,
  // SigmaY, BoundingRect.X0, X1, Y0, Y1, Size, Sum.
  std::vector<std::string> text;
};

struct SpotRecord : JobRecord {
  std::string position;  // "Quadrant1" .. "Quadrant4", "SpotBehindObscuration", "NoSignificantSpot", ...
  int positionCode = 0;
  std::string explanation;  // what the position means for the person at the instrument
  double saturation = 0.0;  // the saturation level used
  std::vector<SpotFound> spots;
  std::vector<std::pair<std::string, std::string>> properties;  // every result property, as text
};

// SpotJob
//
// The alignment spot in a camera image, relative to a reticle centre: the square of half-width
// `radius` around the centre is searched outside the obscuration; the position is the spot's
// quadrant, or why there is none (too many spots, behind the obscuration, clipped). A failed
// detection is no result.
class QUARN_PP_EXPORT SpotJob {
 public:
  SpotRecord Run(Core::IntMatrix2D& image, int bitsPerSample, const SpotOptions& options,
                 const std::string& name);
  const Metrology::PhaseProcessing::Core::Alignment::AlignSpotDetector& GetDetector() const {
    return detector_;
  }

  // The saturation level when none is given: 250 counts for 8-bit cameras, the same fraction of full
  // scale (250 / 255) for deeper ones, e.g. 64250 for 16 bits.
  static double DefaultSaturation(int bitsPerSample);

 private:
  Metrology::PhaseProcessing::Core::Alignment::AlignSpotDetector detector_;
};

// The job on a host image (rows x columns of 8- or 16-bit samples).
QUARN_PP_EXPORT SpotRecord RunSpot(const ArrayView& image, const SpotOptions& options);

}  // namespace Quarn::Jobs
