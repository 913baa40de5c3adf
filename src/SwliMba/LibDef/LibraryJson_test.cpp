// The film-stack description: the example of the documentation is read completely, and every
// malformed or impossible field is refused with a message naming it.
#include "SwliMba/LibDef/LibraryJson.h"

#include <string>

#include <gtest/gtest.h>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {
namespace {

namespace StatusCode = Analysis::Core::StatusCode;

const char* const kExample =
    R"({"materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]},
               "Resist": {"model": "Table", "wavelength_um": [0.4, 0.8], "n": [1.70, 1.62], "k": [0, 0]}},
 "ambient": "Air", "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si",
 "zero_height_layer": 0,
 "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}], "source_cutoff": 0.02,
 "numerical_aperture": 0.2, "polarization": "CircularlyPolarized",
 "vary": [{"layer": 0, "kind": "Thickness", "from_um": 0.05, "to_um": 2.5, "step_um": 0.002}]})";

// The example with the first occurrence of `from` replaced by `to`.
std::string Edited(const std::string& from, const std::string& to) {
  std::string text = kExample;
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

// The layer made of the tabulated resist, its index varied as if it were a Cauchy material.
std::string CauchyVariableOnTableMaterial() {
  std::string text = Edited("\"material\": \"SiO2\"", "\"material\": \"Resist\"");
  const std::string range = "\"kind\": \"Thickness\", \"from_um\": 0.05, \"to_um\": 2.5, \"step_um\": 0.002";
  text.replace(text.find(range), range.size(),
               "\"kind\": \"CauchyN0\", \"from\": 1.6, \"to\": 1.7, \"step\": 0.01");
  return text;
}

TEST(LibraryJsonTest, ReadsTheExample) {
  Library library;
  LibraryJson reader;
  ASSERT_TRUE(reader.Read(kExample, library)) << reader.GetStatus().GetMessage();
  const auto& stack = library.GetPartModel().GetFilmStack();
  EXPECT_EQ(stack.GetAmbient(), "Air");
  EXPECT_EQ(stack.GetSubstrate(), "Si");
  ASSERT_EQ(stack.GetNumberOfLayers(), 1);
  EXPECT_EQ(stack.GetLayer(0).material, "SiO2");
  EXPECT_EQ(stack.GetLayer(0).thicknessUm, 1.0);
  const auto* oxide = library.GetPartModel().GetRefractiveIndexLibrary().GetMaterial("SiO2");
  ASSERT_NE(oxide, nullptr);
  EXPECT_NEAR(oxide->GetIndex(0.6).real(), 1.4485 + 0.00354 / 0.36, 1e-15);
  EXPECT_EQ(library.GetPartModel().GetRefractiveIndexLibrary().FindMaterial("Resist"), -1)
      << "only the materials the stack uses are imported";
  const auto& system = library.GetSystemModel();
  EXPECT_EQ(system.GetNumericalAperture(), 0.2);
  EXPECT_EQ(system.GetPolarization(), PolarizationType::CircularlyPolarized);
  EXPECT_EQ(system.GetSource().GetNumberOfGaussians(), 1);
  EXPECT_EQ(system.GetSource().GetCutOff(), 0.02);
  const auto& v1 = library.GetSkew().GetVariable1();
  EXPECT_EQ(v1.GetKind(), VariableKind::Thickness);
  EXPECT_EQ(v1.GetNumberOfValues(), 1226);
  EXPECT_EQ(library.GetSkew().GetTotalNumberOfConfigurations(), 1226);
}

TEST(LibraryJsonTest, OptionalFieldsAndTwoVariables) {
  const std::string text =
      R"({"materials": {"Resist": {"model": "Table", "wavelength_um": [0.4, 0.8], "n": [1.7, 1.62], "k": [0, 0]},
    "SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]},
    "Si": {"model": "Complex-Cauchy/um", "parameters": [3.9, 0, 0, 0.02, 0, 0]}},
   "ambient": "Air", "layers": [{"material": "Resist", "thickness_um": 0.5}, {"material": "SiO2", "thickness_um": 1.0}],
   "substrate": "Si", "zero_height_layer": 2,
   "source": [{"amplitude": 1, "centre_rad_per_um": 10, "width_rad_per_um": 1}, {"amplitude": 0.5, "centre_rad_per_um": 12, "width_rad_per_um": 0.5}],
   "numerical_aperture": 0.5, "polarization": "LinearlyPolarized",
   "tau": {"magnitude": [0.1, 0, 0, 0, 0, 0], "phase": [0, 0, 0, 0, 0, 0, 0, 0.2]},
   "dispersion": {"no_theta": [0, 0, 0, 0, 0, 0.3], "two_theta": [0, 0, 0, 0, 0, 0.1]},
   "pupil_roll_off": {"model": 6, "parameters": [0, 0.4, 1, 0, 0, 0, 0.5]},
   "vary": [{"layer": 1, "kind": "Thickness", "from_um": 0.75, "to_um": 1.25, "step_um": 0.25},
            {"layer": 1, "kind": "CauchyN0", "from": 1.25, "to": 1.75, "step": 0.25}]})";
  Library library;
  LibraryJson reader;
  ASSERT_TRUE(reader.Read(text, library)) << reader.GetStatus().GetMessage();
  EXPECT_EQ(library.GetPartModel().GetZeroHeightLayerIndex(), 2);
  EXPECT_EQ(library.GetSystemModel().GetPolarization(), PolarizationType::LinearlyPolarized);
  EXPECT_EQ(library.GetSystemModel().GetSource().GetNumberOfGaussians(), 2);
  EXPECT_NEAR(library.GetSystemModel().GetTau().TransmissionRatio(1.0, 1.0).real(), 0.9 * std::cos(0.2),
              1e-15);
  EXPECT_NEAR(library.GetSystemModel().GetDispersion().NoThetaPhaseGap(5, 0.1), 0.3, 1e-15);
  EXPECT_EQ(library.GetSystemModel().GetPupilRollOff().GetModelNumber(), 6);
  EXPECT_FALSE(library.GetSystemModel().GetPupilRollOff().IsUnset());
  EXPECT_EQ(library.GetSkew().GetVariable2().GetKind(), VariableKind::CauchyN0);
  EXPECT_EQ(library.GetSkew().GetTotalNumberOfConfigurations(), 9);
  // The user's Si replaces the built-in table.
  EXPECT_EQ(library.GetPartModel().GetRefractiveIndexLibrary().GetMaterial("Si")->GetIndex(0.6),
            std::complex<double>(3.9, 0.02));
}

struct BadCase {
  std::string name;
  std::string text;
  std::string message;  // the status message, exactly
  unsigned code = StatusCode::kArgumentOutOfRange;
};

class LibraryJsonBadTest : public testing::TestWithParam<BadCase> {};

TEST_P(LibraryJsonBadTest, RefusedNamingTheField) {
  const BadCase& c = GetParam();
  Library library;
  LibraryJson reader;
  EXPECT_FALSE(reader.Read(c.text, library));
  EXPECT_EQ(reader.GetStatus().GetMessage(), c.message);
  EXPECT_EQ(reader.GetStatus().GetCode(), c.code);
  EXPECT_EQ(reader.GetStatus().GetFile(), "SwliMba\\LibDef\\LibraryJson");
}

INSTANTIATE_TEST_SUITE_P(
    Fields, LibraryJsonBadTest,
    testing::Values(
        BadCase{"NotJson", "{\"ambient\": ",
                "not valid JSON: parse error at line 1, column 13: syntax error while parsing value - "
                "unexpected end of input; expected '[', '{', or a literal"},
        BadCase{"NotAnObject", "[1, 2]", "(document): must be a JSON object, not array"},
        BadCase{"UnknownField", Edited("\"zero_height_layer\"", "\"zero_heigth_layer\""),
                "zero_heigth_layer: unknown field"},
        BadCase{"UnknownMaterial", Edited("\"substrate\": \"Si\"", "\"substrate\": \"GaAs\""),
                "substrate: unknown material \"GaAs\""},
        BadCase{"UnknownLayerMaterial", Edited("\"material\": \"SiO2\"", "\"material\": \"SiN\""),
                "layers[0].material: unknown material \"SiN\""},
        BadCase{
            "UnknownModel", Edited("\"Complex-Cauchy/um\"", "\"Sellmeier\""),
            "materials.SiO2.model: unknown model \"Sellmeier\" (known: \"Complex-Cauchy/um\", \"Table\")"},
        BadCase{"WrongParameterCount", Edited("[1.4485, 0.00354, 0, 0, 0, 0]", "[1.4485, 0.00354, 0, 0, 0]"),
                "materials.SiO2.parameters: must hold 6 numbers, not 5"},
        BadCase{"ParameterNotNumber", Edited("[1.4485, 0.00354, 0, 0, 0, 0]", "[1.4485, \"a\", 0, 0, 0, 0]"),
                "materials.SiO2.parameters[1]: must be a number, not string"},
        BadCase{"TableLengths", Edited("\"n\": [1.70, 1.62]", "\"n\": [1.70]"),
                "materials.Resist: wavelength_um, n and k must have the same length (2, 1, 2)"},
        BadCase{"TableOrder", Edited("[0.4, 0.8]", "[0.8, 0.4]"),
                "materials.Resist.wavelength_um[1]: wavelengths must ascend strictly"},
        BadCase{"TableNegativeK", Edited("\"k\": [0, 0]", "\"k\": [0, -0.1]"),
                "materials.Resist.k[1]: must not be negative, not -0.1"},
        BadCase{"NegativeThickness", Edited("\"thickness_um\": 1.0", "\"thickness_um\": -0.1"),
                "layers[0].thickness_um: must not be negative, not -0.1"},
        BadCase{"MissingThickness", Edited(", \"thickness_um\": 1.0", ""), "layers[0].thickness_um: missing",
                StatusCode::kNotSet},
        BadCase{"MissingSubstrate", Edited(", \"substrate\": \"Si\"", ""), "substrate: missing",
                StatusCode::kNotSet},
        BadCase{"LayersNotArray",
                Edited("\"layers\": [{\"material\": \"SiO2\", \"thickness_um\": 1.0}]", "\"layers\": 3"),
                "layers: must be an array, not number"},
        BadCase{"NaTooLarge", Edited("\"numerical_aperture\": 0.2", "\"numerical_aperture\": 1.0"),
                "numerical_aperture: must lie in (0, 1), not 1"},
        BadCase{"NaZero", Edited("\"numerical_aperture\": 0.2", "\"numerical_aperture\": 0"),
                "numerical_aperture: must lie in (0, 1), not 0"},
        BadCase{"MissingNa", Edited("\"numerical_aperture\": 0.2, ", ""), "numerical_aperture: missing",
                StatusCode::kNotSet},
        BadCase{
            "EmptySource",
            Edited("[{\"amplitude\": 1.0, \"centre_rad_per_um\": 10.47, \"width_rad_per_um\": 1.2}]", "[]"),
            "source: must hold at least one Gaussian"},
        BadCase{"SourceWidth", Edited("\"width_rad_per_um\": 1.2", "\"width_rad_per_um\": 0"),
                "source[0].width_rad_per_um: must be positive, not 0"},
        BadCase{"SourceCentre", Edited("\"centre_rad_per_um\": 10.47", "\"centre_rad_per_um\": -1"),
                "source[0].centre_rad_per_um: must be positive, not -1"},
        BadCase{"Cutoff", Edited("\"source_cutoff\": 0.02", "\"source_cutoff\": 1.5"),
                "source_cutoff: must lie in [0, 1), not 1.5"},
        BadCase{"Polarization", Edited("\"CircularlyPolarized\"", "\"circular\""),
                "polarization: must be \"CircularlyPolarized\" or \"LinearlyPolarized\", not \"circular\""},
        BadCase{"ZeroHeightLayer", Edited("\"zero_height_layer\": 0", "\"zero_height_layer\": 2"),
                "zero_height_layer: must lie between 0 and the number of layers (1), not 2"},
        BadCase{"ZeroHeightLayerNotInteger", Edited("\"zero_height_layer\": 0", "\"zero_height_layer\": 0.5"),
                "zero_height_layer: must be an integer, not number"},
        BadCase{"VaryLayerMissing", Edited("\"layer\": 0", "\"layer\": 1"),
                "vary[0].layer: names layer 1, but the stack has 1 layer"},
        BadCase{"VaryKind", Edited("\"kind\": \"Thickness\"", "\"kind\": \"Thick\""),
                "vary[0].kind: must be \"Thickness\", \"CauchyN0\" or \"CauchyK0\", not \"Thick\""},
        BadCase{"VaryInverted", Edited("\"to_um\": 2.5", "\"to_um\": 0.01"),
                "vary[0]: the range is inverted (0.05 to 0.01)"},
        BadCase{"VaryZeroStep", Edited("\"step_um\": 0.002", "\"step_um\": 0"),
                "vary[0].step_um: must be positive, not 0"},
        BadCase{"VaryNegativeThickness", Edited("\"from_um\": 0.05", "\"from_um\": -0.05"),
                "vary[0].from_um: a thickness must not be negative, not -0.05"},
        BadCase{"VaryWrongKeys", Edited("\"from_um\": 0.05", "\"from\": 0.05"),
                "vary[0].from: unknown field"},
        BadCase{"VaryTooMany", Edited("\"step_um\": 0.002", "\"step_um\": 0.0000001"),
                "vary[0]: has 2.45e+07 values, more than the limit of 4000000"},
        BadCase{"CauchyOnTable", CauchyVariableOnTableMaterial(),
                "vary[0].kind: CauchyN0 needs a \"Complex-Cauchy/um\" material, and layer 0 is \"Resist\" "
                "(Table)"}),
    [](const testing::TestParamInfo<BadCase>& info) { return info.param.name; });

}  // namespace
}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef
