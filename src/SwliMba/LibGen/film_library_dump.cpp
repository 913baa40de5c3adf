// film_library_dump STACK.json SAMPLES STEP_NM [OVERSAMPLING NODES_PER_INTERVAL]
//
// Generates the library a film-stack description defines and writes, as JSON on standard output,
// the integration grid, the valid bins, every configuration's spectrum and the perfect mirror's:
// what the independent numpy implementation (tools/qphase/reference/film_reference.py) needs to
// recompute the same spectra and compare them bin by bin. A test program, not installed.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "SwliMba/LibDef/LibraryJson.h"
#include "SwliMba/LibGen/LgIntegrationGrid.h"
#include "SwliMba/LibGen/LibraryGenerator.h"

using namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba;

int main(int argc, char** argv) {
  if (argc != 4 && argc != 6) {
    std::fprintf(stderr,
                 "usage: film_library_dump STACK.json SAMPLES STEP_NM [OVERSAMPLING NODES_PER_INTERVAL]\n");
    return 2;
  }
  std::ifstream file(argv[1]);
  std::stringstream text;
  text << file.rdbuf();
  if (!file) {
    std::fprintf(stderr, "film_library_dump: cannot read %s\n", argv[1]);
    return 2;
  }
  LibDef::Library library;
  LibDef::LibraryJson reader;
  if (!reader.Read(text.str(), library)) {
    std::fprintf(stderr, "film_library_dump: %s: %s\n", argv[1], reader.GetStatus().GetMessage().c_str());
    return 2;
  }
  library.GetSpecifications().SetNumberOfSamples(std::atoi(argv[2]));
  library.GetSpecifications().GetRampSlope().SetValue(std::atof(argv[3]));
  LibGen::LibraryGenerator generator;
  if (argc == 6) {
    generator.SetWavenumberOversampling(std::atof(argv[4]));
    generator.SetAngularNodesPerInterval(std::atoi(argv[5]));
  }
  if (!generator.Generate(library)) {
    std::fprintf(stderr, "film_library_dump: %s\n", generator.GetStatus().GetPrintString().c_str());
    return 1;
  }
  const LibGen::LgIntegrationGrid& grid = generator.GetIntegrationGrid();
  nlohmann::json out;
  out["grid"] = {{"k_lo", grid.LowWavenumber()},
                 {"k_hi", grid.HighWavenumber()},
                 {"n_k", grid.NumberOfWavenumbers()},
                 {"nodes_per_interval", grid.NodesPerInterval()},
                 {"azimuth_nodes", generator.GetAzimuthNodes()},
                 {"breakpoints", grid.AngleBreakpoints()},
                 {"k", grid.Wavenumbers()},
                 {"cos_beta", grid.Cosines()}};
  const LibDef::Spectra& spectra = library.GetSpectra();
  out["first_bin"] = spectra.GetFirstBinValid();
  out["last_bin"] = spectra.GetLastBinValid();
  auto interleave = [](const LibDef::Spectra::Spectrum& s) {
    nlohmann::json row = nlohmann::json::array();
    for (const auto& v : s) {
      row.push_back(v.real());
      row.push_back(v.imag());
    }
    return row;
  };
  out["spectra"] = nlohmann::json::array();
  for (int i = 0; i < spectra.GetNumberOfSpectra(); ++i)
    out["spectra"].push_back(interleave(*spectra.GetSpectrum(i)));
  out["mirror"] = interleave(spectra.GetPerfectMirrorSpectrum());
  std::cout << out.dump() << "\n";
  return 0;
}
