// The varied parameters of a library and the scan sampling: kinds by text, value counts of ranges,
// configuration counts, bin counts.
#include "SwliMba/LibDef/Skew.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Analysis/Core/Units.h"
#include "SwliMba/LibDef/Specifications.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {
namespace {

struct KindTextCase {
  std::string text;
  bool accepted;
  int value;  // the stored value afterwards, starting from CauchyK0
};

class VariableKindTextTest : public testing::TestWithParam<KindTextCase> {};

TEST_P(VariableKindTextTest, SetIsCaseBlindAndKeepsTheValueOnFailure) {
  const KindTextCase& c = GetParam();
  VariableKind kind(VariableKind::CauchyK0);
  EXPECT_EQ(kind.Set(c.text), c.accepted);
  EXPECT_EQ(static_cast<int>(kind), c.value);
  EXPECT_EQ(VariableKind::IsValid(c.text), c.accepted);
}

INSTANTIATE_TEST_SUITE_P(Texts, VariableKindTextTest,
                         testing::Values(KindTextCase{"thickness", true, VariableKind::Thickness},
                                         KindTextCase{"THICKNESS", true, VariableKind::Thickness},
                                         KindTextCase{"Undefined", true, VariableKind::Undefined},
                                         KindTextCase{"cauchyn0", true, VariableKind::CauchyN0},
                                         KindTextCase{"CauchyK0", true, VariableKind::CauchyK0},
                                         KindTextCase{"Thick", false, VariableKind::CauchyK0},
                                         KindTextCase{"Thicknesss", false, VariableKind::CauchyK0},
                                         KindTextCase{"", false, VariableKind::CauchyK0},
                                         KindTextCase{"Cauchy N0", false, VariableKind::CauchyK0}));

TEST(VariableKindTest, ToStringNamesTheFourKindsAndNothingElse) {
  const std::vector<std::string> texts = {"Undefined", "Thickness", "CauchyN0", "CauchyK0"};
  for (int v = 0; v < 4; ++v)
    EXPECT_EQ(VariableKind(v).ToString(), texts[v]);
  EXPECT_EQ(VariableKind(7).ToString(), "");
  EXPECT_EQ(VariableKind(-1).ToString(), "");
  VariableKind unchecked;
  unchecked.Set(42);  // the int form stores without a check
  EXPECT_EQ(static_cast<int>(unchecked), 42);
}

struct RangeCase {
  double from, to, increment;
  std::vector<double> values;
};

class VariableRangeTest : public testing::TestWithParam<RangeCase> {};

// The count rounds up, so the last value may pass `to`; a range that the increment divides
// exactly ends on `to` (the film example: 0.05 to 2.5 by 0.002 has 1226 values).
TEST_P(VariableRangeTest, CountAndValues) {
  const RangeCase& c = GetParam();
  VariableSpecification v;
  v.SetRange(c.from, c.to, c.increment);
  ASSERT_EQ(v.GetNumberOfValues(), static_cast<int>(c.values.size()));
  for (int i = 0; i < v.GetNumberOfValues(); ++i)
    EXPECT_NEAR(v.GetValue(i), c.values[i], 1e-12) << "value " << i;
}

INSTANTIATE_TEST_SUITE_P(Ranges, VariableRangeTest,
                         testing::Values(RangeCase{0.0, 1.0, 0.3, {0.0, 0.3, 0.6, 0.9, 1.2}},
                                         RangeCase{0.0, 1.0, 0.25, {0.0, 0.25, 0.5, 0.75, 1.0}},
                                         RangeCase{2.0, 2.0, 0.1, {2.0}},
                                         RangeCase{-1.0, 1.0, 1.0, {-1.0, 0.0, 1.0}}));

TEST(VariableRangeTest, FilmExampleHas1226Values) {
  VariableSpecification v;
  v.SetRange(0.05, 2.5, 0.002);
  EXPECT_EQ(v.GetNumberOfValues(), 1226);
  EXPECT_NEAR(v.GetValue(1225), 2.5, 1e-12);
}

TEST(VariableSpecificationTest, DefaultsAreNotSetAndClearRestoresThem) {
  VariableSpecification v;
  EXPECT_EQ(v.GetRangeFrom(), Analysis::Core::kNoDataDouble);
  EXPECT_EQ(v.GetRangeIncrement(), Analysis::Core::kNoDataDouble);
  EXPECT_EQ(v.GetKind(), VariableKind::Undefined);
  v.SetRange(1, 2, 0.5);
  v.SetLayerIndex(3);
  v.SetKind(VariableKind::Thickness);
  v.Clear();
  EXPECT_EQ(v.GetRangeTo(), Analysis::Core::kNoDataDouble);
  EXPECT_EQ(v.GetLayerIndex(), 0);
  EXPECT_EQ(v.GetKind(), VariableKind::Undefined);
}

struct SkewCase {
  int kind1, kind2;
  int configurations;
  bool oneDimensional, twoDimensional;
};

class SkewConfigurationTest : public testing::TestWithParam<SkewCase> {};

// Variable 1 over 5 values, variable 2 over 3 values.
TEST_P(SkewConfigurationTest, ConfigurationCount) {
  const SkewCase& c = GetParam();
  Skew skew;
  skew.GetVariable1().SetRange(0.0, 1.0, 0.25);
  skew.GetVariable1().SetKind(c.kind1);
  skew.GetVariable2().SetRange(1.5, 2.0, 0.25);
  skew.GetVariable2().SetKind(c.kind2);
  EXPECT_EQ(skew.GetTotalNumberOfConfigurations(), c.configurations);
  EXPECT_EQ(skew.IsOneDimensional(), c.oneDimensional);
  EXPECT_EQ(skew.IsTwoDimensional(), c.twoDimensional);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SkewConfigurationTest,
    testing::Values(SkewCase{VariableKind::Undefined, VariableKind::Undefined, 1, true, false},
                    // Variable 2 alone is ignored.
                    SkewCase{VariableKind::Undefined, VariableKind::Thickness, 1, false, false},
                    SkewCase{VariableKind::Thickness, VariableKind::Undefined, 5, true, false},
                    SkewCase{VariableKind::Thickness, VariableKind::CauchyN0, 15, false, true}));

TEST(SpecificationsTest, BinsAndRampSlopeUnit) {
  Specifications s;
  EXPECT_EQ(s.GetNumberOfBins(), 1);
  s.SetNumberOfSamples(1024);
  EXPECT_EQ(s.GetNumberOfBins(), 513);
  s.SetNumberOfSamples(127);
  EXPECT_EQ(s.GetNumberOfBins(), 64);
  EXPECT_DOUBLE_EQ(s.GetRampSlope().GetValue(), 0.03);
  EXPECT_EQ(s.GetRampSlope().GetConverter().GetBaseUnit(), Analysis::Core::Units::kNanometersPerFrame);
  s.GetRampSlope().SetValue(80.0);
  EXPECT_DOUBLE_EQ(s.GetRampSlope().GetValue(Analysis::Core::Units::kMicrometersPerFrame), 0.08);
  s.Clear();
  EXPECT_EQ(s.GetNumberOfSamples(), 0);
  EXPECT_DOUBLE_EQ(s.GetRampSlope().GetValue(), 0.03);
}

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef
