#pragma once

#include <string>

#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"
#include "SwliMba/LibDef/Library.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

// LibraryJson
//
// Reads a film-stack description (the STACK.json of `qphase film`) into a library definition: the
// part model (materials, ambient, layers, substrate, zero-height layer), the system model (source,
// numerical aperture, polarisation and the optional instrument terms) and the skew. The scan
// sampling (`Specifications`) is the caller's. Example:
//
//   {"materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]},
//                  "Resist": {"model": "Table", "wavelength_um": [0.4, 0.8], "n": [1.70, 1.62], "k": [0,
//                  0]}},
//    "ambient": "Air", "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si",
//    "zero_height_layer": 0,
//    "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}], "source_cutoff":
//    0.02, "numerical_aperture": 0.2, "polarization": "CircularlyPolarized", "vary": [{"layer": 0, "kind":
//    "Thickness", "from_um": 0.05, "to_um": 2.5, "step_um": 0.002}]}
//
// Fields: "materials" (optional; "Air" and "Si" are built in, a material of the same name replaces
// the built-in one), "ambient", "layers" (top to bottom, possibly empty), "substrate", "source"
// (at least one Gaussian in angular wavenumber, rad/µm) and "numerical_aperture" (0 < NA < 1) are
// required; "zero_height_layer" (0 .. number of layers, default 0), "source_cutoff" (0 ≤ c < 1,
// default 0.02), "polarization" ("CircularlyPolarized" or "LinearlyPolarized", default circular),
// "vary" (up to two variables, variable 2 varying fastest), "tau" ({"magnitude": [6 numbers],
// "phase": [8 numbers]}), "dispersion" ({"no_theta": [6], "two_theta": [6]}) and "pupil_roll_off"
// ({"model": 0..6, "parameters": [7 numbers]}) are optional. A variable is {"layer", "kind"} with
// "from_um", "to_um", "step_um" for a Thickness and "from", "to", "step" for CauchyN0 / CauchyK0
// (which need a "Complex-Cauchy/um" layer); its range must be non-empty (from ≤ to, step > 0).
//
// Anything else is refused, unknown fields included, with a message that names the field the way
// it is written ("layers[1].thickness_um: must not be negative, not -0.1"); the library may then
// be partly filled. Status source "SwliMba\LibDef\LibraryJson": code 20 for a malformed or
// impossible value, code 21 for a missing field.
class QUARN_PP_EXPORT LibraryJson {
 public:
  LibraryJson();

  // Fills `library` (which should be fresh or cleared) from the JSON text.
  bool Read(const std::string& text, Library& library);

  // The largest number of configurations `Read` accepts (the library is held in memory).
  static constexpr long long kMaxConfigurations = 4'000'000;

  Analysis::Core::Status& GetStatus() { return status_; }
  const Analysis::Core::Status& GetStatus() const { return status_; }

 private:
  Analysis::Core::Status status_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef
