#include "Analysis/Core/Status.h"

#include <string>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

TEST(StatusTest, PrintStringNamesCodeSourceLineAndMessage) {
  EXPECT_EQ(Status(27, "Psi\\ConverterGenerator").GetPrintString(), "success");
  const std::string text =
      Status(0, StatusCode::kNotSet, 276, "Swli\\PhaseGenerator", "no algorithm").GetPrintString();
  for (const char* part : {"21", "Swli\\PhaseGenerator:276", "no algorithm"})
    EXPECT_NE(text.find(part), std::string::npos) << text << " lacks " << part;
}

class BracketPrinter : public StatusPrinter {
 public:
  std::string Print(const Status& status) const override {
    return "[film " + std::to_string(status.GetCode()) + "]";
  }
};

TEST(StatusTest, RegisteredPrinterFormatsOnlyItsFacility) {
  BracketPrinter printer;
  Status::Register(StatusFacility::kFilm, &printer);
  EXPECT_EQ(Status(10, 12, 1, "Swli\\Pups\\Fit", "no valid points near pixel").GetPrintString(), "[film 12]");
  EXPECT_NE(Status(0, 12, 1, "x", "").GetPrintString(), "[film 12]");
  Status::Register(StatusFacility::kFilm, nullptr);
  EXPECT_NE(Status(10, 12, 1, "x", "").GetPrintString(), "[film 12]");
}

TEST(StatusTest, CallFailureNamesMemberAndOperationInOwnerSource) {
  Status owner(12, "Swli\\PhaseAlgorithm");
  const Status member(0, StatusCode::kNegativeDimension, 99, "analysis\\core\\DataMatrix", "");
  EXPECT_FALSE(RecordCallFailure(owner, Status(), "surface.Resize", 40));
  EXPECT_TRUE(owner.IsOk());
  EXPECT_TRUE(RecordCallFailure(owner, member, "surface.Resize", 41));
  EXPECT_EQ(owner.GetCode(), StatusCode::kCallFailed);
  EXPECT_EQ(owner.GetMessage(), "Call to surface.Resize failed");
  EXPECT_EQ(owner.GetFile(), "Swli\\PhaseAlgorithm");
  EXPECT_EQ(owner.GetLine(), 41u);

  owner.ClearError();
  EXPECT_TRUE(owner.IsOk());
  EXPECT_EQ(owner.GetFile(), "Swli\\PhaseAlgorithm");
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core
