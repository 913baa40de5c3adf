#pragma once

#include <complex>
#include <cstddef>
#include <memory>

#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/DataWindow2D.h"
#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::Analysis::Core {

// Fft2D
//
// The complex two-dimensional discrete Fourier transform of an image, in place, on FFTW.
//
// Conventions
// - Data: `rows` x `columns` complex doubles, row-major, row r starting `GetRowStride()` elements
//   after row r - 1 (the stride may exceed the column count: rows are padded so that the column
//   transforms do not hit the same cache sets over and over).
// - Forward (`Transform(false)`): X[k, l] = sum over (r, c) of x[r, c] e^{-2 pi i (k r / rows + l c /
// columns)},
//   FFTW's own kernel, unscaled. Bin (k, l) sits at row k, column l: k = 0 is zero frequency, bins
//   k >= rows / 2 (integer division) are the negative frequencies k - rows; the same for columns.
//   A fringe e^{+2 pi i (u c / columns + v r / rows)} therefore lands in the bin of row v, column u.
// - Inverse (`Transform(true)`): the conjugate kernel, scaled by 1 / (rows x columns), so that the
//   inverse of the forward transform gives the data back. A real fringe a + b cos(theta) thus has
//   two side lobes that each carry b / 2, and one lobe, kept and transformed back, has magnitude
//   b / 2 in every pixel.
//
// Plans are made once per size and planning effort for the whole process (under the library's
// planner lock) and shared by every transform of that size, so transforms of equal data sized
// under one planning effort give bit-identical results, whatever the instance and the number of
// threads. Rows and column blocks
// are spread over the worker threads of an embedded dispatcher.
//
// Planning effort (`SetPlanningEffort`, process-wide like the plans): FFTW's measuring planner
// (the default) times candidate plans on the first transform of a size, most of a second at
// 2048 x 2048 and a quarter of one at 256 x 256, and pays back over the many frames a host
// transforms; its estimating planner answers at once with plans that may run a little slower,
// which suits a process that transforms a size once. The two can differ in the last bits of a
// result.
//
//   Fft2D fft;
//   fft.SetSize(rows, cols);
//   fft.SetData(image, false, false, false);   // the image's window, no-data samples as 0
//   fft.Transform(false);                      // spectrum
//   fft.GetRow(0)[0];                          // zero frequency: the sum of all samples
//   fft.Transform(true);                       // the image again
//
// Failures are recorded in the status and the operation returns false: code 30 for a negative
// size, 3 when memory runs out, 6 when FFTW cannot plan, 20 for a data window larger than the
// transform or a loading flag set, 21 for a transform without a size.
class QUARN_CORE_EXPORT Fft2D {
 public:
  enum class PlanningEffort { kEstimate, kMeasure };

  Fft2D();
  Fft2D(const Fft2D& other);
  Fft2D& operator=(const Fft2D& other);
  ~Fft2D();

  // Sizes the transform (data zero); nothing happens when the size is already rows x columns.
  bool SetSize(int rows, int columns);
  int GetRows() const;
  int GetColumns() const;
  // Distance in complex elements between the starts of two rows (>= the column count).
  std::ptrdiff_t GetRowStride() const;

  // Loads the window of `data` (its current window, at most the transform's size) as real samples,
  // imaginary parts 0, at the transform's origin; elements outside the window are 0, and so are
  // no-data samples. The flags (mean removal, Hann window, centred spectrum) are the interface's
  // loading options; no caller needs them, so they are not implemented and a true one fails with
  // code 20.
  bool SetData(const DataWindow2D<double>& data, bool removeMean, bool applyHann, bool centreSpectrum);

  // Forward (false) or scaled inverse (true) transform of the data in place.
  bool Transform(bool inverse);

  // Work a caller fuses into the passes of `FilterRoundTrip`, to touch the data while a piece of it
  // is still in cache: `RowPass::run(context, row, elements)` gets one row, `BlockPass::run(context,
  // firstColumn, columnCount, elements of row 0, row stride)` the columns [firstColumn, firstColumn
  // + columnCount) of every row. Calls run on the transform's workers, several at once; each
  // touches only its own piece. No status crosses back: a call that fails throws a `Status`.
  struct RowPass {
    void (*run)(void* context, int row, std::complex<double>* elements) = nullptr;
    void* context = nullptr;
  };
  struct BlockPass {
    void (*run)(void* context, int firstColumn, int columnCount, std::complex<double>* elements,
                std::ptrdiff_t stride) = nullptr;
    void* context = nullptr;
  };

  // SetData(data, false, false, false), Transform(false), `spectrum` over all columns and
  // Transform(true), with `result` (a pass without a function is skipped) handed each row of the
  // outcome, in far fewer trips through memory: each row is loaded and transformed in a scratch
  // row of the worker and streamed to its place; each column block goes through its forward
  // transform, `spectrum` and its inverse transform while it is in the second-level cache; each
  // row is then inverted in the scratch row and handed to `result` there. The outcome thus exists
  // only row by row in `result` (its `elements` are not the row's place in the data, which is left
  // holding the filtered spectrum transformed back along the columns only). Every element sees the
  // same arithmetic as in the steps one after the other, so the rows `result` gets are bit for bit
  // theirs. Fails as SetData and Transform do, and with code 3 when the scratch rows cannot be had.
  bool FilterRoundTrip(const DataWindow2D<double>& data, const BlockPass& spectrum, const RowPass& result);
  // The same with the rows loaded by `load` instead of from a matrix: `load.run(context, row,
  // elements)` writes all GetColumns() elements of the row (zeros where the image has none). A host
  // that keeps its frame in a smaller form (integer samples) thus needs no copy of it as doubles.
  bool FilterRoundTrip(const RowPass& load, const BlockPass& spectrum, const RowPass& result);
  // Whether FilterRoundTrip gives the data's memory back to the system as its last pass reads it
  // (default false). A host that transforms one image and keeps large results of it lowers its peak
  // memory so; one that transforms frame after frame keeps the memory and saves faulting it in again.
  // After such a round trip the data is unspecified (zero where given back).
  bool GetRoundTripReleasesData() const;
  void SetRoundTripReleasesData(bool release);
  // The width of the column blocks the spectrum pass gets (the last block may be narrower), for a
  // caller that lays its data out block by block.
  static int ColumnBlockWidth();

  // |X|^2 of the element at (row, column).
  double MagSquared(int row, int column) const;

  // The elements of one row (GetColumns() of them). Valid until the next SetSize.
  std::complex<double>* GetRow(int row);
  const std::complex<double>* GetRow(int row) const;

  // Copies of the real or imaginary parts as a rows x columns matrix (resized, origin kept).
  bool GetRealPart(DataMatrix2D<double>& real) const;
  bool GetImaginaryPart(DataMatrix2D<double>& imaginary) const;

  bool GetAllowMultiThreads() const;
  void SetAllowMultiThreads(bool allow);
  int GetNumberOfThreads() const;
  void SetNumberOfThreads(int n);

  Status& GetStatus();
  const Status& GetStatus() const;

  // For every transform of the process sized (`SetSize`) from now on; a transform keeps the plans
  // it was sized with.
  static void SetPlanningEffort(PlanningEffort effort);
  static PlanningEffort GetPlanningEffort();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Quarn::Metrology::Analysis::Core
