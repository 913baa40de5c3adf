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

// A member whose next operation fails with a record of its own, and an owner that passes such
// failures up the two ways the library does: as a named call failure, or as the member's record.
struct Member {
  bool Resize(bool succeed) {
    if (!succeed) status = Status(0, StatusCode::kNegativeDimension, 99, "analysis\\core\\DataMatrix", "");
    return succeed;
  }
  const Status& GetStatus() const {
    ++statusReads;
    return status;
  }
  Status status;
  mutable int statusReads = 0;
};

struct Owner {
  void Run(bool succeed) {
    QUARN_RETURN_IF_CALL_FAILED(member.Resize(succeed), status, "Swli\\PhaseAlgorithm", member,
                                "member.Resize");
    reachedEnd = true;
  }
  bool Copy(bool succeed) {
    QUARN_RETURN_IF_FAILED(member.Resize(succeed), status, member, false);
    return true;
  }
  Member member;
  Status status{7, "Swli\\PhaseAlgorithm"};
  bool reachedEnd = false;
};

TEST(StatusTest, CallFailureMacroRecordsCodeSixAndLeavesTheFunction) {
  Owner owner;
  owner.Run(true);
  EXPECT_TRUE(owner.reachedEnd);
  EXPECT_TRUE(owner.status.IsOk());
  EXPECT_EQ(owner.member.statusReads, 0) << "a successful call reads no status";

  owner.reachedEnd = false;
  owner.Run(false);
  EXPECT_FALSE(owner.reachedEnd);
  EXPECT_EQ(owner.status.GetCode(), StatusCode::kCallFailed);
  EXPECT_EQ(owner.status.GetMessage(), "Call to member.Resize failed");
  EXPECT_EQ(owner.status.GetFile(), "Swli\\PhaseAlgorithm");
  EXPECT_GT(owner.status.GetLine(), 0u);
  EXPECT_NE(owner.status.GetLine(), 7u) << "the line of the call site, not of the owner's construction";
}

TEST(StatusTest, CopyMacroPassesTheMembersOwnRecordAndReturnsTheValue) {
  Owner owner;
  EXPECT_TRUE(owner.Copy(true));
  EXPECT_TRUE(owner.status.IsOk());
  EXPECT_FALSE(owner.Copy(false));
  EXPECT_EQ(owner.status.GetCode(), StatusCode::kNegativeDimension);
  EXPECT_EQ(owner.status.GetLine(), 99u);
  EXPECT_EQ(owner.status.GetFile(), "analysis\\core\\DataMatrix");
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core
