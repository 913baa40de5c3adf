#pragma once

#include <cstdint>
#include <vector>

#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/Fft2D.h"
#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Status.h"
#include "Analysis/Core/Window2D.h"
#include "Psi/Kinephase/KpCarrierSubtractor.h"
#include "Psi/Kinephase/KpController.h"
#include "Psi/Kinephase/KpKernelSelector.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase {

// KpBoard
//
// Everything one carrier-fringe pipeline instance holds: its parameters (with the defaults below,
// restored by `Clear`), the frame as doubles with its optional mask, the filter, the transform, the
// carrier subtractor, the trim's working maps, the status, and the controller that runs the steps,
// wired to this board. `KinephaseAlgorithm` holds one by value and reads and writes its fields.
//
// Units and conventions: the frame is `height` rows by `width` columns; the filter is real, in the
// transform's bin order (zero frequency at row 0, column 0); `modulationThreshold` is in percent of
// half the intensity range (half the saturation level: the largest modulation an unclipped fringe
// can have); `phaseScale` turns radians into the phase map's unit; `dataSign` multiplies the phase.
class QUARN_PP_EXPORT KpBoard {
 public:
  KpBoard();
  KpBoard(const KpBoard& other);
  KpBoard& operator=(const KpBoard& other);
  virtual ~KpBoard();

  // Restores the parameter defaults; the frame, the mask and the working data stay.
  void Clear();

  bool allowMultiThreads = true;
  bool filterValid = false;
  bool subtractCarrier = true;
  bool useTrim = false;  // stored and reported only: the trim always runs
  int dataSign = -1;
  int width = 0;
  int height = 0;
  int intensityRange = 255;
  // The trim removes a one-pixel rim of valid phase around every no-data area (8-connected) of at
  // least this many pixels and leaves smaller holes alone.
  int minRegionSizeToTrim = 10;
  double phaseScale = 1.0;
  double modulationThreshold = 0.0;
  Analysis::Core::DoubleMatrix2D filter;
  // The frame as doubles, made only for the steps that need it as a matrix (the pipeline run step
  // by step, ProcessRealImag); the fused run converts each row of `frameSamples` as the transform
  // loads it, and a new frame releases it.
  Analysis::Core::DoubleMatrix2D intensity;
  // Empty unless a mask came with the frame: without one every pixel is in.
  Analysis::Core::RegionIdMatrix2D mask;
  // The frame as the camera delivered it (a quarter of the doubles' memory at 16 bits): rows of
  // frameWindow.GetCols() samples of frameResolution, in the camera frame at frameWindow.
  std::vector<std::uint8_t> frameSamples;
  Analysis::Core::FrameBuffer::ElementRes frameResolution = Analysis::Core::FrameBuffer::kRes8Bit;
  Analysis::Core::Window2D frameWindow;
  KpCarrierSubtractor carrierSubtractor;
  KpController controller;
  KpKernelSelector kernelSelector;
  Analysis::Core::Fft2D fft;
  Analysis::Core::RegionIdMatrix2D trimRegions;         // the no-data areas the trim grows
  Analysis::Core::DataMatrix2D<std::uint8_t> trimWork;  // 1 on those areas
  // trimWork grown by one pixel: the phase pixels the trim removes. Kept here so that the dilation
  // of every frame reuses it.
  Analysis::Core::DataMatrix2D<std::uint8_t> trimGrown;
  Analysis::Core::Status status;
  // The fast path does the filtering, the carrier removal, the phase extraction and the marking of
  // no-data pixels inside the passes of the transform, while the data is in cache, and takes the
  // phase four pixels at a time with a vector atan2 (within a few ulp of libm's; everything else
  // bit for bit the same); false runs the steps one after the other with libm's atan2.
  bool useFastPath = true;
  // For a host that processes one frame and keeps its maps: the fast path computes the filter inside
  // the column pass instead of storing it (the stored one is dropped; GetFilter builds it on
  // demand), and the transform gives its memory back as the last pass reads it, while the phase and
  // modulation maps fill up. Results are the same to the bit; each frame then pays for the filter's
  // exponentials and for faulting the transform's memory in again.
  bool lowMemory = false;

 private:
  void Wire();
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase
