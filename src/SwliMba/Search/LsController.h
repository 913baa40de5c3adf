#pragma once

#include <memory>
#include <vector>

#include "Analysis/Core/Threading/ThreadDispatcher.h"
#include "Core/Board/BoardController.h"
#include "SwliMba/Search/LsBoard.h"
#include "SwliMba/Search/LsPixelProcessor.h"
#include "SwliMba/Search/LsSignalProcessor.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsController
//
// Runs a library search against its board: checks the preconditions, prepares the libraries for
// the band of the perfect-mirror signal, gives every worker thread its pixel processor and
// spreads the rows of the frame-buffer window over the workers. Every failure lands in the board
// status and stops the run.
class LsController : public BoardController<LsBoard> {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsController";

  LsController();
  explicit LsController(LsBoard& board);
  LsController(const LsController&) = delete;
  LsController& operator=(const LsController&) = delete;

  void Execute(bool modulationOnly);
  // One pixel (row and column within the frame-buffer window), on the calling thread.
  void ProcessSinglePixel(int row, int column);

  // For the diagnostics: false with the status set when there is no frame buffer or the pixel
  // lies outside its window.
  bool CheckPixel(int row, int column);
  // Prepares a one-thread search and loads the pixel (already checked) into the processor's slot
  // 0; null with the status set when the search cannot be prepared.
  LsPixelProcessor* PreparePixel(int row, int column);

 private:
  bool Prepare(bool modulationOnly, int threads);
  void Rows(int thread, int first, int end);
  void Fail(unsigned code, unsigned line, const char* message);

  Analysis::Core::Threading::ThreadDispatcher<LsController> dispatcher_{this};
  std::vector<std::unique_ptr<LsPixelProcessor>> processors_;
  bool modulationOnly_ = false;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
