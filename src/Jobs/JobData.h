#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Jobs {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// The measurement jobs: one call per measurement, from plain arrays in the host's memory to result
// maps and a record, shared by the qphase tool and the Python package.
//
// Conventions shared by every job
// - Inputs are `ArrayView`s: frames x rows x columns of unsigned 8- or 16-bit samples (camera frames)
//   or doubles (maps), with strides in bytes, so that any host array (a numpy array, a camera driver's
//   buffer, a frame buffer's slots) is read where it lies. A stack whose rows are packed is lent to
//   the algorithms without a copy; other layouts are copied once.
// - Outputs are `MapView`s of doubles the host owns, rows x columns, row stride in elements. Pixels
//   without a result hold NaN (the library's internal no-data value never reaches a host array).
// - Every job returns a record: the outcome (success, no result, bad input, as the tool's exit
//   statuses 0, 1 and 2), a message in the words of the tool naming the input, the fraction of
//   valid pixels and the job's figures. Nothing is thrown.
enum class SampleType { kUInt8, kUInt16, kDouble };

struct QUARN_PP_EXPORT ArrayView {
  const void* data = nullptr;
  SampleType type = SampleType::kUInt8;
  int frames = 1;
  int rows = 0;
  int cols = 0;
  std::int64_t frameStride = 0;  // bytes
  std::int64_t rowStride = 0;    // bytes
  std::int64_t colStride = 0;    // bytes
  // How the input is named in messages ("scan.tif", "the stack").
  std::string name = "the input";

  // A C-contiguous array: frames, then rows, then columns.
  static ArrayView Contiguous(const void* data, SampleType type, int frames, int rows, int cols,
                              std::string name = "the input");
  int BytesPerSample() const;
  // Rows packed sample by sample (frames may lie anywhere).
  bool RowsPacked() const;
};

struct MapView {
  double* data = nullptr;
  int rows = 0;
  int cols = 0;
  std::int64_t rowStride = 0;  // elements; 0 for packed rows
  bool Empty() const { return data == nullptr; }
};

// Exit statuses of the tool: the outcome of a job maps onto them one to one.
enum class JobOutcome : int { kSuccess = 0, kNoResult = 1, kBadInput = 2 };

struct JobRecord {
  JobOutcome outcome = JobOutcome::kSuccess;
  std::string message;                // why there is no result, or what is wrong with the input
  std::vector<std::string> warnings;  // what could not be had beside a result
  double validFraction = 0.0;         // valid pixels of the main map over all of its pixels
  double seconds = 0.0;               // time spent in the algorithm
  bool Ok() const { return outcome == JobOutcome::kSuccess; }
};

// Filling a record with a failure: returns false so that a check reads `return Fail(...)`.
QUARN_PP_EXPORT bool Fail(JobRecord& record, JobOutcome outcome, const std::string& message);

// Option checks in the tool's words, e.g. "--max-value: got 0; a whole number from 1 to 65535 is
// needed" or "--min-modulation: nan is not a finite number; a number from 0 to 100 is needed".
QUARN_PP_EXPORT bool CheckNumberFrom(JobRecord& record, const char* option, double value, double lo,
                                     double hi);
QUARN_PP_EXPORT bool CheckWholeNumberFrom(JobRecord& record, const char* option, double value, double lo,
                                          double hi);
QUARN_PP_EXPORT bool CheckNumberAbove(JobRecord& record, const char* option, double value, double bound);
QUARN_PP_EXPORT bool CheckNumberAtLeast(JobRecord& record, const char* option, double value, double bound);
// --max-value (0: the sample type's maximum) and --threads (-1: all processors).
QUARN_PP_EXPORT bool CheckCommonOptions(JobRecord& record, int maxValue, int threads);

// "%g" of a number, as the tool prints options back.
QUARN_PP_EXPORT std::string FormatNumber(double value);

// Frames of a camera stack: the host's memory adopted when its rows are packed (no copy; `frames`
// reads the host's array, which must outlive it), a copy otherwise. Refuses doubles and empty
// shapes with a message naming the input.
QUARN_PP_EXPORT bool MakeFrameBuffer(const ArrayView& view, Core::FrameBuffer& frames, JobRecord& record);
// One frame of integer samples as an integer image (always a copy: images are ints).
QUARN_PP_EXPORT bool MakeIntImage(const ArrayView& view, int frame, Core::IntMatrix2D& image,
                                  JobRecord& record);
// A map of doubles (or integers) with NaN as no data.
QUARN_PP_EXPORT bool MakeDoubleMap(const ArrayView& view, Core::DataMatrix2D<double>& map, JobRecord& record);
// Non-zero pixels of the first frame as region 0, the others as no data (a mask).
QUARN_PP_EXPORT bool MakeMask(const ArrayView& view, Core::RegionIdMatrix2D& mask, JobRecord& record);

// Copies a result map into the host's array, no data as NaN. The view must be the map's shape.
QUARN_PP_EXPORT bool CopyMap(const Core::DataMatrix2D<double>& map, const MapView& out, JobRecord& record,
                             const char* what);
// No-data elements of a map to NaN, in place (for a map handed to a host).
QUARN_PP_EXPORT void NoDataToNan(Core::DataMatrix2D<double>& map);
// Every element of the host's array to NaN (the maps of a run without a result).
QUARN_PP_EXPORT void FillNan(const MapView& out);
QUARN_PP_EXPORT bool CopyMap(const Core::IntMatrix2D& map, const MapView& out, JobRecord& record,
                             const char* what);

// The host-array form of a job that makes a phase and (when `modulation` is not empty) a modulation
// map: frames from the view, the job run, its maps copied out. A run without a valid pixel still
// fills both maps, with NaN.
template <typename Job, typename Options>
auto RunPhaseAndModulation(const ArrayView& input, const Options& options, const MapView& phase,
                           const MapView& modulation) {
  decltype(Job().Run(std::declval<Core::FrameBuffer&>(), options, input.name, true)) record;
  Core::FrameBuffer frames;
  if (!MakeFrameBuffer(input, frames, record)) return record;
  Job job;
  record = job.Run(frames, options, input.name, !modulation.Empty());
  if (record.outcome == JobOutcome::kBadInput) return record;
  if (record.outcome == JobOutcome::kNoResult) {
    FillNan(phase);
    FillNan(modulation);
    return record;
  }
  CopyMap(job.GetPhase(), phase, record, "phase") &&
      CopyMap(job.GetModulation(), modulation, record, "modulation");
  return record;
}

// The phase and modulation maps a job leaves behind, shared by the jobs that make both: read them
// in place, or move them out for a host that keeps them without a copy (no data still the
// library's; `NoDataToNan` converts in place).
class PhaseAndModulationMaps {
 public:
  const Core::DoubleMatrix2D& GetPhase() const { return phase_; }
  const Core::DoubleMatrix2D& GetModulation() const { return modulation_; }
  Core::DoubleMatrix2D TakePhase() { return std::move(phase_); }
  Core::DoubleMatrix2D TakeModulation() { return std::move(modulation_); }

 protected:
  Core::DoubleMatrix2D phase_;
  Core::DoubleMatrix2D modulation_;
};

}  // namespace Quarn::Jobs
