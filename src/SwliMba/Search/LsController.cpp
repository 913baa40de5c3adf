#include "SwliMba/Search/LsController.h"

#include "Analysis/Core/DebugChannel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

LsController::LsController() = default;
LsController::LsController(LsBoard& board) : BoardController<LsBoard>(board) {}

void LsController::Fail(unsigned code, unsigned line, const char* message) {
  board_->status = Status(0, code, line, kSource, message);
}

bool LsController::Prepare(bool modulationOnly, int threads) {
  LsBoard& board = *board_;
  if (board.perfectMirrorSignal.GetNumberOfBins() < 1) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "Perfect mirror signal is undefined");
    return false;
  }
  if (board.libraries.Size() < 1) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "No libraries have been defined");
    return false;
  }
  if (board.libraries.GetTotalNumberOfSignals() < 1) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "All libraries are empty");
    return false;
  }
  if (!board.frameBuffer) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "frameBuffer == 0");
    return false;
  }
  const Analysis::Core::Window2D window = board.frameBuffer->GetAllocatedWindow();
  if (board.searchRegions && !(board.searchRegions->GetMatrixWindow() == window)) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "SearchRegions.Window does not match FrameBuffer.Window");
    return false;
  }
  if (modulationOnly && !board.modulationMap) {
    Fail(StatusCode::kArgumentOutOfRange, __LINE__, "board.modulationMap == 0");
    return false;
  }
  // The maps take the window's shape (and origin) when they have another.
  for (auto* map : {board.heightMap, board.thicknessMap, board.metricMap, board.confidenceMap,
                    board.modulationMap, board.bestLibraryIdMap, board.bestSignalIdMap}) {
    if (!map || map->GetMatrixWindow() == window) continue;
    if (!map->Resize(window)) {
      board.status = map->GetStatus();
      return false;
    }
  }
  int first = 0, last = 0, coreFirst = 0, coreLast = 0;
  if (!modulationOnly) {
    LsSignalProcessor mirror;
    if (!mirror.FindCarrier(board.perfectMirrorSignal.Get().Data(),
                            board.perfectMirrorSignal.GetNumberOfBins())) {
      board.status = mirror.GetStatus();
      return false;
    }
    first = mirror.GetFirstBin();
    last = mirror.GetLastBin();
    coreFirst = mirror.GetFirstCoreBin();
    coreLast = mirror.GetLastCoreBin();
    for (int l = 0; l < board.libraries.Size(); ++l) {
      LsLibrary& library = board.libraries.At(l);
      if (library.GetNumberOfSignals() > 0 && !library.Prepare(first, last, coreFirst, coreLast)) {
        board.status = library.GetStatus();
        return false;
      }
    }
  }
  const Status threadData = board.frameBuffer->MakeThreadData(threads);
  if (threadData.IsError()) {
    board.status = threadData;
    return false;
  }
  try {
    processors_.resize(static_cast<std::size_t>(threads));
    for (auto& processor : processors_) {
      if (!processor) processor = std::make_unique<LsPixelProcessor>();
      if (!modulationOnly && !processor->Init(board, first, last, coreFirst, coreLast)) {
        board.status = processor->GetStatus();
        return false;
      }
    }
  } catch (const std::bad_alloc&) {
    Fail(StatusCode::kAllocationFailed, __LINE__, "Allocation of pixel processor failed");
    return false;
  }
  modulationOnly_ = modulationOnly;
  return true;
}

void LsController::Rows(int thread, int first, int end) {
  LsPixelProcessor& processor = *processors_[static_cast<std::size_t>(thread)];
  const int columns = board_->frameBuffer->GetColumns();
  for (int row = first; row < end; ++row) {
    Analysis::Core::debug_printf("Processing row %d\n", row);
    processor.ProcessRow(thread, row, 0, columns, modulationOnly_);
    if (board_->rowDone) board_->rowDone(row);
  }
}

void LsController::Execute(bool modulationOnly) {
  if (!board_) return;
  const int threads =
      board_->allowMultiThreads
          ? (board_->numberOfThreads > 0 ? std::min(board_->numberOfThreads, dispatcher_.GetNumberOfThreads())
                                         : dispatcher_.GetNumberOfThreads())
          : 1;
  if (!Prepare(modulationOnly, threads)) return;
  dispatcher_.SetNumberOfWorkers(threads);
  try {
    dispatcher_.Invoke(&LsController::Rows, 0, board_->frameBuffer->GetRows());
  } catch (const Status& failure) {
    board_->status = failure;
  } catch (...) {
    Fail(StatusCode::kCallFailed, __LINE__, "Unhandled exception");
  }
}

bool LsController::CheckPixel(int row, int column) {
  if (!board_) return false;
  if (!board_->frameBuffer) {
    Fail(StatusCode::kCallFailed, __LINE__, "frameBuffer has not been set");
    return false;
  }
  if (row < 0 || column < 0 || row >= board_->frameBuffer->GetRows() ||
      column >= board_->frameBuffer->GetColumns()) {
    Fail(StatusCode::kOutsideWindow, __LINE__, "pixel position lies outside the framebuffer window");
    return false;
  }
  return true;
}

LsPixelProcessor* LsController::PreparePixel(int row, int column) {
  if (!Prepare(false, 1)) return nullptr;
  processors_[0]->LoadSinglePixel(row, column);
  return processors_[0].get();
}

void LsController::ProcessSinglePixel(int row, int column) {
  if (!CheckPixel(row, column) || !Prepare(false, 1)) return;
  try {
    processors_[0]->ProcessRow(0, row, column, column + 1, false);
  } catch (const Status& failure) {
    board_->status = failure;
  } catch (...) {
    Fail(StatusCode::kCallFailed, __LINE__, "Unhandled exception");
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
