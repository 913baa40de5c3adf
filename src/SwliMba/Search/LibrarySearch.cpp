#include "SwliMba/Search/LibrarySearch.h"

#include <algorithm>
#include <new>
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

void LibrarySearch::GetLibrarySignal(int ilib, int isignal,
                                     Analysis::Core::Array<std::complex<double>>& out) {
  if (ilib < 0 || ilib >= board_.libraries.Size())
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Argument ilib is out of range");
  const LsLibrary& library = board_.libraries.At(ilib);
  if (isignal < 0) return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "isignal < 0");
  if (isignal >= library.GetNumberOfSignals())
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "isignal > NumberOfLibrarySignals");
  if (!out.Resize(library.GetNumberOfBins()))
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to GetSignal failed");
  const double* row = library.GetRow(isignal);
  for (int j = 0; j < library.GetNumberOfBins(); ++j)
    out[j] = {row[2 * j], row[2 * j + 1]};
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
