#pragma once

#include <complex>
#include <cstddef>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Fft2D.h"
#include "Psi/Kinephase/KpKernelSelector.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

// The carrier pipeline's analytic filter, in the spectrum's bin order (row i, column j is the bin
// of signed frequencies v = i or i - rows, u = j or j - columns, the upper half negative): a
// Gaussian of width r around the kept lobe at distance r from zero frequency, times a notch of
// width r / 3 at zero frequency (the bias and its leakage) and one of width r / 6 at the second
// harmonic (the clipping of bright fringes), over the half plane towards the lobe (the conjugate
// lobe and everything on its side go). The lobe lies at (columns, rows) / pixels per fringe bins in
// the selector's quadrant; an orientation outside 1-4 gives a zero filter.

// The filter of one kernel and size, evaluated a run of bins at a time: the stored filter and the
// one computed inside the column pass come from this one function, so they agree to the bit.
class KpFilterKernel {
 public:
  // `kernel`'s pixels per fringe must be at least 1.
  KpFilterKernel(const KpKernelSelector& kernel, int rows, int columns);

  // The filter at row `row`, columns [firstColumn, firstColumn + count), into `out`.
  void Evaluate(int row, int firstColumn, int count, double* out) const;

 private:
  int rows_, columns_;
  double cx_ = 0.0, cy_ = 0.0;  // lobe centre, bins
  double ux_ = 0.0, uy_ = 0.0;  // direction of the half plane that passes
  double k0_, k1_, k2_;         // 1 / (2 s^2) of the zero-frequency notch, the lobe, the harmonic notch
};

// Writes rows [first, end) of the rows x columns filter of `kernel` (pixels per fringe >= 1) into
// `filter`, which holds rows x columns elements.
void CalculateFilterRows(const KpKernelSelector& kernel, int rows, int columns,
                         Analysis::Core::DoubleMatrix2D& filter, int first, int end);

// Multiplies each complex bin of rows [first, end) of the transform's data by the filter there.
void FilterSpectrumRows(const Analysis::Core::DoubleMatrix2D& filter, Analysis::Core::Fft2D& fft, int first,
                        int end);

// The same for one column block of the spectrum inside the transform's pass
// (Fft2D::FilterRoundTrip): `columnCount` bins from `firstColumn` in every row, rows `stride` bins
// apart. The filter is read in place, a short run of each of its rows.
void FilterSpectrumBlock(const Analysis::Core::DoubleMatrix2D& filter, int firstColumn, int columnCount,
                         std::complex<double>* spectrum, std::ptrdiff_t stride);

// The same with the filter computed as it goes instead of read from a stored one (no filter-sized
// memory; three exponentials per bin of the passing half plane), bit for bit the same product.
void FilterSpectrumBlock(const KpFilterKernel& kernel, int rows, int firstColumn, int columnCount,
                         std::complex<double>* spectrum, std::ptrdiff_t stride);

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail
