#pragma once

#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::PhaseProcessing::Core {

// BoardController<Board>
//
// Base of the controllers of the pipeline algorithms. A pipeline keeps all state of one instance in
// a board (parameters with their defaults, pointers to the caller's inputs, working matrices, the
// status); its controller keeps nothing but the pointer to the board it is wired to and runs the
// steps against it. A controller is made bound to its board or is given it later with `SetBoard`.
template <typename Board>
class BoardController {
 public:
  BoardController() = default;
  explicit BoardController(Board& board) : board_(&board) {}
  virtual ~BoardController() = default;

  void SetBoard(Board& board) { board_ = &board; }
  Board* GetBoard() const { return board_; }
  bool HasBoard() const { return board_ != nullptr; }

 protected:
  Board* board_ = nullptr;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core
