#include "SwliMba/Search/LibrarySearch.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>
#include <sstream>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kModes[] = {"Linear", "Fast", "MagOnly"};
constexpr const char* kFactorKey = "IntervalConsiderationFactor";
}  // namespace

LibrarySearch::LibrarySearch() = default;
LibrarySearch::~LibrarySearch() = default;

void LibrarySearch::Fail(unsigned code, unsigned line, const std::string& message) {
  board_.status = Status(0, code, line, kSource, message);
}

void LibrarySearch::SetCorrelationThreshold(double threshold) {
  board_.correlationThreshold = std::clamp(threshold, -1.0, 1.0);
}

void LibrarySearch::SetModulationThreshold(double percent) {
  board_.modulationThreshold = std::clamp(percent, 0.0, 100.0);
}

std::string LibrarySearch::GetSearchMode() const {
  return board_.searchMode >= 0 && board_.searchMode < 3 ? kModes[board_.searchMode] : "";
}

void LibrarySearch::SetSearchMode(const std::string& mode) {
  for (int i = 0; i < 3; ++i) {
    if (mode == kModes[i]) {
      board_.searchMode = i;
      return;
    }
  }
  Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Unknown search mode: " + mode);
}

std::string LibrarySearch::GetProperty(const std::string& key) const {
  if (key != kFactorKey) return "";
  std::ostringstream text;
  text << board_.intervalConsiderationFactor;
  return text.str();
}

void LibrarySearch::SetProperty(const std::string& key, const std::string& value) {
  if (key != kFactorKey) return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Unknown key:" + key);
  std::istringstream text(value);
  double factor = 0.0;
  if (text >> factor) board_.intervalConsiderationFactor = factor;
}

void LibrarySearch::SetPerfectMirrorSignal(Analysis::Core::Array<std::complex<double>>& signal) {
  if (!board_.perfectMirrorSignal.Set(signal)) board_.status = board_.perfectMirrorSignal.Get().GetStatus();
}

bool LibrarySearch::Admissible(const Analysis::Core::DoubleMatrix2D& matrix) {
  const int width = matrix.GetColumns();
  const char* problem = width < 1              ? "width must be positive"
                        : matrix.GetRows() < 1 ? "height must be positive"
                        : width % 2 != 0       ? "the width of a library matrix must be an even number"
                        : (width / 2) % 2 == 0 ? "half the width of a library matrix must be an odd number"
                                               : nullptr;
  if (!problem) return true;
  Fail(StatusCode::kNotSet, __LINE__, std::string("Library matrix is not admissible: ") + problem);
  return false;
}

void LibrarySearch::Add(Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c, bool replace) {
  if (board_.perfectMirrorSignal.GetNumberOfBins() < 1)
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                "The perfect mirror signal has to be defined before calling SetLibrary");
  const int bins = matrix.GetColumns() / 2;
  if (bins != board_.perfectMirrorSignal.GetNumberOfBins())
    return Fail(StatusCode::kCallFailed, __LINE__,
                "The number of library bins does not match the number of bins in the perfect mirror signal");
  if (!replace) {
    for (int l = 0; l < board_.libraries.Size(); ++l) {
      if (board_.libraries.At(l).GetNumberOfBins() != bins)
        return Fail(StatusCode::kCallFailed, __LINE__,
                    "The number of library bins does not match the number of bins in the libraries defined "
                    "previously");
    }
  }
  if (!Admissible(matrix)) return;
  std::unique_ptr<LsLibrary> library(new (std::nothrow) LsLibrary());
  if (!library) return Fail(StatusCode::kAllocationFailed, __LINE__, "Creation of new library failed");
  if (!library->Set(matrix, a, b, c)) {
    board_.status = library->GetStatus();
    return;
  }
  if (replace) board_.libraries.Clear();
  board_.libraries.Add(std::move(library));
}

void LibrarySearch::SetLibrary(Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c) {
  Add(matrix, a, b, c, true);
}

void LibrarySearch::AddLibrary(Analysis::Core::DoubleMatrix2D& matrix, double a, double b, double c) {
  Add(matrix, a, b, c, false);
}

void LibrarySearch::RemoveLibrary(int id) {
  if (id < 0) return Fail(StatusCode::kOutsideWindow, __LINE__, "i < 0");
  if (id >= board_.libraries.Size()) return Fail(StatusCode::kOutsideWindow, __LINE__, "i >= libraries.Size");
  board_.libraries.Remove(id);
}

void LibrarySearch::Execute() {
  controller_.Execute(false);
}

void LibrarySearch::CalculateModulationOnly() {
  controller_.Execute(true);
}

void LibrarySearch::ProcessSinglePixel(int row, int column) {
  controller_.ProcessSinglePixel(row, column);
}

bool LibrarySearch::CheckLibrary(int ilib) {
  if (ilib >= 0 && ilib < board_.libraries.Size()) return true;
  Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Argument ilib is out of range");
  return false;
}

bool LibrarySearch::CheckFirstLibrary() {
  if (board_.libraries.Size() > 0) return true;
  Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Unable to get first library in the library list");
  return false;
}

bool LibrarySearch::CheckSignal(int ilib, int isignal) {
  if (!CheckLibrary(ilib)) return false;
  if (isignal < 0) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "isignal < 0");
    return false;
  }
  if (isignal >= board_.libraries.At(ilib).GetNumberOfSignals()) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "isignal > NumberOfLibrarySignals");
    return false;
  }
  return true;
}

bool LibrarySearch::CheckScratch(int index) {
  if (index < 0) {
    Fail(StatusCode::kOutsideWindow, __LINE__, "index < 0");
    return false;
  }
  if (index >= LsBoard::kScratchArrays) {
    Fail(StatusCode::kOutsideWindow, __LINE__, "index >= NumberOfScratchArrays");
    return false;
  }
  return true;
}

bool LibrarySearch::SizeDoubles(int index, int n, const char* failure) {
  Analysis::Core::Array<double>& a = board_.doubleArrays[index];
  if (!a.ResizeNoCopy(n)) {
    Fail(StatusCode::kCallFailed, __LINE__, failure);
    return false;
  }
  std::fill(a.begin(), a.end(), 0.0);
  return true;
}

bool LibrarySearch::SizeComplexes(int index, int n, const char* failure) {
  Analysis::Core::Array<std::complex<double>>& a = board_.complexArrays[index];
  if (!a.ResizeNoCopy(n)) {
    Fail(StatusCode::kCallFailed, __LINE__, failure);
    return false;
  }
  std::fill(a.begin(), a.end(), std::complex<double>());
  return true;
}

namespace {
// Bin j of a library row (bins interleaved real/imaginary).
std::complex<double> Bin(const double* row, int j) {
  return {row[2 * j], row[2 * j + 1]};
}
}  // namespace

void LibrarySearch::GetLibrarySignal(int ilib, int isignal) {
  if (!CheckSignal(ilib, isignal)) return;
  const LsLibrary& library = board_.libraries.At(ilib);
  const int bins = library.GetNumberOfBins();
  if (!SizeComplexes(0, bins, "Call to GetSignal failed")) return;
  for (int j = 0; j < bins; ++j)
    board_.complexArrays[0][j] = Bin(library.GetRow(isignal), j);
}

void LibrarySearch::GetShiftedLibrarySignal(int ilib, int isignal, double shift) {
  if (!CheckSignal(ilib, isignal)) return;
  const LsLibrary& library = board_.libraries.At(ilib);
  const int bins = library.GetNumberOfBins(), n = 2 * bins - 2;
  if (!SizeComplexes(0, bins, "Call to GetSignal failed") || !SizeDoubles(0, n, "Call to GetSignal failed"))
    return;
  // A surface `shift` frames higher reaches every optical path difference `shift` frames later:
  // the trace moves by `shift` samples, each bin turns by -ω_j shift.
  for (int j = 0; j < bins; ++j)
    board_.complexArrays[0][j] =
        Bin(library.GetRow(isignal), j) * std::polar(1.0, -2.0 * std::numbers::pi * j * shift / n);
  LsSignalProcessor processor;
  if (!processor.Init(n) ||
      !processor.InverseReal(board_.complexArrays[0].Data(), board_.doubleArrays[0].Data()))
    board_.status = processor.GetStatus();
}

void LibrarySearch::GetLibraryBinTrace(int ilib, int ibin) {
  if (!CheckLibrary(ilib)) return;
  const LsLibrary& library = board_.libraries.At(ilib);
  if (ibin < 0) return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "ibin < 0");
  if (ibin >= library.GetNumberOfBins())
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "ibin > NumberOfLibraryBins");
  const int signals = library.GetNumberOfSignals();
  if (!SizeComplexes(0, signals, "Call to GetSignal failed") ||
      !SizeDoubles(0, signals, "Call to GetSignal failed"))
    return;
  for (int s = 0; s < signals; ++s) {
    board_.complexArrays[0][s] = Bin(library.GetRow(s), ibin);
    board_.doubleArrays[0][s] = library.GetA() + library.GetB() * (s / library.GetStride());
  }
}

bool LibrarySearch::PixelLibrary(int row, int column, int& ilib) {
  Status failure;
  ilib = board_.LibraryOfPixel(row, column, failure);
  if (ilib == LsBoard::kLookupFailed) {
    board_.status = failure;
    return false;
  }
  // A pixel outside every search region is matched against no library.
  if (ilib == LsBoard::kNoLibrary) {
    Fail(StatusCode::kCallFailed, __LINE__, "Call to GetLibrary failed");
    return false;
  }
  if (ilib == LsBoard::kAllLibraries) ilib = 0;
  return true;
}

void LibrarySearch::SignalComparison(int row, int column) {
  if (!controller_.CheckPixel(row, column) || !CheckFirstLibrary()) return;
  LsPixelProcessor* pixel = controller_.PreparePixel(row, column);
  int ilib = 0;
  if (!pixel || !PixelLibrary(row, column, ilib)) return;
  const int bins = pixel->GetSignal().GetNumberOfBins();
  if (!SizeComplexes(0, bins) || !SizeDoubles(0, board_.libraries.At(ilib).GetNumberOfSignals())) return;
  std::copy_n(pixel->GetSignal().FourierDomainCplx(), bins, board_.complexArrays[0].Data());
  pixel->ScoreAllSignals(ilib, board_.doubleArrays[0].Data());
}

void LibrarySearch::SignalComparison(int row, int column, int ilib, int isignal) {
  if (!controller_.CheckPixel(row, column) || !CheckSignal(ilib, isignal)) return;
  LsPixelProcessor* pixel = controller_.PreparePixel(row, column);
  if (!pixel) return;
  const int bins = pixel->GetSignal().GetNumberOfBins(), n = 2 * bins - 2;
  if (!SizeDoubles(0, 3) || !SizeComplexes(0, bins) || !SizeComplexes(1, bins)) return;
  const LsPixelProcessor::SignalFit fit = pixel->FitSignal(ilib, isignal);
  board_.doubleArrays[0][0] = fit.merit;
  board_.doubleArrays[0][1] = fit.height;
  board_.doubleArrays[0][2] = fit.gain;
  std::copy_n(pixel->GetSignal().FourierDomainCplx(), bins, board_.complexArrays[0].Data());
  const double* signal = board_.libraries.At(ilib).GetRow(isignal);
  for (int j = pixel->GetFirstBin(); j <= pixel->GetLastBin(); ++j)
    board_.complexArrays[1][j] =
        fit.gain * Bin(signal, j) * std::polar(1.0, -2.0 * std::numbers::pi * j * fit.height / n);
}

void LibrarySearch::CalculateMeritX(int row, int column, int ilib) {
  if (!controller_.CheckPixel(row, column) || !CheckLibrary(ilib)) return;
  LsPixelProcessor* pixel = controller_.PreparePixel(row, column);
  if (!pixel) return;
  const LsLibrary& library = board_.libraries.At(ilib);
  const int signals = library.GetNumberOfSignals();
  if (!SizeDoubles(0, signals) || !SizeDoubles(1, signals) || !SizeDoubles(2, signals)) return;
  for (int s = 0; s < signals; ++s) {
    const LsPixelProcessor::SignalFit fit = pixel->FitSignal(ilib, s);
    board_.doubleArrays[0][s] = fit.merit;
    board_.doubleArrays[1][s] = fit.height;
    board_.doubleArrays[2][s] = library.GetA() + library.GetB() * (s / library.GetStride());
  }
}

void LibrarySearch::SpatialCorrelation(int row, int column, int isignal) {
  if (!controller_.CheckPixel(row, column) || !CheckFirstLibrary()) return;
  LsPixelProcessor* pixel = controller_.PreparePixel(row, column);
  int ilib = 0;
  if (!pixel || !PixelLibrary(row, column, ilib) || !CheckSignal(ilib, isignal)) return;
  LsSignalProcessor* processor = pixel->GetSignalProcessor();
  if (!processor) {
    board_.status = pixel->GetStatus();
    return;
  }
  const int bins = pixel->GetSignal().GetNumberOfBins(), n = 2 * bins - 2;
  if (!SizeComplexes(0, n) || !SizeDoubles(0, n) || !SizeComplexes(1, bins)) return;
  for (int j = 0; j < bins; ++j)
    board_.complexArrays[1][j] = Bin(board_.libraries.At(ilib).GetRow(isignal), j);
  if (!processor->Correlate(pixel->GetSignal().FourierDomainCplx(), board_.complexArrays[1].Data(),
                            pixel->GetFirstBin(), pixel->GetLastBin(), board_.complexArrays[0].Data())) {
    board_.status = processor->GetStatus();
    return;
  }
  for (int i = 0; i < n; ++i)
    board_.doubleArrays[0][i] = board_.complexArrays[0][i].real();
}

void LibrarySearch::PeakVersusSignal(int row, int column, int ilib) {
  if (!controller_.CheckPixel(row, column)) return;
  if (ilib != -1 && !CheckLibrary(ilib)) return;
  LsPixelProcessor* pixel = controller_.PreparePixel(row, column);
  if (!pixel) return;
  LsSignalProcessor* processor = pixel->GetSignalProcessor();
  if (!processor) {
    board_.status = pixel->GetStatus();
    return;
  }
  const int first = ilib < 0 ? 0 : ilib, end = ilib < 0 ? board_.libraries.Size() : ilib + 1;
  int total = 0;
  for (int l = first; l < end; ++l)
    total += board_.libraries.At(l).GetNumberOfSignals();
  const int bins = pixel->GetSignal().GetNumberOfBins(), n = 2 * bins - 2;
  if (!SizeComplexes(0, total) || !SizeDoubles(0, total) || !SizeDoubles(1, total) ||
      !SizeComplexes(1, bins) || !SizeComplexes(2, n))
    return;
  Analysis::Core::Array<std::complex<double>>& spectrum = board_.complexArrays[1];
  Analysis::Core::Array<std::complex<double>>& correlation = board_.complexArrays[2];
  int index = 0;
  for (int l = first; l < end; ++l) {
    const LsLibrary& library = board_.libraries.At(l);
    for (int s = 0; s < library.GetNumberOfSignals(); ++s, ++index) {
      for (int j = 0; j < bins; ++j)
        spectrum[j] = Bin(library.GetRow(s), j);
      if (!processor->Correlate(pixel->GetSignal().FourierDomainCplx(), spectrum.Data(), pixel->GetFirstBin(),
                                pixel->GetLastBin(), correlation.Data())) {
        board_.status = processor->GetStatus();
        return;
      }
      int peak = 0;
      for (int i = 1; i < n; ++i)
        if (correlation[i].real() > correlation[peak].real()) peak = i;
      const double phase = std::arg(correlation[peak]);
      board_.complexArrays[0][index] = correlation[peak];
      board_.doubleArrays[0][index] = peak - n / 2;
      board_.doubleArrays[1][index] =
          phase - 2.0 * std::numbers::pi * std::floor((phase + std::numbers::pi) / (2.0 * std::numbers::pi));
    }
  }
}

void LibrarySearch::RoundTripTransform() {
  const int bins = board_.complexArrays[0].Size(), n = 2 * bins - 2;
  if (bins < 2)
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "complexArrays[0] holds fewer than 2 bins");
  if (!SizeDoubles(0, n) || !SizeComplexes(1, bins)) return;
  LsSignal signal;
  LsSignalProcessor processor;
  if (!signal.Init(bins)) {
    board_.status = signal.GetStatus();
    return;
  }
  if (!processor.Init(n) ||
      !processor.InverseReal(board_.complexArrays[0].Data(), signal.SpatialDomainReal())) {
    board_.status = processor.GetStatus();
    return;
  }
  signal.Transform();
  std::copy_n(signal.SpatialDomainReal(), n, board_.doubleArrays[0].Data());
  std::copy_n(signal.FourierDomainCplx(), bins, board_.complexArrays[1].Data());
}

void LibrarySearch::Dummy(int row, int column, Analysis::Core::Point3DArray& points) {
  if (!controller_.CheckPixel(row, column)) return;
  LsPixelProcessor* pixel = controller_.PreparePixel(row, column);
  if (!pixel) return;
  const double mean = pixel->LoadSinglePixel(row, column);
  LsSignalProcessor* processor = pixel->GetSignalProcessor();
  if (!processor) {
    board_.status = pixel->GetStatus();
    return;
  }
  LsSignal& signal = pixel->GetSignal();
  if (processor->Analyse(signal, pixel->GetFirstBin(), pixel->GetLastBin()) < 0) {
    board_.status = processor->GetStatus();
    return;
  }
  const int n = signal.GetNumberOfSamples();
  const int frames = std::min(n, board_.frameBuffer->GetFramesStored());
  if (!SizeDoubles(0, n) || !SizeDoubles(1, n) || !SizeComplexes(0, n)) return;
  if (!points.ResizeNoCopy(frames))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to points.Resize failed");
  for (int j = 0; j < n; ++j) {
    board_.doubleArrays[0][j] = processor->Envelope()[j];
    board_.doubleArrays[1][j] = processor->CumulativeDistributionFunction()[j];
    board_.complexArrays[0][j] = signal.SpatialDomainCplx()[j];
  }
  for (int j = 0; j < frames; ++j)
    points[j] = {static_cast<double>(j), mean + signal.SpatialDomainReal()[j], processor->Envelope()[j]};
}

void LibrarySearch::GetDoubleArray(int index, Analysis::Core::Array<double>& out) {
  if (!CheckScratch(index)) return;
  out = board_.doubleArrays[index];
  if (out.Size() != board_.doubleArrays[index].Size())
    Fail(StatusCode::kCallFailed, __LINE__, "Call to GetDoubleArray failed");
}

void LibrarySearch::GetComplexArray(int index, Analysis::Core::Array<std::complex<double>>& out) {
  if (!CheckScratch(index)) return;
  out = board_.complexArrays[index];
  if (out.Size() != board_.complexArrays[index].Size())
    Fail(StatusCode::kCallFailed, __LINE__, "Call to GetComplexArray failed");
}

void LibrarySearch::SetComplexArray(int index, const Analysis::Core::Array<std::complex<double>>& in) {
  if (!CheckScratch(index)) return;
  board_.complexArrays[index] = in;
  if (board_.complexArrays[index].Size() != in.Size())
    Fail(StatusCode::kCallFailed, __LINE__, "Call to SetComplexArray failed");
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
