#include "Synthetic/SyntheticFilm.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "Analysis/Core/Fft1DReal.h"

namespace Quarn::Testing {

using cd = std::complex<double>;

FilmSignalModel::FilmSignalModel(const FilmSettings& settings) : settings_(settings) {
  // The band where the Gaussian exceeds the cut-off: centre ± width · sqrt(2 ln(1 / cutoff)).
  const double half = settings.sourceWidthRadPerUm * std::sqrt(2.0 * std::log(1.0 / settings.sourceCutoff));
  const double kLow = settings.sourceCentreRadPerUm - half, kHigh = settings.sourceCentreRadPerUm + half;
  const double betaMax = std::asin(settings.numericalAperture);
  double total = 0.0;
  for (int i = 0; i < settings.kSamples; ++i) {
    const double k = kLow + (kHigh - kLow) * i / (settings.kSamples - 1);
    const double x = (k - settings.sourceCentreRadPerUm) / settings.sourceWidthRadPerUm;
    const double s = std::exp(-0.5 * x * x);
    for (int b = 0; b < settings.betaSamples; ++b) {
      const double beta = betaMax * (b + 0.5) / settings.betaSamples;
      const double w = std::sin(beta) * std::cos(beta);
      k_.push_back(k);
      beta_.push_back(beta);
      weight_.push_back(s * w);
      total += s * w;
    }
  }
  for (double& w : weight_)
    w /= total;
}

cd FilmSignalModel::Reflection(double k, double beta, double thicknessUm) const {
  const double lambda = 2.0 * std::numbers::pi / k;
  const cd n0 = 1.0;
  const cd n1 = settings_.filmCauchyA + settings_.filmCauchyB / (lambda * lambda);
  const cd n2 = settings_.substrate;
  const cd sin0 = std::sin(beta);
  const cd cos0 = std::cos(beta);
  const cd cos1 = std::sqrt(1.0 - sin0 * sin0 / (n1 * n1));
  const cd cos2 = std::sqrt(1.0 - sin0 * sin0 / (n2 * n2));
  const cd phase = std::exp(cd(0.0, 2.0) * k * n1 * cos1 * thicknessUm);
  auto airy = [&](cd e0, cd e1, cd e2) {
    const cd r01 = (e0 - e1) / (e0 + e1), r12 = (e1 - e2) / (e1 + e2);
    return (r01 + r12 * phase) / (1.0 + r01 * r12 * phase);
  };
  const cd rs = airy(n0 * cos0, n1 * cos1, n2 * cos2);
  const cd rp = airy(n0 / cos0, n1 / cos1, n2 / cos2);
  return 0.5 * (rs + rp);
}

void FilmSignalModel::AddSignal(double thicknessUm, double heightUm, double zeta0Um, double stepUm, int n,
                                double* out) const {
  for (std::size_t i = 0; i < k_.size(); ++i) {
    const double q = 2.0 * k_[i] * std::cos(beta_[i]);
    const cd a = weight_[i] * (thicknessUm < 0.0 ? cd(1.0) : Reflection(k_[i], beta_[i], thicknessUm));
    cd e = a * std::polar(1.0, q * (zeta0Um - heightUm));
    const cd rotation = std::polar(1.0, q * stepUm);
    for (int j = 0; j < n; ++j) {
      out[j] += e.real();
      e *= rotation;
    }
  }
}

void FilmSignalModel::LibraryMatrix(double fromUm, double stepUm, int count, int samples, double scanStepUm,
                                    Core::DoubleMatrix2D& out) const {
  const int bins = samples / 2 + 1;
  out.Resize(count, 2 * bins);
  Core::Fft1DReal fft(samples);
  for (int r = 0; r < count; ++r) {
    std::fill(fft.Input(), fft.Input() + samples, 0.0);
    AddSignal(fromUm + r * stepUm, 0.0, -(samples / 2) * scanStepUm, scanStepUm, samples, fft.Input());
    fft.Forward();
    for (int j = 0; j < bins; ++j) {
      out(r, 2 * j) = fft.Output()[j].real();
      out(r, 2 * j + 1) = fft.Output()[j].imag();
    }
  }
}

void FilmSignalModel::PerfectMirror(int samples, double scanStepUm, Core::Array<cd>& out) const {
  Core::Fft1DReal fft(samples);
  std::fill(fft.Input(), fft.Input() + samples, 0.0);
  AddSignal(-1.0, 0.0, -(samples / 2) * scanStepUm, scanStepUm, samples, fft.Input());
  fft.Forward();
  out.Resize(samples / 2 + 1);
  for (int j = 0; j < samples / 2 + 1; ++j)
    out[j] = fft.Output()[j];
}

bool RecordFilmScan(const FilmSignalModel& model, const FilmScanSettings& settings,
                    const Core::DoubleMatrix2D& thicknessUm, const Core::DoubleMatrix2D& heightUm,
                    SeededRandom* random, Core::FrameBuffer& frames) {
  if (!frames.Allocate(Core::Window2D(0, 0, settings.rows, settings.cols), settings.frames,
                       Core::FrameBuffer::kRes16Bit))
    return false;
  std::vector<double> trace(static_cast<std::size_t>(settings.frames));
  const double zeta0 = -(settings.frames / 2) * settings.scanStepUm;
  for (int r = 0; r < settings.rows; ++r) {
    for (int c = 0; c < settings.cols; ++c) {
      std::fill(trace.begin(), trace.end(), 0.0);
      model.AddSignal(thicknessUm(r, c), heightUm(r, c), zeta0, settings.scanStepUm, settings.frames,
                      trace.data());
      double peak = 0.0;
      for (double v : trace)
        peak = std::max(peak, std::abs(v));
      const double sigma = settings.noiseFraction * peak * settings.gain;
      const int pixel = r * settings.cols + c;
      for (int j = 0; j < settings.frames; ++j) {
        double v = settings.bias + settings.gain * trace[static_cast<std::size_t>(j)];
        if (random && sigma > 0.0) v += random->Normal(sigma);
        frames.GetFrame<std::uint16_t>(j)[pixel] =
            static_cast<std::uint16_t>(std::clamp(std::round(v), 0.0, 65535.0));
      }
    }
  }
  return true;
}

bool RecordScanFromSpectra(const Core::DoubleMatrix2D& spectra, int rows, int cols,
                           const std::function<int(int, int)>& signalOf,
                           const std::function<double(int, int)>& heightFrames, double bias, double gain,
                           double noiseFraction, SeededRandom* random, Core::FrameBuffer& frames) {
  const int bins = spectra.GetColumns() / 2;
  const int n = 2 * (bins - 1);
  if (!frames.Allocate(Core::Window2D(0, 0, rows, cols), n, Core::FrameBuffer::kRes16Bit)) return false;
  // The bins that carry signal in any row (outside the source's band the spectra are zero).
  std::vector<int> band;
  for (int m = 1; m < bins - 1; ++m) {
    bool used = false;
    for (int r = 0; r < spectra.GetRows() && !used; ++r)
      used = spectra(r, 2 * m) != 0.0 || spectra(r, 2 * m + 1) != 0.0;
    if (used) band.push_back(m);
  }
  std::vector<cd> turn(static_cast<std::size_t>(n));
  for (int k = 0; k < n; ++k)
    turn[static_cast<std::size_t>(k)] = std::polar(1.0, 2.0 * std::numbers::pi * k / n);
  std::vector<double> trace(static_cast<std::size_t>(n));
  std::vector<cd> moved(band.size());
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      const int s = signalOf(r, c);
      const double h = heightFrames(r, c);
      for (std::size_t b = 0; b < band.size(); ++b) {
        const int m = band[b];
        moved[b] = cd(spectra(s, 2 * m), spectra(s, 2 * m + 1)) *
                   std::polar(2.0 / n, -2.0 * std::numbers::pi * m * h / n);
      }
      double peak = 0.0;
      for (int j = 0; j < n; ++j) {
        double v = 0.0;
        for (std::size_t b = 0; b < band.size(); ++b)
          v += (moved[b] * turn[static_cast<std::size_t>((band[b] * j) % n)]).real();
        trace[static_cast<std::size_t>(j)] = v;
        peak = std::max(peak, std::abs(v));
      }
      const double sigma = noiseFraction * peak * gain;
      for (int j = 0; j < n; ++j) {
        double v = bias + gain * trace[static_cast<std::size_t>(j)];
        if (random && sigma > 0.0) v += random->Normal(sigma);
        frames.GetFrame<std::uint16_t>(j)[r * cols + c] =
            static_cast<std::uint16_t>(std::clamp(std::round(v), 0.0, 65535.0));
      }
    }
  }
  return true;
}

}  // namespace Quarn::Testing
