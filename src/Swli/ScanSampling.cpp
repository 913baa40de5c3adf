#include "Swli/ScanSampling.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "Analysis/Core/SampleDispatch.h"
#include "Swli/PhaseAlgorithmFda.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

using Analysis::Core::FrameBuffer;
using Analysis::Core::IntMatrix2D;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Swli\\ScanSampling";
constexpr int kMaxMeasuredPixels = 256;
// The frequency-domain analysis's default band and the bin it is centred on.
constexpr int kDefaultFirstBin = 13;
constexpr int kDefaultLastBin = 21;
constexpr double kDefaultCentreBin = 17.0;
// The sampling the defaults are written for: 600 nm light at 80 nm steps.
constexpr double kDefaultPeriodFrames = 3.75;
// The centroid's measure at its least favourable fringe phase, as a share of its value at four frames
// per fringe, is sin^2(2 pi / P); from 3.5 to 4.7 frames per fringe it stays above 0.95 and the
// threshold is left as given (the sampling the threshold was written for, give or take half a frame).
const double kUnscaledShare = std::pow(std::sin(2.0 * std::numbers::pi / 3.5), 2);
}  // namespace

ScanSampling::ScanSampling() : status_(__LINE__, kSource) {}

void ScanSampling::SetFromWavelength(double wavelengthNm, double scanStepNm) {
  status_.ClearError();
  periodFrames_ = wavelengthNm > 0.0 && scanStepNm > 0.0 ? wavelengthNm / (2.0 * scanStepNm) : 0.0;
}

template <typename Stored>
bool ScanSampling::SumSpectra(const FrameBuffer& frames, const IntMatrix2D& peakFrames, int q,
                              double* power) {
  const int rows = frames.GetRows();
  const int cols = frames.GetColumns();
  const int scanned = frames.GetNumberOfFrames();
  const int h = q / 2;
  const double pixels = static_cast<double>(rows) * cols;
  const int stride = std::max(1, static_cast<int>(std::ceil(std::sqrt(pixels / kMaxMeasuredPixels))));
  std::vector<double> cosines(static_cast<std::size_t>(q) * h), sines(static_cast<std::size_t>(q) * h);
  for (int k = 0; k < h; ++k) {
    for (int j = 0; j < q; ++j) {
      const double angle = 2.0 * std::numbers::pi * static_cast<double>((j * k) % q) / q;
      cosines[static_cast<std::size_t>(k) * q + j] = std::cos(angle);
      sines[static_cast<std::size_t>(k) * q + j] = std::sin(angle);
    }
  }
  std::vector<double> signal(static_cast<std::size_t>(q));
  bool any = false;
  for (int r = stride / 2; r < rows; r += stride) {
    for (int c = stride / 2; c < cols; c += stride) {
      const int peak = peakFrames(r, c);
      if (peak < h || peak >= scanned - h) continue;
      const std::int64_t pixel = static_cast<std::int64_t>(r) * cols + c;
      double mean = 0.0;
      for (int j = 0; j < q; ++j) {
        signal[static_cast<std::size_t>(j)] =
            static_cast<double>(static_cast<const Stored*>(frames.GetFrameData(peak - h + j))[pixel]);
        mean += signal[static_cast<std::size_t>(j)];
      }
      mean /= q;
      // Bins 0 and 1 hold the background and its slope, not fringes.
      for (int k = 2; k < h; ++k) {
        const double* cosine = cosines.data() + static_cast<std::size_t>(k) * q;
        const double* sine = sines.data() + static_cast<std::size_t>(k) * q;
        double re = 0.0, im = 0.0;
        for (int j = 0; j < q; ++j) {
          const double s = signal[static_cast<std::size_t>(j)] - mean;
          re += s * cosine[j];
          im += s * sine[j];
        }
        power[k] += re * re + im * im;
      }
      any = true;
    }
  }
  return any;
}

Status& ScanSampling::Measure(const FrameBuffer& frames, const IntMatrix2D& peakFrames) {
  status_.ClearError();
  periodFrames_ = 0.0;
  const int scanned = frames.GetNumberOfFrames();
  if (frames.IsRing() || scanned <= 64) {
    status_ = Status(0, StatusCode::kNotSet, __LINE__, kSource,
                     "Measuring the fringe period needs a whole scan of more than 64 frames");
    return status_;
  }
  if (peakFrames.GetRows() != frames.GetRows() || peakFrames.GetColumns() != frames.GetColumns()) {
    status_ = Status(0, StatusCode::kPeakFrameMismatch, __LINE__, kSource,
                     "The peak-frame matrix must cover the frame window");
    return status_;
  }
  const int q = scanned > 128 ? 128 : 64;
  std::vector<double> power(static_cast<std::size_t>(q / 2 + 1), 0.0);
  const bool any =
      Analysis::Core::DispatchSampleType(frames, [&]<typename Stored>(Analysis::Core::SampleTag<Stored>) {
        return SumSpectra<Stored>(frames, peakFrames, q, power.data());
      });
  const int strongest =
      static_cast<int>(std::max_element(power.begin() + 2, power.end() - 1) - power.begin());
  if (!any || !(power[static_cast<std::size_t>(strongest)] > 0.0)) {
    status_ = Status(0, StatusCode::kNoValidResult, __LINE__, kSource,
                     "No pixel shows fringes to measure the fringe period from");
    return status_;
  }
  // The summed power of fringes under a Gaussian envelope is a Gaussian in the bin number (the
  // light's spectrum), so a parabola through the logarithms of the three powers around the strongest
  // finds its centre without the pull towards the nearest bin that a parabola through the powers
  // has on a peak only a few bins wide. Bin 1 is not summed: a peak at bin 2 stays there.
  double k0 = strongest;
  const double below = power[static_cast<std::size_t>(strongest - 1)];
  const double centre = power[static_cast<std::size_t>(strongest)];
  const double above = power[static_cast<std::size_t>(strongest + 1)];
  if (strongest > 2 && below > 0.0 && above > 0.0) {
    const double a = std::log(below), b = std::log(centre), c = std::log(above);
    const double curvature = a + c - 2.0 * b;
    if (curvature < 0.0) k0 += (a - c) / (2.0 * curvature);
  }
  periodFrames_ = q / k0;
  return status_;
}

void ScanSampling::FdaBand(int signalSize, int& firstBin, int& lastBin) const {
  if (!IsKnown()) {
    firstBin = kDefaultFirstBin;
    lastBin = kDefaultLastBin;
    return;
  }
  const double k0 = signalSize / periodFrames_;
  const int highest = signalSize / 2 - 2;
  firstBin = static_cast<int>(std::lround(k0 * kDefaultFirstBin / kDefaultCentreBin));
  lastBin = static_cast<int>(std::lround(k0 * kDefaultLastBin / kDefaultCentreBin));
  // At least one bin on each side of the fringes' own.
  const int centre = static_cast<int>(std::lround(k0));
  firstBin = std::clamp(std::min(firstBin, centre - 1), 1, highest - 2);
  lastBin = std::clamp(std::max(lastBin, centre + 1), firstBin + 2, highest);
}

int ScanSampling::SubsampleFactor(int framesScanned) const {
  if (!IsKnown()) return 1;
  const int wanted = static_cast<int>(std::lround(periodFrames_ / kDefaultPeriodFrames));
  return std::max(1, std::min(wanted, framesScanned / 65));
}

void ScanSampling::ApplyTo(PhaseAlgorithmFda& fda) const {
  int first = 0, last = 0;
  FdaBand(fda.GetExpectedSignalSize() == 128 ? 128 : 64, first, last);
  fda.SetBand(first, last);
}

double ScanSampling::ScaledMinimumModulation(double percent) const {
  if (!IsKnown() || periodFrames_ < 2.0) return percent;
  const double s = std::sin(2.0 * std::numbers::pi / periodFrames_);
  return percent * std::min(1.0, s * s / kUnscaledShare);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli
