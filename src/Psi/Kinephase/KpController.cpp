#include "Psi/Kinephase/KpController.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Analysis/Core/AnyValid.h"
#include "Analysis/Core/Array.h"
#include "Analysis/Core/CTimer.h"
#include "Analysis/Core/DebugChannel.h"
#include "Analysis/Core/RegionFinderConnected.h"
#include "Analysis/Core/RegionInfo.h"
#include "Analysis/Core/SampleDispatch.h"
#include "Analysis/Core/Units.h"
#include "Core/Board/WiringCheck.h"
#include "Psi/Kinephase/KpBoard.h"
#include "Psi/Kinephase/detail/KpFilter.h"
#include "Psi/Kinephase/detail/KpPhaseKernel.h"
#include "Psi/Kinephase/detail/KpTrim.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

using Analysis::Core::Array;
using Analysis::Core::DataMatrix2D;
using Analysis::Core::DispatchSampleType;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::RegionIdMatrix2D;
using Analysis::Core::RegionInfo;
using Analysis::Core::SampleTag;
using Analysis::Core::Status;
using Analysis::Core::Window2D;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\Kinephase\\KpController";

std::string SizeText(int rows, int cols) {
  return std::to_string(rows) + " x " + std::to_string(cols);
}

// Stage timings on the debug channel ("\tKinephase forward transform: 21.3 ms"), for finding where a
// run spends its time; nothing is formatted while the channel is silent.
class StageTimer {
 public:
  void Done(const char* stage) {
    if (Analysis::Core::IsDebugEnabled()) {
      Analysis::Core::debug_printf("\tKinephase %s: %.2f ms\n", stage, timer_.GetElapsed() / 1000.0);
    }
    timer_.Start();
  }

 private:
  Analysis::Core::CTimer timer_;
};
}  // namespace

// What the phase extraction writes, handed to the workers with the dispatcher's data pointer.
struct KpController::ExtractJob {
  DataMatrix2D<double>* phase = nullptr;
  DataMatrix2D<double>* modulation = nullptr;
  double threshold = 0.0;                                       // counts
  double scale = 1.0;                                           // data sign x radians-to-map-unit factor
  detail::KpPhaseRowFunction row = &detail::PhaseRowReference;  // chosen once per run
  // The fused run's: the carrier removal (null: none) and the map of no-data pixels for the trim.
  const KpCarrierSubtractor* carrier = nullptr;
  RegionIdMatrix2D* noData = nullptr;
};

// What the trim's last pass clears: the phase around the kept no-data areas and, with a mask, the
// phase outside it.
struct KpController::TrimJob {
  DoubleMatrix2D* phase = nullptr;
  const RegionIdMatrix2D* mask = nullptr;
};

KpController::KpController() : dispatcher_(this) {
  requestedWorkers_ = dispatcher_.GetNumberOfWorkers();
}

KpController::KpController(const KpController& other)
    : BoardController<KpBoard>(other),
      dispatcher_(other.dispatcher_),
      requestedWorkers_(other.requestedWorkers_) {
  dispatcher_.SetObject(this);
}

KpController& KpController::operator=(const KpController& other) {
  if (this == &other) return *this;
  BoardController<KpBoard>::operator=(other);
  dispatcher_ = other.dispatcher_;
  dispatcher_.SetObject(this);
  requestedWorkers_ = other.requestedWorkers_;
  return *this;
}

KpController::~KpController() = default;

void KpController::SetNumberOfThreads(int n) {
  dispatcher_.SetNumberOfWorkers(n);
  requestedWorkers_ = dispatcher_.GetNumberOfWorkers();
}

bool KpController::IsWired() {
  if (!board_) return false;
  return CheckSizeDefined(board_->status, board_->width, board_->height, kSource, __LINE__);
}

template <typename F>
void KpController::Guarded(F&& body) {
  if (!board_) return;
  try {
    body(*board_);
  } catch (const Status& failure) {
    board_->status = failure;
  } catch (...) {
    board_->status = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Unhandled exception");
  }
}

void KpController::Rows(void (KpController::*work)(int, int), int rows) {
  if (rows <= 0) return;
  if (!board_->allowMultiThreads || rows == 1) {
    (this->*work)(0, rows);
    return;
  }
  dispatcher_.SetNumberOfWorkers(requestedWorkers_);  // a short range lowers it for good otherwise
  dispatcher_.Invoke(work, 0, rows);
}

void KpController::Rows(void (KpController::*work)(void*, int, int, int), void* job, int rows) {
  if (rows <= 0) return;
  if (!board_->allowMultiThreads || rows == 1) {
    (this->*work)(job, 0, 0, rows);
    return;
  }
  dispatcher_.SetNumberOfWorkers(requestedWorkers_);
  dispatcher_.Invoke(work, job, 0, rows);
}

bool KpController::LoadFrame(FrameBuffer& frames, int frame) {
  KpBoard& board = *board_;
  if (frame < 0 || frame >= frames.GetNumberOfFrames()) {
    board.status = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                          "Frame " + std::to_string(frame) + " is not in the frame buffer (" +
                              std::to_string(frames.GetNumberOfFrames()) + " frames)");
    return false;
  }
  board.intensityRange = frames.GetMaxValue();
  board.width = frames.GetColumns();
  board.height = frames.GetRows();
  // The frame is kept as its samples; the doubles and the mask of the previous frame go.
  board.intensity.Reset();
  board.mask.Reset();
  const auto* samples = static_cast<const std::uint8_t*>(frames.GetFrameData(frames.GetSlotOfFrame(frame)));
  const std::size_t bytes = static_cast<std::size_t>(std::max(board.height, 0)) *
                            static_cast<std::size_t>(std::max(board.width, 0)) *
                            static_cast<std::size_t>(frames.GetBytesPerSample());
  board.frameSamples.assign(samples, samples + bytes);
  board.frameResolution = frames.GetElementRes();
  const Window2D window = frames.GetAllocatedWindow();
  board.frameWindow = Window2D(window.GetStartRow(), window.GetStartCol(), board.height, board.width);
  return true;
}

// The frame as a matrix of doubles, for the steps that read it so; made once per frame.
bool KpController::EnsureIntensity() {
  KpBoard& board = *board_;
  if (board.intensity.GetCount() > 0 || board.frameSamples.empty()) return true;
  QUARN_RETURN_IF_FAILED(board.intensity.Resize(board.frameWindow), board.status, board.intensity, false);
  board.intensity.ResetWindow();
  Rows(&KpController::LoadIntensity, board.frameWindow.GetRows());
  return true;
}

template <typename Stored>
static const Stored* FrameRow(const KpBoard& board, int r) {
  return reinterpret_cast<const Stored*>(board.frameSamples.data()) +
         static_cast<std::ptrdiff_t>(r) * board.frameWindow.GetCols();
}

void KpController::LoadIntensity(int first, int end) {
  const int columns = board_->frameWindow.GetCols();
  DispatchSampleType(board_->frameResolution, [&]<typename Stored>(SampleTag<Stored>) {
    for (int r = first; r < end; ++r) {
      const Stored* in = FrameRow<Stored>(*board_, r);
      double* out = board_->intensity.Row(r);
      for (int c = 0; c < columns; ++c)
        out[c] = static_cast<double>(in[c]);
    }
  });
}

// Row r of the frame as the transform's complex samples (imaginary parts 0), padded with zeros to
// the transform's size, as Fft2D::SetData loads a matrix of the frame.
void KpController::LoadTransformRow(void* controller, int r, std::complex<double>* out) {
  const KpBoard& board = *static_cast<KpController*>(controller)->board_;
  const int columns = board.fft.GetColumns();
  const int frameColumns = std::min(board.frameWindow.GetCols(), columns);
  int c = 0;
  if (r < board.frameWindow.GetRows()) {
    DispatchSampleType(board.frameResolution, [&]<typename Stored>(SampleTag<Stored>) {
      const Stored* in = FrameRow<Stored>(board, r);
      for (; c < frameColumns; ++c)
        out[c] = std::complex<double>(static_cast<double>(in[c]), 0.0);
    });
  }
  std::fill(out + c, out + columns, std::complex<double>(0.0, 0.0));
}

void KpController::SetIntensity(FrameBuffer& frames, int frame) {
  Guarded([&](KpBoard&) { LoadFrame(frames, frame); });
}

void KpController::SetIntensity(FrameBuffer& frames, int frame, const RegionIdMatrix2D& mask) {
  Guarded([&](KpBoard& board) {
    if (!LoadFrame(frames, frame)) return;
    if (mask.GetRows() != board.height || mask.GetColumns() != board.width) {
      board.status = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                            "The mask (" + SizeText(mask.GetRows(), mask.GetColumns()) +
                                ") does not match the frame (" + SizeText(board.height, board.width) + ")");
      return;
    }
    QUARN_RETURN_IF_FAILED(board.mask.CopyAll(mask), board.status, board.mask);
  });
}

void KpController::Prepare(const Window2D& window) {
  Guarded([&](KpBoard& board) {
    if (!IsWired()) return;
    board.width = window.GetCols();
    board.height = window.GetRows();
    UpdateFftSize() && UpdateFilterSize() && UpdateFilter();
  });
}

bool KpController::UpdateFftSize() {
  KpBoard& board = *board_;
  if (board.fft.GetRows() == board.height && board.fft.GetColumns() == board.width) return true;
  QUARN_RETURN_IF_FAILED(board.fft.SetSize(board.height, board.width), board.status, board.fft, false);
  return true;
}

bool KpController::UpdateFilterSize() {
  KpBoard& board = *board_;
  if (board.filter.GetRows() == board.height && board.filter.GetColumns() == board.width) return true;
  board.filterValid = false;
  QUARN_RETURN_IF_FAILED(board.filter.Resize(board.height, board.width), board.status, board.filter, false);
  return true;
}

bool KpController::CheckKernel() {
  KpBoard& board = *board_;
  if (board.kernelSelector.GetPixelsPerFringe() >= 1) return true;
  board.status = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                        "The pixels per fringe must be at least 1, not " +
                            std::to_string(board.kernelSelector.GetPixelsPerFringe()));
  return false;
}

bool KpController::UpdateFilter() {
  KpBoard& board = *board_;
  if (board.filterValid) return true;
  if (!CheckKernel()) return false;
  board.filter.SetAll(0.0);
  Rows(&KpController::CalculateFilter, board.height);
  // An earlier failure still in the status leaves the filter marked stale, so the next run builds
  // it again rather than trusting it.
  board.filterValid = board.status.IsOk();
  return true;
}

void KpController::CalculateFilter(int first, int end) {
  detail::CalculateFilterRows(board_->kernelSelector, board_->height, board_->width, board_->filter, first,
                              end);
}

void KpController::ApplyFilter(int first, int end) {
  detail::FilterSpectrumRows(board_->filter, board_->fft, first, end);
}

bool KpController::Process() {
  KpBoard& board = *board_;
  if (!IsWired()) return false;
  StageTimer timer;
  if (!UpdateFftSize() || !UpdateFilterSize() || !UpdateFilter()) return false;
  timer.Done("sizes and filter");
  board.fft.SetAllowMultiThreads(board.allowMultiThreads);
  board.fft.SetNumberOfThreads(requestedWorkers_);
  if (!EnsureIntensity()) return false;
  QUARN_RETURN_IF_FAILED(board.fft.SetData(board.intensity, false, false, false), board.status, board.fft,
                         false);
  timer.Done("load transform");
  QUARN_RETURN_IF_FAILED(board.fft.Transform(false), board.status, board.fft, false);
  timer.Done("forward transform");
  Rows(&KpController::ApplyFilter, board.height);
  timer.Done("filter");
  QUARN_RETURN_IF_FAILED(board.fft.Transform(true), board.status, board.fft, false);
  timer.Done("inverse transform");
  if (board.subtractCarrier) {
    board.carrierSubtractor.SetAllowMultiThreads(board.allowMultiThreads);
    board.carrierSubtractor.SetNumberOfThreads(requestedWorkers_);
    board.carrierSubtractor.SetFringePeriod(board.kernelSelector.GetPixelsPerFringe());
    board.carrierSubtractor.SetOrientation(board.kernelSelector.GetOrientation());
    board.status = board.carrierSubtractor.Execute();
    if (board.status.IsError()) return false;
    timer.Done("carrier removal");
  }
  return true;
}

void KpController::Process(DoubleMatrix2D& phase) {
  // The modulation decides which pixels keep a phase but is not kept: no map of it is made.
  Guarded([&](KpBoard&) { ProcessBody(phase, nullptr); });
}

void KpController::Process(DoubleMatrix2D& phase, DoubleMatrix2D& modulation) {
  Guarded([&](KpBoard&) { ProcessBody(phase, &modulation); });
}

void KpController::ProcessBody(DoubleMatrix2D& phase, DoubleMatrix2D* modulation) {
  KpBoard& board = *board_;
  board.phaseScale = 1.0;
  board.phaseScale = phase.GetUnitManager().GetSlopeToBaseUnit(Analysis::Core::Units::kRadians);
  if (!std::isfinite(board.phaseScale) || board.phaseScale == 0.0) {
    board.status = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                          "The phase map's unit cannot express a phase");
    return;
  }
  ExtractJob job;
  job.phase = &phase;
  job.modulation = modulation;
  job.threshold = board.modulationThreshold / 100.0 * 0.5 * board.intensityRange;
  job.scale = board.dataSign * board.phaseScale;
  job.row = detail::SelectPhaseRow(board.useFastPath);
  StageTimer timer;
  if (board.useFastPath) {
    if (!ProcessFused(phase, job)) return;
    timer.Done("transforms, filter, carrier removal, phase and modulation");
    if (!Trim(phase, board.mask.GetCount() > 0 ? &board.mask : nullptr)) return;
    timer.Done("trim and mask");
  } else {
    if (!Process()) return;
    const int rows = board.fft.GetRows();
    const int columns = board.fft.GetColumns();
    QUARN_RETURN_IF_FAILED(phase.Resize(rows, columns), board.status, phase);
    if (modulation) QUARN_RETURN_IF_FAILED(modulation->Resize(rows, columns), board.status, *modulation);
    timer.Done("pipeline to the carrier removal");
    Rows(&KpController::ExtractPhaseAndModulation, &job, rows);
    timer.Done("phase and modulation");
    if (!ApplyTrim(phase)) return;
    timer.Done("trim");
    ApplyMask(phase);
  }
  if (!Analysis::Core::Calculation::AnyValid(phase)) {
    board.status = Status(0, StatusCode::kNoValidResult, __LINE__, kSource, "");
  }
}

// The steps of Process() and the phase extraction with the frame, the spectrum and the complex
// signal each crossing memory once (see Fft2D::FilterRoundTrip): the filter is applied to each
// column block of the spectrum between its forward and inverse column transforms, and each row of
// the signal is rotated, turned into phase and modulation and marked for the trim (the rule of
// RegionIdMatrix2D::MarkNoDataOf) right after its inverse row transform, in one pass of the row
// kernel. Every pixel sees the arithmetic of the separate steps. The outputs are sized first, as
// the rows are written during the transform. The transform's data is left half-way (its rows are
// inverted in scratch); ProcessRealImag, which reads it, runs the separate steps.
bool KpController::ProcessFused(DoubleMatrix2D& phase, ExtractJob& job) {
  KpBoard& board = *board_;
  if (!IsWired()) return false;
  if (board.lowMemory) {
    if (!UpdateFftSize() || !CheckKernel()) return false;
    // The filter is made block by block in the column pass; a stored one would only hold memory.
    board.filter.Reset();
    board.filterValid = false;
    filterKernel_ = std::make_unique<detail::KpFilterKernel>(board.kernelSelector, board.fft.GetRows(),
                                                             board.fft.GetColumns());
  } else if (!UpdateFftSize() || !UpdateFilterSize() || !UpdateFilter()) {
    return false;
  }
  const int rows = board.fft.GetRows();
  const int columns = board.fft.GetColumns();
  // Every element of the maps is written by the row pass: no clearing first.
  QUARN_RETURN_IF_FAILED(phase.ResizeForOverwrite(rows, columns), board.status, phase, false);
  if (job.modulation) {
    QUARN_RETURN_IF_FAILED(job.modulation->ResizeForOverwrite(rows, columns), board.status, *job.modulation,
                           false);
  }
  QUARN_RETURN_IF_FAILED(board.trimRegions.ResizeForOverwrite(phase.GetMatrixWindow()), board.status,
                         board.trimRegions, false);
  job.noData = &board.trimRegions;
  Status carrierStatus;
  if (board.subtractCarrier) {
    board.carrierSubtractor.SetFringePeriod(board.kernelSelector.GetPixelsPerFringe());
    board.carrierSubtractor.SetOrientation(board.kernelSelector.GetOrientation());
    carrierStatus = board.carrierSubtractor.Prepare();
    if (carrierStatus.IsError()) {
      board.status = carrierStatus;
      return false;
    }
    job.carrier = &board.carrierSubtractor;
  }
  board.fft.SetAllowMultiThreads(board.allowMultiThreads);
  board.fft.SetNumberOfThreads(requestedWorkers_);
  board.fft.SetRoundTripReleasesData(board.lowMemory);
  const Analysis::Core::Fft2D::BlockPass filterPass{
      board.lowMemory ? &KpController::FilterBlockAsItGoes : &KpController::FilterBlock, this};
  const Analysis::Core::Fft2D::RowPass finishPass{&KpController::FinishRow, &job};
  // The frame's rows are converted as the transform loads them; a frame larger than the transform
  // goes through the matrix, whose loading reports it.
  if (!board.frameSamples.empty() && board.frameWindow.GetRows() <= rows &&
      board.frameWindow.GetCols() <= columns) {
    const Analysis::Core::Fft2D::RowPass loadPass{&KpController::LoadTransformRow, this};
    QUARN_RETURN_IF_FAILED(board.fft.FilterRoundTrip(loadPass, filterPass, finishPass), board.status,
                           board.fft, false);
  } else {
    if (!EnsureIntensity()) return false;
    QUARN_RETURN_IF_FAILED(board.fft.FilterRoundTrip(board.intensity, filterPass, finishPass), board.status,
                           board.fft, false);
  }
  if (board.subtractCarrier) board.status = carrierStatus;
  // The window MarkNoDataOf would have given the map.
  board.trimRegions.ResetWindow();
  if (phase.GetWindow() != phase.GetMatrixWindow()) board.trimRegions.SetWindow(phase.GetWindow());
  return true;
}

void KpController::FilterBlock(void* controller, int firstColumn, int columnCount,
                               std::complex<double>* spectrum, std::ptrdiff_t stride) {
  const DoubleMatrix2D& filter = static_cast<KpController*>(controller)->board_->filter;
  detail::FilterSpectrumBlock(filter, firstColumn, columnCount, spectrum, stride);
}

void KpController::FilterBlockAsItGoes(void* controller, int firstColumn, int columnCount,
                                       std::complex<double>* spectrum, std::ptrdiff_t stride) {
  const KpController& self = *static_cast<KpController*>(controller);
  detail::FilterSpectrumBlock(*self.filterKernel_, self.board_->fft.GetRows(), firstColumn, columnCount,
                              spectrum, stride);
}

void KpController::FinishRow(void* data, int r, std::complex<double>* signal) {
  const ExtractJob& job = *static_cast<const ExtractJob*>(data);
  detail::KpPhaseRow row;
  row.z = reinterpret_cast<double*>(signal);
  row.columns = job.phase->GetColumns();
  row.threshold = job.threshold;
  row.scale = job.scale;
  row.noData = DoubleMatrix2D::NoData();
  row.phase = job.phase->Row(r);
  row.modulation = job.modulation ? job.modulation->Row(r) : nullptr;
  if (job.carrier) row.rotators = reinterpret_cast<const double*>(job.carrier->RowRotators(r));
  row.noDataIds = job.noData->Row(r);
  row.invalidId = RegionIdMatrix2D::NoData();
  row.stream = true;
  job.row(row);
}

void KpController::ExtractPhaseAndModulation(void* data, int /*thread*/, int first, int end) {
  const ExtractJob& job = *static_cast<const ExtractJob*>(data);
  detail::KpPhaseRow row;
  row.columns = board_->fft.GetColumns();
  row.threshold = job.threshold;
  row.scale = job.scale;
  row.noData = DoubleMatrix2D::NoData();
  for (int r = first; r < end; ++r) {
    row.z = reinterpret_cast<double*>(board_->fft.GetRow(r));
    row.phase = job.phase->Row(r);
    row.modulation = job.modulation ? job.modulation->Row(r) : nullptr;
    job.row(row);
  }
}

// Valid phase next to a large no-data area (an obscuration, the frame border of a clipped pupil)
// carries the filter's ringing: such areas are grown by one pixel into the valid phase. Small
// holes (single rejected pixels, dust) are left alone.
bool KpController::ApplyTrim(DoubleMatrix2D& phase) {
  if (!board_) return false;
  QUARN_RETURN_IF_FAILED(board_->trimRegions.MarkNoDataOf(phase), board_->status, board_->trimRegions, false);
  return Trim(phase, nullptr);
}

// ApplyTrim once trimRegions holds the no-data areas of the phase; with a mask, ApplyMask in the
// same pass.
bool KpController::Trim(DoubleMatrix2D& phase, const RegionIdMatrix2D* mask) {
  KpBoard& board = *board_;
  StageTimer timer;
  Analysis::Core::RegionFinderConnected finder;
  finder.SetMatrix(board.trimRegions);
  Array<RegionInfo> regions;
  QUARN_RETURN_IF_FAILED(finder.MakeRegions(board.trimRegions, regions), board.status, finder, false);
  timer.Done("trim: no-data regions found");
  // The rows of the kept areas' bounding boxes; rows away from all of them need no dilation.
  const int rows = phase.GetRows();
  trimRows_.resize(static_cast<std::size_t>(rows));
  detail::KeepLargeAreas(board.trimRegions, regions, board.minRegionSizeToTrim, trimRows_);
  timer.Done("trim: small regions deleted");
  QUARN_RETURN_IF_FAILED(board.trimWork.Resize(phase.GetMatrixWindow()), board.status, board.trimWork, false);
  QUARN_RETURN_IF_FAILED(board.trimGrown.Resize(phase.GetMatrixWindow()), board.status, board.trimGrown,
                         false);
  Rows(&KpController::MarkTrimRows, rows);
  timer.Done("trim: mask");
  // Each band of rows is grown and applied by one worker; the dilation reads trimWork on either
  // side of the band, which the previous pass has finished.
  TrimJob job{&phase, mask};
  Rows(&KpController::ApplyTrimRows, &job, rows);
  timer.Done(mask ? "trim: dilation, removal and mask" : "trim: dilation and removal");
  return true;
}

void KpController::MarkTrimRows(int first, int end) {
  detail::MarkTrimRows(board_->trimRegions, trimRows_, board_->trimWork, first, end);
}

void KpController::ApplyTrimRows(void* data, int /*thread*/, int first, int end) {
  const TrimJob& job = *static_cast<const TrimJob*>(data);
  detail::ApplyTrimRows(trimRows_, board_->trimWork, board_->trimGrown, job.mask, *job.phase, first, end);
}

void KpController::ApplyMask(DoubleMatrix2D& phase) {
  detail::ApplyMask(board_->mask, phase);
}

void KpController::ProcessRealImag(DoubleMatrix2D& real, DoubleMatrix2D& imaginary) {
  Guarded([&](KpBoard& board) {
    if (!Process()) return;
    QUARN_RETURN_IF_FAILED(board.fft.GetRealPart(real), board.status, real);
    QUARN_RETURN_IF_FAILED(board.fft.GetImaginaryPart(imaginary), board.status, imaginary);
  });
}

void KpController::GetFilter(DoubleMatrix2D& filter) {
  Guarded([&](KpBoard& board) {
    // A run that computed the filter as it went stored none: it is built for the asker.
    if (!board.filterValid && board.width > 0 && board.height > 0 &&
        !(UpdateFilterSize() && UpdateFilter())) {
      return;
    }
    QUARN_RETURN_IF_FAILED(filter.CopyAll(board.filter), board.status, filter);
  });
}

void KpController::GetTrimRegions(RegionIdMatrix2D& regions) {
  Guarded([&](KpBoard& board) {
    QUARN_RETURN_IF_FAILED(regions.CopyAll(board.trimRegions), board.status, regions);
  });
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase
