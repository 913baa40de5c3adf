#include "Swli/PhaseAlgorithmCentroid.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Analysis/Core/DebugChannel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

namespace {
constexpr const char* kSource = "Swli\\PhaseAlgorithmCentroid";

// The envelope's sums over one signal: sum |d[k-1] - mean| and sum k |d[k-1] - mean|, k = 1 .. q.
// Four partial sums each, so that the additions of one sum do not wait for one another: lane j of
// each sum takes the samples k = j, j + 4, ... The lanes are written as one vector of four doubles;
// a processor with AVX2 runs it as one instruction (a second version of the function, chosen at load
// time), others as two SSE2 halves. Either way every lane makes the same additions in the same
// order as four scalar sums would, so the results do not depend on the version. The samples are
// integers, so the mean is exact in any order.
// The plain reference: the same four partial sums, one scalar at a time.
void EnvelopeSumsPlain(const double* d, int q, double& sumOut, double& momentOut) {
  double partialMean[4] = {0.0, 0.0, 0.0, 0.0};
  int k = 0;
  for (; k + 4 <= q; k += 4) {
    for (int lane = 0; lane < 4; ++lane)
      partialMean[lane] += d[k + lane];
  }
  for (; k < q; ++k)
    partialMean[0] += d[k];
  const double mean = ((partialMean[0] + partialMean[1]) + (partialMean[2] + partialMean[3])) / q;
  double partialSum[4] = {0.0, 0.0, 0.0, 0.0}, partialMoment[4] = {0.0, 0.0, 0.0, 0.0};
  k = 1;  // one-based positions
  for (; k + 3 <= q; k += 4) {
    for (int lane = 0; lane < 4; ++lane) {
      const double weight = std::abs(d[k - 1 + lane] - mean);
      partialSum[lane] += weight;
      partialMoment[lane] += (k + lane) * weight;
    }
  }
  for (; k <= q; ++k) {
    const double weight = std::abs(d[k - 1] - mean);
    partialSum[0] += weight;
    partialMoment[0] += k * weight;
  }
  sumOut = (partialSum[0] + partialSum[1]) + (partialSum[2] + partialSum[3]);
  momentOut = (partialMoment[0] + partialMoment[1]) + (partialMoment[2] + partialMoment[3]);
}

using Lanes = double __attribute__((vector_size(32)));
using LaneBits = long long __attribute__((vector_size(32)));

// The vector body, inlined into one copy built for AVX2 and one for the baseline, so that the same
// arithmetic runs at either width (no FMA in either: the sums stay equal to the scalar reference).
[[gnu::always_inline]] inline void EnvelopeSumsBody(const double* d, int q, double& sumOut,
                                                    double& momentOut) {
  Lanes partialMean = {0.0, 0.0, 0.0, 0.0};
  int k = 0;
  for (; k + 4 <= q; k += 4) {
    Lanes x;
    std::memcpy(&x, d + k, sizeof x);
    partialMean += x;
  }
  for (; k < q; ++k)
    partialMean[0] += d[k];
  const double mean = ((partialMean[0] + partialMean[1]) + (partialMean[2] + partialMean[3])) / q;
  const LaneBits noSign = {0x7fffffffffffffffLL, 0x7fffffffffffffffLL, 0x7fffffffffffffffLL,
                           0x7fffffffffffffffLL};
  Lanes partialSum = {0.0, 0.0, 0.0, 0.0}, partialMoment = {0.0, 0.0, 0.0, 0.0};
  Lanes position = {1.0, 2.0, 3.0, 4.0};  // one-based positions k + lane
  k = 1;
  for (; k + 3 <= q; k += 4) {
    Lanes x;
    std::memcpy(&x, d + k - 1, sizeof x);
    const Lanes weight = reinterpret_cast<Lanes>(reinterpret_cast<LaneBits>(x - mean) & noSign);
    partialSum += weight;
    partialMoment += position * weight;
    position += 4.0;
  }
  for (; k <= q; ++k) {
    const double weight = std::abs(d[k - 1] - mean);
    partialSum[0] += weight;
    partialMoment[0] += k * weight;
  }
  sumOut = (partialSum[0] + partialSum[1]) + (partialSum[2] + partialSum[3]);
  momentOut = (partialMoment[0] + partialMoment[1]) + (partialMoment[2] + partialMoment[3]);
}

[[gnu::target("avx2")]] void EnvelopeSumsAvx2(const double* d, int q, double& sumOut, double& momentOut) {
  EnvelopeSumsBody(d, q, sumOut, momentOut);
}

void EnvelopeSumsBaseline(const double* d, int q, double& sumOut, double& momentOut) {
  EnvelopeSumsBody(d, q, sumOut, momentOut);
}

// Chosen once when the library is loaded (QUARN_SWLI_ISA=sse2 keeps the baseline, as for the peak
// finder, so that tests reach it on any machine). An explicit pointer rather than the compiler's
// target_clones: those resolve through an ifunc while the dynamic linker relocates the library,
// before a sanitizer runtime has started, which crashes ThreadSanitizer builds.
using EnvelopeSumsFunction = void (*)(const double*, int, double&, double&);
EnvelopeSumsFunction SelectEnvelopeSums() {
  const char* cap = std::getenv("QUARN_SWLI_ISA");
  const bool allowAvx2 = !cap || std::strcmp(cap, "sse2") != 0;
  __builtin_cpu_init();
  return allowAvx2 && __builtin_cpu_supports("avx2") ? &EnvelopeSumsAvx2 : &EnvelopeSumsBaseline;
}
const EnvelopeSumsFunction EnvelopeSums = SelectEnvelopeSums();
}  // namespace

PhaseAlgorithmCentroid::PhaseAlgorithmCentroid() : PhaseAlgorithm(__LINE__, kSource) {}

PhaseAlgorithmCentroid::~PhaseAlgorithmCentroid() = default;

void PhaseAlgorithmCentroid::Initialize(int pass, int numberFrames, int qSize,
                                        const Analysis::Core::Window2D& window) {
  PhaseAlgorithm::Initialize(pass, numberFrames, qSize, window);
  modulationThreshold_ = minimumModulation_ * 2.0 * maxScanValue_ / 100.0;
}

int PhaseAlgorithmCentroid::ProcessPixel(int thread, int pixel, int peakFrame, int) {
  const double* d = SignalOf(thread);
  const int q = signalSize_;
  const int h = halfSignalSize_;
  const int frames = numberFrames_;
  if (!d || q < 5 || peakFrame < h || peakFrame >= frames - h) return RemoveFringes(thread, pixel, peakFrame);

  // A window cut around the peak has the peak at its centre; a whole-scan signal has it where it is.
  const bool windowed = frames != q;
  const int c = windowed ? h : peakFrame;
  const double m = std::abs((d[c] - d[c - 2]) + (d[c] - d[c + 2])) + std::abs(2.0 * (d[c - 1] - d[c + 1]));
  if (modulationThreshold_ <= m) {
    double sum = 0.0, moment = 0.0;
    if (useFastPath_) {
      EnvelopeSums(d, q, sum, moment);
    } else {
      EnvelopeSumsPlain(d, q, sum, moment);
    }
    if (sum > 0.0) {
      double position = moment / sum + 1.0;
      if (windowed) position += peakFrame - h - 1;
      surface_->At(pixel) = position * scanIncrementValue_;
      if (IsDebuging(thread)) {
        Analysis::Core::debug_printf(
            "Centroid pixel %d: peak %d, modulation %g, position %g frames, height %g nm\n", pixel, peakFrame,
            m, position, position * scanIncrementValue_);
      }
    }
  } else if (IsDebuging(thread)) {
    Analysis::Core::debug_printf("Centroid pixel %d: peak %d, modulation %g below %g\n", pixel, peakFrame, m,
                                 modulationThreshold_);
  }
  return RemoveFringes(thread, pixel, peakFrame);
}

void PhaseAlgorithmCentroid::PostProcess() {}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli
