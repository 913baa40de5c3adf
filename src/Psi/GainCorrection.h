#pragma once

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/NoData.h"
#include "Analysis/Core/Status.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

// GainCorrection
//
// The per-pixel half of the scanner gain estimate: from the intensities of one pixel in a stack of
// phase-shifted frames, a contribution to one number that says how far the phase shifter's real
// step departs from the nominal one, averaged over all usable pixels of the stack. Zero means a
// calibrated shifter; the sign follows the error (a shifter that moves too far and one that moves
// too little give opposite signs) and the size grows with it.
//
// A `GainCorrectionCalculator` drives an algorithm: `SetFrameBuffer` and `SetMinimumModulation`
// (percent of the frame buffer's saturation level), then `Intialize` with the number of worker
// threads (the name is spelled so on purpose), `ProcessPixel` from the workers (with the thread
// index and the pixel's samples, frame 0 first), and `PostProcess`, after which
// `GetGainCorrection()` holds the result: the no-data value (the largest finite double) with code 1
// in `GetStatus()` when no pixel contributed.
//
// `GainCorrectionPmi` serves 7- and 13-frame stacks, `GainCorrectionSinPsi` stacks of 20 or more
// frames of a sinusoidally driven shifter.
class QUARN_PP_EXPORT GainCorrection {
 public:
  // Intensities below this sum of four samples carry too little light to take part.
  static constexpr int MinimumAmplitude = 15;

  virtual ~GainCorrection() = default;
  virtual double GetModulationScale() const = 0;
  virtual double GetGainCorrection() const = 0;
  virtual void SetFrameBuffer(Analysis::Core::FrameBuffer* frames) = 0;
  virtual void SetMinimumModulation(double percent) = 0;
  virtual void ProcessPixel(int thread, const int* samples) = 0;
  virtual void ProcessPixel(int thread, const unsigned char* samples) = 0;
  virtual void Intialize(int numberOfThreads) = 0;
  virtual void PostProcess() = 0;
  virtual Analysis::Core::Status& GetStatus() = 0;

 protected:
  GainCorrection() = default;
  GainCorrection(const GainCorrection&) = default;
  GainCorrection& operator=(const GainCorrection&) = default;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi
