#pragma once

#include <functional>
#include <vector>

#include "Analysis/Core/FrameBuffer.h"
#include "Analysis/Core/RegionIdMatrix2D.h"
#include "Analysis/Core/Window2D.h"

namespace Quarn::Testing {

namespace Core = ::Quarn::Metrology::Analysis::Core;

// Stacks and pixel walks for the checks of a phase shifter (step maps and gain corrections).

// Fills an allocated frame buffer with fringes of bias + amplitude cos(phase + psi_k) over a tilted,
// slightly curved surface on which every phase occurs many times (so per-pixel ratios meet every
// sign of their differences), rounded as a camera would. The shifts psi_k are those of the
// algorithms' nominal stacks with every shift scaled by 1 + gainError: 13 frames an eighth of a
// period apart, 20 or more frames the sinusoidal drive of `ShiftsFor20` (repeated after the 20th),
// any other count a quarter period apart.
void FillTiltedStack(Core::FrameBuffer& frames, double gainError, double bias, double amplitude);

// Fills an allocated frame buffer sample by sample with `sample(pixel, frame)`, pixel row-major in the
// window, in the buffer's sample width; false if a value does not fit it.
bool FillStackBySample(Core::FrameBuffer& frames, const std::function<int(int pixel, int frame)>& sample);

// The mask kinds a walk meets: none; one over exactly the frame window; one over another window
// that overlaps the frame window's lower right part; the frame window's matrix narrowed to an inner
// window. About two pixels in three of a mask hold a region id, in a pattern unrelated to the
// stride and the frame geometry and without a short period, so that a mask read at a shifted
// position is seen to be wrong.
enum class WalkMask { kNone, kSameWindow, kOtherWindow, kNarrowed };
const char* WalkMaskName(WalkMask kind);
Core::RegionIdMatrix2D MakeWalkMask(WalkMask kind, const Core::Window2D& frameWindow);

// The pixels (row-major indices in the frame window) a walk must visit, in increasing order,
// stated independently of the walk: on the stride grid of each worker's chunk (worker i of W gets
// [i n / W, (i + 1) n / W) of the n pixels, and its grid starts at its first pixel), and where there
// is a mask (nullptr: none), inside its window on a valid id at the same camera position.
std::vector<int> ExpectedWalk(const Core::Window2D& frameWindow, int period,
                              const Core::RegionIdMatrix2D* mask, int workers);

}  // namespace Quarn::Testing
