#include "Core/Board/WiringCheck.h"

#include <gtest/gtest.h>

#include "Core/Board/BoardController.h"
#include "Core/Board/Undefined.h"

namespace Quarn::Metrology::PhaseProcessing::Core {
namespace {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

// A minimal pipeline in the board/controller shape: the board holds everything, the controller
// only its pointer to the board.
struct ToyBoard {
  const int* input = nullptr;
  double radius = kUndefinedDouble;
  int count = kUndefinedInt;
  Status status{__LINE__, "Testing\\ToyBoard"};
};

class ToyController : public BoardController<ToyBoard> {
 public:
  using BoardController::BoardController;
  static constexpr const char* kSource = "Testing\\ToyController";

  // Reports the lines of its first and last test so the test can check which one is recorded.
  bool CheckWired(unsigned& inputLine, unsigned& countLine) {
    return WiringCheck(board_->status, StatusCode::kControllerFailed, kSource)
        .Require(board_->input != nullptr, inputLine = __LINE__)
        .RequireDefined(board_->radius, __LINE__)
        .RequireDefined(board_->count, countLine = __LINE__)
        .Passed();
  }
};

TEST(WiringCheckTest, LastFailingTestNamesTheStatusAndTestingGoesOn) {
  ToyBoard board;
  ToyController controller(board);
  unsigned inputLine = 0, countLine = 0;
  EXPECT_FALSE(controller.CheckWired(inputLine, countLine));
  EXPECT_EQ(board.status.GetCode(), StatusCode::kControllerFailed);
  EXPECT_EQ(board.status.GetLine(), countLine) << "three tests fail; the last one is left";
  EXPECT_EQ(board.status.GetFile(), "Testing\\ToyController");
  EXPECT_EQ(board.status.GetMessage(), "");

  int pixel = 0;
  board.input = &pixel;
  board.radius = 3.0;
  board.count = 5;
  board.status = Status(1, "Testing\\ToyBoard");
  EXPECT_TRUE(controller.CheckWired(inputLine, countLine));
  EXPECT_TRUE(board.status.IsOk());

  board.radius = 1.7976931348623157e308;  // undefined again
  board.input = nullptr;
  EXPECT_FALSE(controller.CheckWired(inputLine, countLine));
  EXPECT_NE(board.status.GetLine(), inputLine) << "the radius test comes after the input test";
}

TEST(WiringCheckTest, SizeCheckTestsTheWidthFirst) {
  Status status(1, "Psi\\Kinephase\\KpController");
  EXPECT_FALSE(CheckSizeDefined(status, 0, 0, "Psi\\Kinephase\\KpController", 77));
  EXPECT_EQ(status.GetCode(), StatusCode::kNotSet);
  EXPECT_EQ(status.GetMessage(), "The width is undefined");
  EXPECT_FALSE(CheckSizeDefined(status, 640, -1, "Psi\\Kinephase\\KpController", 78));
  EXPECT_EQ(status.GetMessage(), "The height is undefined");
  EXPECT_EQ(status.GetLine(), 78u);
  EXPECT_TRUE(CheckSizeDefined(status, 640, 480, "Psi\\Kinephase\\KpController", 79));
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core
