#include "Psi/Kinephase/detail/KpFilter.h"

#include <cmath>
#include <cstdint>

#include "Psi/Kinephase/KpQuadrant.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

void CalculateFilterRows(const KpKernelSelector& kernel, int rows, int columns,
                         Analysis::Core::DoubleMatrix2D& filter, int first, int end) {
  const double p = kernel.GetPixelsPerFringe();
  const double fx = columns / p;
  const double fy = rows / p;
  double cx = 0.0, cy = 0.0;
  switch (static_cast<int>(kernel.GetOrientation())) {
    case KpQuadrant::Quadrant1:
      cx = fx, cy = -fy;
      break;
    case KpQuadrant::Quadrant2:
      cx = -fx, cy = -fy;
      break;
    case KpQuadrant::Quadrant3:
      cx = -fx, cy = fy;
      break;
    case KpQuadrant::Quadrant4:
      cx = fx, cy = fy;
      break;
    default:
      break;
  }
  const double half = 1.0 / std::sqrt(2.0);
  const double ux = cx > 0.0 ? half : (cx < 0.0 ? -half : 0.0);
  const double uy = cy > 0.0 ? half : (cy < 0.0 ? -half : 0.0);
  const double r = std::sqrt(cx * cx + cy * cy);
  const double s0 = r / 3.0, s1 = r, s2 = r / 6.0;
  const double k0 = 0.5 / (s0 * s0), k1 = 0.5 / (s1 * s1), k2 = 0.5 / (s2 * s2);
  for (int i = first; i < end; ++i) {
    const double v = i < rows / 2 ? i : i - rows;
    double* out = filter.Row(i);
    for (int j = 0; j < columns; ++j) {
      const double u = j < columns / 2 ? j : j - columns;
      if (u * ux + v * uy <= 0.0) {
        out[j] = 0.0;
        continue;
      }
      const double d0 = u * u + v * v;
      const double d1 = (u - cx) * (u - cx) + (v - cy) * (v - cy);
      const double d2 = (u - 2.0 * cx) * (u - 2.0 * cx) + (v - 2.0 * cy) * (v - 2.0 * cy);
      out[j] = (1.0 - std::exp(-d0 * k0)) * std::exp(-d1 * k1) * (1.0 - std::exp(-d2 * k2));
    }
  }
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

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail
