#pragma once

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/IntMatrix2D.h"
#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

namespace AnalysisCore = ::Quarn::Metrology::Analysis::Core;

// FindPeakFrames
//
// The coherence discriminator: for every pixel of a white-light scan, the stored frame
// at which its fringes are strongest, which the evaluation then centres its signal window on.
//
// Fringes change the intensity from frame to frame, and the more so the stronger they are; a
// constant or slowly varying background does not. The fringe energy at frame k is
//
//   E(k) = sum over j = k-4 .. k+4 of (s[j+1] - s[j-1])^2,
//
// the squared two-frame differences (which see fringes of about four frames per period best) summed
// over nine frames (about two fringes, which smooths away the fringe's own phase). The peak frame
// is the k of largest E (on ties the one the scan reached first), searched over k = 5 .. F-6 so
// that every window is complete; a pixel whose signal never changes gets peak frame 0 ("unknown").
// The result is a stored frame: for a reversed scan, frame p sits where frame F - p of a forward
// scan would, and the generator mirrors it so.
//
// 8- and 16-bit scans run a vectorised path (AVX-512 with BW and VNNI where the processor has them,
// else AVX2 with FMA, else SSE2) that sums the squared differences exactly and updates each pixel's
// best frame without a branch: 8-bit scans in 32-bit integers; 16-bit scans in unsigned 32-bit
// integers where a run of pixels stays below 2^14 (as 12- and 14-bit cameras deliver it), else in
// 64-bit integers (AVX-512) or in doubles (AVX2, which has no 64-bit maximum; doubles hold these
// sums below 2^53 exactly). 32-bit scans, and `FindPeakFramesReference` always, run the plain path, one pixel
// after another in doubles. All sums are exact, so the paths find the same frames, and the result
// does not depend on the number of threads (rows are shared among them; `threads` < 1 means every
// processor).
//
// `peakFrames` is resized to the frame buffer's window.
QUARN_PP_EXPORT void FindPeakFrames(AnalysisCore::FrameBuffer& frames, AnalysisCore::IntMatrix2D& peakFrames,
                                    int threads);
QUARN_PP_EXPORT void FindPeakFramesReference(AnalysisCore::FrameBuffer& frames,
                                             AnalysisCore::IntMatrix2D& peakFrames, int threads);

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli
