#pragma once

#include <cstdint>

#include "Analysis/Core/DataMatrix2D.h"
#include "Analysis/Core/QuarnCoreExport.h"
#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::Analysis::Core {

// IppiWrapper
//
// Small image-processing kernels on byte masks.
//
// Dilate3x3: each output byte is the largest input byte of its 3 x 3 neighbourhood; neighbours
// outside the image are ignored (the border is not padded with "on" pixels). A mask of ones thus
// grows by one pixel in every direction, diagonals included. Input and output may be the same
// matrix. Returns the output's status (copied) when it cannot be sized.
class QUARN_CORE_EXPORT IppiWrapper {
 public:
  static Status Dilate3x3(const DataMatrix2D<std::uint8_t>& input, DataMatrix2D<std::uint8_t>& output);
};

}  // namespace Quarn::Metrology::Analysis::Core
