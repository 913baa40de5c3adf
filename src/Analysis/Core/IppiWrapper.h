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
// matrix (two rows of the input are then kept aside while they are overwritten). Returns the
// output's status (copied) when it cannot be sized.
//
// Dilate3x3Rows: rows [firstRow, endRow) of the same dilation, into an output that already has the
// input's shape and is another matrix (the rows on either side of the range are read). It needs no
// scratch memory, so a caller that dilates every frame keeps one output matrix and spreads the rows
// over its threads, one band each:
//
//   grown.Resize(mask.GetMatrixWindow());                  // once; later frames reuse it
//   IppiWrapper::Dilate3x3Rows(mask, grown, first, end);   // on each worker
class QUARN_CORE_EXPORT IppiWrapper {
 public:
  static Status Dilate3x3(const DataMatrix2D<std::uint8_t>& input, DataMatrix2D<std::uint8_t>& output);
  static void Dilate3x3Rows(const DataMatrix2D<std::uint8_t>& input, DataMatrix2D<std::uint8_t>& output,
                            int firstRow, int endRow);
};

}  // namespace Quarn::Metrology::Analysis::Core
