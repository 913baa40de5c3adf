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

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail
