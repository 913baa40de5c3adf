#pragma once

#include <complex>
#include <functional>

#include "Analysis/Core/Array.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "SwliMba/Search/LsLibraryList.h"
#include "SwliMba/Search/LsPerfectMirrorSignal.h"
#include "SwliMba/Search/LsRegionAssociations.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// The search modes (`LibrarySearch::SetSearchMode`).
enum class LsSearchMode : int { Linear = 0, Fast = 1, MagOnly = 2 };

// LsBoard
//
// All state of one library search: settings with their defaults, the caller's inputs and output
// maps (not owned), the libraries, the perfect-mirror signal, the region associations, the
// scratch arrays the diagnostic entry points leave their results in, and the status. The controller and the
// per-thread pixel processors read it; only the facade writes it.
struct LsBoard {
  static constexpr const char* kSource = "SwliMba\\Search\\LsBoard";

  bool allowMultiThreads = false;
  bool useFullCorrelation = false;
  bool useAggressiveExclusion = true;
  int scanDirection = 1;
  double correlationThreshold = 0.0;
  double modulationThreshold = 5.0;
  double intervalConsiderationFactor = 2.5;

  Analysis::Core::DoubleMatrix2D* heightMap = nullptr;
  Analysis::Core::DoubleMatrix2D* thicknessMap = nullptr;
  Analysis::Core::DoubleMatrix2D* metricMap = nullptr;
  Analysis::Core::DoubleMatrix2D* confidenceMap = nullptr;
  Analysis::Core::DoubleMatrix2D* modulationMap = nullptr;
  Analysis::Core::DoubleMatrix2D* bestLibraryIdMap = nullptr;
  Analysis::Core::DoubleMatrix2D* bestSignalIdMap = nullptr;
  Analysis::Core::RegionIdMatrix2D* searchRegions = nullptr;
  Analysis::Core::FrameBuffer* frameBuffer = nullptr;
  std::function<void(int row)> rowDone;  // progress: called by the worker that finished a row

  LsLibraryList libraries;
  LsPerfectMirrorSignal perfectMirrorSignal;
  LsRegionAssociations regionAssociations;
  int searchMode = static_cast<int>(LsSearchMode::Fast);
  int numberOfThreads = -1;  // -1: one per processor
  static constexpr int kScratchArrays = 4;
  Analysis::Core::Array<double> doubleArrays[kScratchArrays];
  Analysis::Core::Array<std::complex<double>> complexArrays[kScratchArrays];
  Analysis::Core::Status status{__LINE__, kSource};

  // Which libraries the pixel (row, column) of the frame-buffer window is matched against:
  // kAllLibraries without search regions or without region associations, kNoLibrary when it
  // lies outside every search region, else the id of its region's library. A region without an
  // association, or one tied to a library id the list does not hold (removed since), returns
  // kLookupFailed with `failure` saying which. The search regions must have the window's shape.
  static constexpr int kAllLibraries = -1, kNoLibrary = -2, kLookupFailed = -3;
  int LibraryOfPixel(int row, int column, Analysis::Core::Status& failure) const {
    if (!searchRegions) return kAllLibraries;
    const int id = (*searchRegions)(row, column);
    if (!Analysis::Core::RegionIdMatrix2D::IsValid(id)) return kNoLibrary;
    if (regionAssociations.IsEmpty()) return kAllLibraries;
    const int library = regionAssociations.Find(id);
    if (library < 0) {
      failure =
          Analysis::Core::Status(0, Analysis::Core::StatusCode::kNoData, __LINE__,
                                 LsRegionAssociations::kSource, "Key not found: this should never occur");
      return kLookupFailed;
    }
    if (library >= libraries.Size()) {
      failure = Analysis::Core::Status(0, Analysis::Core::StatusCode::kArgumentOutOfRange, __LINE__,
                                       LsLibraryList::kSource, "Cannot find a library with the given id");
      return kLookupFailed;
    }
    return library;
  }
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
