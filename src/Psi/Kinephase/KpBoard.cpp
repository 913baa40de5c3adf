#include "Psi/Kinephase/KpBoard.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

namespace {
constexpr const char* kSource = "Psi\\Kinephase\\KpBoard";
}  // namespace

KpBoard::KpBoard() : status(__LINE__, kSource) {
  Wire();
}

KpBoard::KpBoard(const KpBoard& other)
    : allowMultiThreads(other.allowMultiThreads),
      filterValid(other.filterValid),
      subtractCarrier(other.subtractCarrier),
      useTrim(other.useTrim),
      dataSign(other.dataSign),
      width(other.width),
      height(other.height),
      intensityRange(other.intensityRange),
      minRegionSizeToTrim(other.minRegionSizeToTrim),
      phaseScale(other.phaseScale),
      modulationThreshold(other.modulationThreshold),
      filter(other.filter),
      intensity(other.intensity),
      mask(other.mask),
      frameSamples(other.frameSamples),
      frameResolution(other.frameResolution),
      frameWindow(other.frameWindow),
      carrierSubtractor(other.carrierSubtractor),
      controller(other.controller),
      kernelSelector(other.kernelSelector),
      fft(other.fft),
      trimRegions(other.trimRegions),
      trimWork(other.trimWork),
      trimGrown(other.trimGrown),
      status(other.status),
      useFastPath(other.useFastPath),
      lowMemory(other.lowMemory) {
  Wire();
}

KpBoard& KpBoard::operator=(const KpBoard& other) {
  if (this == &other) return *this;
  allowMultiThreads = other.allowMultiThreads;
  filterValid = other.filterValid;
  subtractCarrier = other.subtractCarrier;
  useTrim = other.useTrim;
  dataSign = other.dataSign;
  width = other.width;
  height = other.height;
  intensityRange = other.intensityRange;
  minRegionSizeToTrim = other.minRegionSizeToTrim;
  phaseScale = other.phaseScale;
  modulationThreshold = other.modulationThreshold;
  filter = other.filter;
  intensity = other.intensity;
  mask = other.mask;
  frameSamples = other.frameSamples;
  frameResolution = other.frameResolution;
  frameWindow = other.frameWindow;
  carrierSubtractor = other.carrierSubtractor;
  controller = other.controller;
  kernelSelector = other.kernelSelector;
  fft = other.fft;
  trimRegions = other.trimRegions;
  trimWork = other.trimWork;
  trimGrown = other.trimGrown;
  status = other.status;
  useFastPath = other.useFastPath;
  lowMemory = other.lowMemory;
  Wire();
  return *this;
}

KpBoard::~KpBoard() = default;

void KpBoard::Clear() {
  allowMultiThreads = true;
  subtractCarrier = true;
  useTrim = false;
  dataSign = -1;
  minRegionSizeToTrim = 10;
  phaseScale = 1.0;
  modulationThreshold = 0.0;
  if (kernelSelector != KpKernelSelector()) {
    kernelSelector = KpKernelSelector();
    filterValid = false;
  }
}

// A copy must run its own steps on its own data: the controller and the carrier subtractor point
// at this board and this board's transform, never at the original's.
void KpBoard::Wire() {
  controller.SetBoard(*this);
  carrierSubtractor.SetFft(fft);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase
