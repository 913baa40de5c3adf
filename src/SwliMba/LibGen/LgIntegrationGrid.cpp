#include "SwliMba/LibGen/LgIntegrationGrid.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "Analysis/Core/NoData.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "SwliMba\\LibGen\\LibraryGenerator";
constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kSpanWidths = 7.0;
constexpr double kCoherenceMargin = 8.0;

// Gauss-Legendre nodes and weights on [−1, 1] by Newton's iteration on P_n from Chebyshev guesses.
void GaussLegendre(int n, std::vector<double>& x, std::vector<double>& w) {
  x.assign(n, 0.0);
  w.assign(n, 0.0);
  for (int i = 0; i < n; ++i) {
    double z = std::cos(kPi * (i + 0.75) / (n + 0.5));
    double dp = 1.0;
    for (int iteration = 0; iteration < 100; ++iteration) {
      double p0 = 1.0, p1 = z;
      for (int k = 2; k <= n; ++k) {
        const double p2 = ((2 * k - 1) * z * p1 - (k - 1) * p0) / k;
        p0 = p1;
        p1 = p2;
      }
      dp = n * (z * p1 - p0) / (z * z - 1.0);
      const double dz = p1 / dp;
      z -= dz;
      if (std::fabs(dz) < 1e-16) break;
    }
    x[n - 1 - i] = z;  // ascending
    w[n - 1 - i] = 2.0 / ((1.0 - z * z) * dp * dp);
  }
}

Status Fail(unsigned line, const std::string& message) {
  return Status(0, StatusCode::kNotSet, line, kSource, message);
}
}  // namespace

bool LgIntegrationGrid::Build(LibDef::SystemModel& system, const LgGridRequest& request,
                              const Settings& settings, Status& status) {
  settings_ = settings;
  const LibDef::Source& source = system.GetSource();
  const int gaussians = source.GetNumberOfGaussians();
  if (gaussians < 1) {
    status = Fail(__LINE__, "The source has no Gaussians");
    return false;
  }
  double minCentre = Analysis::Core::kNoDataDouble, minWidth = Analysis::Core::kNoDataDouble;
  kLo_ = Analysis::Core::kNoDataDouble;
  kHi_ = 0.0;
  for (int i = 0; i < gaussians; ++i) {
    double a = 0, c = 0, w = 0;
    source.GetGaussian(i, a, c, w);
    if (!(c > 0.0) || !(w > 0.0) || !(a >= 0.0) || !std::isfinite(a) || !std::isfinite(c) ||
        !std::isfinite(w)) {
      status = Fail(__LINE__, "Source Gaussian " + std::to_string(i) +
                                  " needs a positive centre and width and a non-negative amplitude");
      return false;
    }
    minCentre = std::min(minCentre, c);
    minWidth = std::min(minWidth, w);
    kLo_ = std::min(kLo_, c - kSpanWidths * w);
    kHi_ = std::max(kHi_, c + kSpanWidths * w);
  }
  kLo_ = std::max(kLo_, 0.01 * minCentre);

  int echoes = 2;
  if (request.echoRatio > 0.0 && request.echoRatio < 1.0) {
    echoes = std::clamp(1 + static_cast<int>(std::ceil(std::log(1e-7) / std::log(request.echoRatio))), 2, 16);
  } else if (request.echoRatio >= 1.0) {
    echoes = 16;
  }
  const double period = 0.5 * request.samples * request.stepUm + request.maxTopOffsetUm +
                        echoes * request.maxOpticalDepthUm + kCoherenceMargin / (2.0 * minWidth);
  const double dk = kPi / (request.ambientIndex * period) / std::max(settings.oversampling, 1e-3);
  const int nk = std::max(3, static_cast<int>(std::ceil((kHi_ - kLo_) / dk)) + 1);
  wavenumbers_.resize(nk);
  sourceWeights_.resize(nk);
  for (int i = 0; i < nk; ++i) {
    wavenumbers_[i] = kLo_ + i * (kHi_ - kLo_) / (nk - 1);
    sourceWeights_[i] = source.IntensityAtWavenumber(wavenumbers_[i]);
  }
  const double sourceSum = std::accumulate(sourceWeights_.begin(), sourceWeights_.end(), 0.0);
  if (!(sourceSum > 0.0)) {
    status = Fail(__LINE__, "The source spectrum is zero");
    return false;
  }
  for (double& s : sourceWeights_)
    s /= sourceSum;

  // Angular nodes.
  const double na = system.GetNumericalAperture();
  if (!(na >= 0.0 && na < 1.0)) {
    status = Fail(__LINE__, "The numerical aperture must lie in [0, 1)");
    return false;
  }
  LibDef::PupilRollOff& rollOff = system.GetPupilRollOff();
  const bool useRollOff = !rollOff.IsUnset();
  betaMax_ = std::asin(na);
  breakpoints_.assign(1, 0.0);
  std::vector<double> nodeWeight;
  if (na == 0.0) {
    nodesPerInterval_ = 1;
    angles_.assign(1, 0.0);
    cosines_.assign(1, 1.0);
    nodeWeight.assign(1, useRollOff ? rollOff.Model(0.0) : 1.0);
  } else {
    if (useRollOff) {
      Analysis::Core::Array<double> transitions;
      rollOff.GetTransitions(betaMax_, transitions);
      for (double t : transitions) {
        if (t > 0.0 && t < betaMax_) breakpoints_.push_back(t);
      }
    }
    breakpoints_.push_back(betaMax_);
    std::sort(breakpoints_.begin(), breakpoints_.end());
    breakpoints_.erase(std::unique(breakpoints_.begin(), breakpoints_.end()), breakpoints_.end());
    int n = settings.nodesPerInterval;
    if (n <= 0) {
      double widest = 0.0;
      for (std::size_t b = 0; b + 1 < breakpoints_.size(); ++b)
        widest = std::max(widest, 0.5 * (std::cos(breakpoints_[b]) - std::cos(breakpoints_[b + 1])));
      const double reach =
          0.5 * request.samples * request.stepUm + request.maxTopOffsetUm + 2.0 * request.maxOpticalDepthUm;
      const double ah = 2.0 * kHi_ * request.ambientIndex * reach * widest;
      // log of (a h)^(2n) (n!)^4 / ((2n + 1) ((2n)!)^3), which falls with n once n exceeds a h.
      n = 3;
      while (n < 64 && 2 * n * std::log(std::max(ah, 1e-300)) + 4 * std::lgamma(n + 1.0) -
                               std::log(2.0 * n + 1) - 3 * std::lgamma(2.0 * n + 1) >
                           std::log(1e-12))
        ++n;
    }
    nodesPerInterval_ = n;
    std::vector<double> x, w;
    GaussLegendre(n, x, w);
    angles_.clear();
    cosines_.clear();
    for (std::size_t b = 0; b + 1 < breakpoints_.size(); ++b) {
      const double uHi = std::cos(breakpoints_[b]);
      const double uLo = std::cos(breakpoints_[b + 1]);
      const double half = 0.5 * (uHi - uLo);
      const double mid = 0.5 * (uHi + uLo);
      for (int i = 0; i < n; ++i) {
        const double u = mid + half * x[i];
        cosines_.push_back(u);
        angles_.push_back(std::acos(u));
        nodeWeight.push_back(half * w[i] * u * (useRollOff ? rollOff.Model(std::acos(u)) : 1.0));
      }
    }
  }

  const int na_ = NumberOfAngles();
  weightS_.assign(static_cast<std::size_t>(nk) * na_, 0.0);
  weightP_.assign(weightS_.size(), 0.0);
  instrument_.assign(weightS_.size(), 1.0);
  LibDef::PupilIntensity& pupil = system.GetPupilIntensity();
  const bool usePupil = pupil.GetNumberOfModels() > 0;
  const bool linear = system.GetPolarization() == LibDef::PolarizationType::LinearlyPolarized;
  const int azimuths = std::max(1, settings.azimuthNodes);
  const LibDef::Tau& tau = system.GetTau();
  const LibDef::Dispersion& dispersion = system.GetDispersion();
  const bool useTau = !tau.IsIdentity();
  const bool useDispersion = !dispersion.IsZero();
  for (int i = 0; i < nk; ++i) {
    const double k = wavenumbers_[i];
    double sum = 0.0;
    for (int a = 0; a < na_; ++a) {
      const std::size_t node = static_cast<std::size_t>(i) * na_ + a;
      double s = 0.5, p = 0.5;
      if (usePupil) {
        double mean = 0.0, meanCos2 = 0.0, meanSin2 = 0.0;
        for (int l = 0; l < azimuths; ++l) {
          const double phi = kTwoPi * l / azimuths;
          const double intensity = pupil.Intensity(kTwoPi / k, angles_[a], phi);
          mean += intensity;
          meanCos2 += intensity * std::cos(phi) * std::cos(phi);
          meanSin2 += intensity * std::sin(phi) * std::sin(phi);
        }
        mean /= azimuths;
        meanCos2 /= azimuths;
        meanSin2 /= azimuths;
        s = linear ? meanSin2 : 0.5 * mean;
        p = linear ? meanCos2 : 0.5 * mean;
      }
      weightS_[node] = nodeWeight[a] * s;
      weightP_[node] = nodeWeight[a] * p;
      sum += weightS_[node] + weightP_[node];
      std::complex<double> factor = 1.0;
      if (useTau) factor *= tau.TransmissionRatio(k, angles_[a]);
      if (useDispersion) {
        const std::complex<double> gap =
            dispersion.NoThetaPhaseGap(k, angles_[a]) + dispersion.TwoThetaPhaseGap(k, angles_[a]);
        factor *= std::exp(std::complex<double>(0.0, 1.0) * gap);
      }
      instrument_[node] = factor;
    }
    if (!(sum > 0.0) || !std::isfinite(sum)) {
      status = Fail(__LINE__, "The pupil transmits no light");
      return false;
    }
    for (int a = 0; a < na_; ++a) {
      const std::size_t node = static_cast<std::size_t>(i) * na_ + a;
      weightS_[node] /= sum;
      weightP_[node] /= sum;
    }
  }
  return true;
}

std::string LgIntegrationGrid::Describe() const {
  char buffer[128];
  std::snprintf(buffer, sizeof buffer, "%.17g %.17g %d %d %d", kLo_, kHi_, NumberOfWavenumbers(),
                nodesPerInterval_, settings_.azimuthNodes);
  std::string text(buffer);
  for (double b : breakpoints_) {
    std::snprintf(buffer, sizeof buffer, " %.17g", b);
    text += buffer;
  }
  return text;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen
