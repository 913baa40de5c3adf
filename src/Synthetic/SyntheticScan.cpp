#include "Synthetic/SyntheticScan.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "Synthetic/SampleStore.h"

namespace Quarn::Testing {

using Core::FrameBuffer;

double CoherenceLengthNm(const ScanLight& light) {
  // FWHM of exp(-(pi dsigma x)^2 / (4 ln 2)) in path is 4 ln 2 / (pi dsigma); the scan moves half as far.
  const double dsigma = light.bandwidthNm / (light.centreWavelengthNm * light.centreWavelengthNm);
  return 2.0 * std::numbers::ln2 / (std::numbers::pi * dsigma);
}

int TruePeakFrame(const ScanSettings& settings, double heightNm) {
  const int frame = static_cast<int>(std::lround(heightNm / settings.scanStepNm));
  return settings.scanDirection < 0 ? settings.framesScanned - frame : frame;
}

double SphereWithStepNm(int row, int col) {
  const double x = col - 16.0, y = row - 12.0;
  return 8000.0 + 0.6 * (x * x + y * y) + (col >= 20 ? 300.0 : 0.0);
}

bool MakeDiscriminatedScan(DiscriminatedScan& scan, const ScanSettings& settings,
                           const std::function<double(int row, int col)>& heightNm, std::uint64_t seed) {
  scan.settings = settings;
  if (!scan.peaks.Resize(0, 0, settings.rows, settings.cols) ||
      !scan.auxiliary.Resize(0, 0, settings.rows, settings.cols)) {
    return false;
  }
  scan.auxiliary.SetAll(0);
  ScanSettings forward = settings;
  forward.scanDirection = 1;
  for (int r = 0; r < settings.rows; ++r) {
    for (int c = 0; c < settings.cols; ++c) {
      const int peak = TruePeakFrame(forward, heightNm(r, c)) + (r + 2 * c) % 5 - 2;
      scan.peaks(r, c) = settings.scanDirection < 0 ? settings.framesScanned - peak : peak;
    }
  }
  SeededRandom random(seed);
  return MakeSyntheticScan(scan.frames, settings, heightNm, &random, &scan.peaks);
}

bool MakeSyntheticScan(FrameBuffer& frames, const ScanSettings& settings,
                       const std::function<double(int row, int col)>& heightNm, SeededRandom* random,
                       const Core::IntMatrix2D* ringCentres) {
  const int scanned = settings.framesScanned;
  const int stored = settings.framesStored > 0 ? settings.framesStored : scanned;
  const bool ring = stored != scanned;
  if (ring &&
      (!ringCentres || ringCentres->GetCount() < static_cast<std::int64_t>(settings.rows) * settings.cols)) {
    return false;
  }
  if (!frames.Allocate(Core::Window2D(0, 0, settings.rows, settings.cols), scanned, settings.resolution,
                       stored, settings.scanDirection)) {
    return false;
  }
  const double dsigma =
      settings.light.bandwidthNm / (settings.light.centreWavelengthNm * settings.light.centreWavelengthNm);
  const double envelopeFactor =
      (std::numbers::pi * dsigma) * (std::numbers::pi * dsigma) / (4.0 * std::numbers::ln2);
  const double twoPiSigma0 = 2.0 * std::numbers::pi / settings.light.centreWavelengthNm;
  // Beyond three envelope widths the fringe term is below 1e-9 counts: it is not computed there.
  const double reachNm = 3.0 * CoherenceLengthNm(settings.light);
  const auto intensity = [&](double heightNm, double zNm) {
    const double x = 2.0 * (zNm - heightNm);
    if (std::abs(zNm - heightNm) > reachNm) return settings.biasCounts;
    return settings.biasCounts + settings.modulationCounts * std::exp(-envelopeFactor * x * x) *
                                     std::cos(twoPiSigma0 * x + settings.reflectionPhaseRad);
  };
  const double maxValue = frames.GetMaxValue();
  const bool noisy = random && settings.noiseSigmaCounts > 0.0;
  const bool reversed = settings.scanDirection < 0;
  // Scan positions 0 .. F in steps: a forward scan uses 0 .. F-1, a reversed one 1 .. F. One noise
  // value is drawn per position, in position order, so both directions see the same noise.
  std::vector<double> samples(static_cast<std::size_t>(scanned) + 1);
  for (int r = 0; r < settings.rows; ++r) {
    for (int c = 0; c < settings.cols; ++c) {
      const std::size_t pixel =
          static_cast<std::size_t>(r) * static_cast<std::size_t>(settings.cols) + static_cast<std::size_t>(c);
      const double h = heightNm(r, c);
      for (int position = 0; position <= scanned; ++position) {
        double value = intensity(h, position * settings.scanStepNm);
        if (noisy) value += random->Normal(settings.noiseSigmaCounts);
        samples[static_cast<std::size_t>(position)] = std::clamp(std::round(value), 0.0, maxValue);
      }
      int firstKept = 0;
      if (ring) {
        const int centre = ringCentres->At(static_cast<std::int64_t>(pixel));
        firstKept =
            (centre >= stored / 2 && centre < scanned - stored / 2) ? centre - stored / 2 : scanned - stored;
      }
      for (int frame = firstKept; frame < firstKept + stored; ++frame) {
        const double value = samples[static_cast<std::size_t>(reversed ? scanned - frame : frame)];
        StoreSample(frames, frames.GetSlotOfFrame(frame), pixel, value);
      }
    }
  }
  return true;
}

}  // namespace Quarn::Testing
