#pragma once

#include <array>
#include <string>
#include <utility>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Jobs/JobData.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Jobs {

// Four-quadrant options, with the tool's defaults.
struct QuadrantsOptions {
  double toleranceNm = 10.0;  // astigmatism PV of the Q1 + Q3 result from which four are required
  double wavelengthNm = 0.0;  // > 0: the maps hold phase in radians of this wavelength; 0: heights in nm
};

struct QuadrantsRecord : JobRecord {
  int quadrants = 2;
  bool combined = false;  // the final map was made (it may still have no valid pixel)
  bool twoPvAvailable = false;
  double twoPvNm = 0.0;       // astigmatism PV of the Q1 + Q3 result
  std::string twoPvReason;    // why it is unavailable
  bool fourRequired = false;  // four quadrants are required at the tolerance
  bool fourPvAvailable = false;
  double fourPvNm = 0.0;  // astigmatism PV of the four-quadrant map
  std::string fourPvReason;
};

// QuadrantsJob
//
// Combines phase maps measured with the carrier lobe in quadrants 1 and 3 (or all four): the final
// map, the calibration map ((Q1 - Q3) / 2 for two quadrants, Q2 - final for four), the astigmatism
// PV of the Q1 + Q3 result and whether four quadrants are required at the tolerance, and with four
// maps the PV of the four-quadrant map. A PV that cannot be fitted is unavailable with the reason;
// the map is still made. `validFraction` is the final map's.
class QUARN_PP_EXPORT QuadrantsJob {
 public:
  // maps[k] and names[k] for quadrant k = 1 .. 4 (maps[2] and maps[4] null for two quadrants). The
  // maps' value units are set here from the options.
  QuadrantsRecord Run(const std::array<Core::DoubleMatrix2D*, 5>& maps,
                      const std::array<std::string, 5>& names, const QuadrantsOptions& options);
  const Core::DoubleMatrix2D& GetFinal() const { return four_ ? fourFinal_ : twoFinal_; }
  const Core::DoubleMatrix2D& GetCalibration() const { return four_ ? fourCalibration_ : twoCalibration_; }
  // The maps moved out of the job, for a host that keeps them without a copy (no data still the
  // library's; `NoDataToNan` converts in place).
  Core::DoubleMatrix2D TakeFinal() { return std::move(four_ ? fourFinal_ : twoFinal_); }
  Core::DoubleMatrix2D TakeCalibration() { return std::move(four_ ? fourCalibration_ : twoCalibration_); }

 private:
  bool four_ = false;
  Core::DoubleMatrix2D twoFinal_, twoCalibration_, fourFinal_, fourCalibration_;
};

// The job on host maps (2-D, float or integer; NaN = no data). `q2` and `q4` go together (both or
// neither data null). `calibration` is filled when not empty.
QUARN_PP_EXPORT QuadrantsRecord RunQuadrants(const ArrayView& q1, const ArrayView& q3, const ArrayView& q2,
                                             const ArrayView& q4, const QuadrantsOptions& options,
                                             const MapView& final, const MapView& calibration = {});

}  // namespace Quarn::Jobs
