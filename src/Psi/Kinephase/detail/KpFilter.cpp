#include "Psi/Kinephase/detail/KpFilter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "Psi/Kinephase/KpQuadrant.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

KpFilterKernel::KpFilterKernel(const KpKernelSelector& kernel, int rows, int columns)
    : rows_(rows), columns_(columns) {
  const double p = kernel.GetPixelsPerFringe();
  const double fx = columns / p;
  const double fy = rows / p;
  switch (static_cast<int>(kernel.GetOrientation())) {
    case KpQuadrant::Quadrant1:
      cx_ = fx, cy_ = -fy;
      break;
    case KpQuadrant::Quadrant2:
      cx_ = -fx, cy_ = -fy;
      break;
    case KpQuadrant::Quadrant3:
      cx_ = -fx, cy_ = fy;
      break;
    case KpQuadrant::Quadrant4:
      cx_ = fx, cy_ = fy;
      break;
    default:
      break;
  }
  const double half = 1.0 / std::sqrt(2.0);
  ux_ = cx_ > 0.0 ? half : (cx_ < 0.0 ? -half : 0.0);
  uy_ = cy_ > 0.0 ? half : (cy_ < 0.0 ? -half : 0.0);
  const double r = std::sqrt(cx_ * cx_ + cy_ * cy_);
  const double s0 = r / 3.0, s1 = r, s2 = r / 6.0;
  k0_ = 0.5 / (s0 * s0), k1_ = 0.5 / (s1 * s1), k2_ = 0.5 / (s2 * s2);
}

void KpFilterKernel::Evaluate(int row, int firstColumn, int count, double* out) const {
  const double v = row < rows_ / 2 ? row : row - rows_;
  const double cx = cx_, cy = cy_;
  for (int n = 0; n < count; ++n) {
    const int j = firstColumn + n;
    const double u = j < columns_ / 2 ? j : j - columns_;
    if (u * ux_ + v * uy_ <= 0.0) {
      out[n] = 0.0;
      continue;
    }
    const double d0 = u * u + v * v;
    const double d1 = (u - cx) * (u - cx) + (v - cy) * (v - cy);
    const double d2 = (u - 2.0 * cx) * (u - 2.0 * cx) + (v - 2.0 * cy) * (v - 2.0 * cy);
    out[n] = (1.0 - std::exp(-d0 * k0_)) * std::exp(-d1 * k1_) * (1.0 - std::exp(-d2 * k2_));
  }
}

void CalculateFilterRows(const KpKernelSelector& kernel, int rows, int columns,
                         Analysis::Core::DoubleMatrix2D& filter, int first, int end) {
  const KpFilterKernel evaluator(kernel, rows, columns);
  for (int i = first; i < end; ++i)
    evaluator.Evaluate(i, 0, columns, filter.Row(i));
}

void FilterSpectrumRows(const Analysis::Core::DoubleMatrix2D& filter, Analysis::Core::Fft2D& fft, int first,
                        int end) {
  const int columns = fft.GetColumns();
  for (int i = first; i < end; ++i) {
    double* z = reinterpret_cast<double*>(fft.GetRow(i));
    const double* f = filter.Row(i);
    for (int j = 0; j < columns; ++j) {
      z[2 * j] *= f[j];
      z[2 * j + 1] *= f[j];
    }
  }
}

void FilterSpectrumBlock(const Analysis::Core::DoubleMatrix2D& filter, int firstColumn, int columnCount,
                         std::complex<double>* spectrum, std::ptrdiff_t stride) {
  const int rows = filter.GetRows();
  // The filter's rows are a power-of-two apart at common sizes and each gives only a short run, so
  // the hardware prefetcher does not follow them: the runs a few rows ahead are asked for here.
  constexpr int kAhead = 16;
  for (int i = 0; i < rows; ++i) {
    if (i + kAhead < rows) {
      const double* ahead = filter.Row(i + kAhead) + firstColumn;
      __builtin_prefetch(ahead);
      __builtin_prefetch(ahead + columnCount - 1);
    }
    const double* f = filter.Row(i) + firstColumn;
    double* z = reinterpret_cast<double*>(spectrum + i * stride);
    for (int j = 0; j < columnCount; ++j) {
      z[2 * j] *= f[j];
      z[2 * j + 1] *= f[j];
    }
  }
}

void FilterSpectrumBlock(const KpFilterKernel& kernel, int rows, int firstColumn, int columnCount,
                         std::complex<double>* spectrum, std::ptrdiff_t stride) {
  constexpr int kMaxColumns = 64;
  double f[kMaxColumns];
  for (int first = 0; first < columnCount; first += kMaxColumns) {
    const int count = std::min(kMaxColumns, columnCount - first);
    for (int i = 0; i < rows; ++i) {
      kernel.Evaluate(i, firstColumn + first, count, f);
      double* z = reinterpret_cast<double*>(spectrum + i * stride + first);
      for (int j = 0; j < count; ++j) {
        z[2 * j] *= f[j];
        z[2 * j + 1] *= f[j];
      }
    }
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail
