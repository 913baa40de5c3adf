#include "SwliMba/Search/LsLibrary.h"

#include <cmath>
#include <new>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

LsLibrary::LsLibrary() : status_(__LINE__, kSource) {}

bool LsLibrary::Set(const Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c) {
  if (!matrix_.Resize(matrix.GetRows(), matrix.GetColumns())) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Call to signals.Resize failed");
    return false;
  }
  std::copy(matrix.Data(), matrix.Data() + matrix.GetCount(), matrix_.Data());
  signals_ = matrix.GetRows();
  bins_ = matrix.GetColumns() / 2;
  a_ = a;
  b_ = b;
  c_ = c;
  band_ = 0;
  return true;
}

bool LsLibrary::Prepare(int first, int last, int coreFirst, int coreLast) {
  band_ = last - first + 1;
  coreOffset_ = coreFirst - first;
  coreWidth_ = coreLast - coreFirst;
  const std::size_t n = static_cast<std::size_t>(signals_);
  const std::size_t w = static_cast<std::size_t>(band_);
  try {
    bandRows_.resize(n * w);
    bandNorms_.resize(n);
    features_.resize(n * (w - 1));
    magnitudes_.resize(n * w);
  } catch (const std::bad_alloc&) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of signal failed");
    band_ = 0;
    return false;
  }
  for (int s = 0; s < signals_; ++s) {
    const double* row = matrix_.Row(s);
    std::complex<double>* band = bandRows_.data() + s * w;
    double energy = 0.0;
    for (int k = 0; k < band_; ++k) {
      band[k] = {row[2 * (first + k)], row[2 * (first + k) + 1]};
      energy += std::norm(band[k]);
    }
    bandNorms_[static_cast<std::size_t>(s)] = std::sqrt(energy);

    std::complex<double>* feature = features_.data() + s * (w - 1);
    double featureEnergy = 0.0;
    for (int k = 0; k + 1 < band_; ++k) {
      feature[k] = band[k + 1] * std::conj(band[k]);
      featureEnergy += std::norm(feature[k]);
    }
    const double featureScale = featureEnergy > 0.0 ? 1.0 / std::sqrt(featureEnergy) : 0.0;
    for (int k = 0; k + 1 < band_; ++k)
      feature[k] = std::conj(feature[k]) * featureScale;

    double* magnitude = magnitudes_.data() + s * w;
    const double magnitudeScale = energy > 0.0 ? 1.0 / std::sqrt(energy) : 0.0;
    for (int k = 0; k < band_; ++k)
      magnitude[k] = std::abs(band[k]) * magnitudeScale;
  }

  const int stride = GetStride();
  const int values1 = (signals_ + stride - 1) / stride;
  try {
    coarseSignals_.clear();
    for (int i1 = 0; i1 < values1; i1 += kCoarseStride) {
      for (int i2 = 0; i2 < stride && i1 * stride + i2 < signals_; ++i2)
        coarseSignals_.push_back(i1 * stride + i2);
      if (i1 + kCoarseStride >= values1 && i1 != values1 - 1) i1 = values1 - 1 - kCoarseStride;
    }
    coarseFeatures_.resize(coarseSignals_.size() * 4 * static_cast<std::size_t>(coreWidth_));
  } catch (const std::bad_alloc&) {
    status_ = Status(0, StatusCode::kAllocationFailed, __LINE__, kSource, "Allocation of signal failed");
    band_ = 0;
    return false;
  }
  const std::size_t core = static_cast<std::size_t>(coreWidth_);
  for (std::size_t i = 0; i < coarseSignals_.size(); ++i) {
    const std::complex<double>* from = GetFeaturesConj(coarseSignals_[i]) + coreOffset_;
    double energy = 0.0;
    for (std::size_t k = 0; k < core; ++k)
      energy += std::norm(from[k]);
    const double scale = energy > 0.0 ? 1.0 / std::sqrt(energy) : 0.0;
    float* re = coarseFeatures_.data() + i * 4 * core;
    float* im = re + 2 * core;
    for (std::size_t k = 0; k < core; ++k) {
      const std::complex<double> l = from[k] * scale;
      re[k] = static_cast<float>(l.real());
      re[core + k] = static_cast<float>(-l.imag());
      im[k] = static_cast<float>(l.imag());
      im[core + k] = static_cast<float>(l.real());
    }
  }
  return true;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
