#include "Analysis/Core/PolyFitter.h"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace Quarn::Metrology::Analysis::Core {

namespace {

constexpr const char* kSource = "analysis\\core\\PolyFitter";
constexpr int kOrder[4] = {0, 1, 1, 2};  // of the terms 1, x, y, x y

}  // namespace

PolyFitter::PolyFitter() : dispatcher_(this), status_(__LINE__, kSource) {}

PolyFitter::PolyFitter(const PolyFitter& other)
    : surfaceType_(other.surfaceType_),
      xRef_(other.xRef_),
      yRef_(other.yRef_),
      allowMultiThreads_(other.allowMultiThreads_),
      result_(other.result_),
      dispatcher_(other.dispatcher_),
      status_(other.status_) {
  dispatcher_.SetObject(this);
}

PolyFitter& PolyFitter::operator=(const PolyFitter& other) {
  if (this == &other) return *this;
  surfaceType_ = other.surfaceType_;
  xRef_ = other.xRef_;
  yRef_ = other.yRef_;
  allowMultiThreads_ = other.allowMultiThreads_;
  result_ = other.result_;
  dispatcher_ = other.dispatcher_;
  dispatcher_.SetObject(this);
  status_ = other.status_;
  return *this;
}

PolyFitter::~PolyFitter() = default;

bool PolyFitter::FitMatrix(const DoubleWindow2D& map) {
  if (surfaceType_ != kCrossTerm) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "Unknown surface type " + std::to_string(surfaceType_));
    return false;
  }
  map_ = &map;
  window_ = map.GetWindow();
  result_ = PolyFitResult{};
  result_.surfaceType = surfaceType_;

  // Coordinates are divided by the largest distance of the window from the reference point, so the
  // normal matrix holds numbers of about one whatever the map size.
  const double dx =
      std::max(std::abs(window_.GetStartCol() - xRef_), std::abs(window_.GetEndCol() - 1 - xRef_));
  const double dy =
      std::max(std::abs(window_.GetStartRow() - yRef_), std::abs(window_.GetEndRow() - 1 - yRef_));
  scale_ = std::max({dx, dy, 1.0});

  const int blockCount = std::max(0, (window_.GetRows() + kRowsPerBlock - 1) / kRowsPerBlock);
  std::vector<BlockSums> blocks(static_cast<std::size_t>(blockCount));
  blocks_ = blocks.data();
  try {
    if (allowMultiThreads_ && blockCount > 1) {
      dispatcher_.Invoke(&PolyFitter::SumBlocks, 0, blockCount);
    } else if (blockCount > 0) {
      SumBlocks(0, blockCount);
    }
  } catch (const Status& failure) {
    status_ = failure;
    return false;
  }
  blocks_ = nullptr;

  Eigen::Matrix4d normal = Eigen::Matrix4d::Zero();
  Eigen::Vector4d rhs = Eigen::Vector4d::Zero();
  for (const BlockSums& block : blocks) {
    for (int i = 0; i < kTerms; ++i) {
      for (int j = i; j < kTerms; ++j)
        normal(i, j) += block.normal[static_cast<std::size_t>(i * kTerms + j)];
      rhs(i) += block.rhs[static_cast<std::size_t>(i)];
    }
    result_.pointCount += block.count;
  }
  for (int i = 0; i < kTerms; ++i) {
    for (int j = 0; j < i; ++j)
      normal(i, j) = normal(j, i);
  }
  const Eigen::ColPivHouseholderQR<Eigen::Matrix4d> qr(normal);
  const Eigen::Vector4d solution = qr.solve(rhs);
  if (result_.pointCount < kTerms || qr.rank() < kTerms || !solution.allFinite()) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Solving the equation system failed");
    return false;
  }
  for (int t = 0; t < kTerms; ++t)
    result_.coefficients[static_cast<std::size_t>(t)] = solution(t) / std::pow(scale_, kOrder[t]);
  return true;
}

void PolyFitter::SumBlocks(int first, int end) {
  const double inverseScale = 1.0 / scale_;
  const int colStart = window_.GetStartCol();
  const int cols = window_.GetCols();
  for (int b = first; b < end; ++b) {
    BlockSums& sums = blocks_[b];
    const int rowBegin = window_.GetStartRow() + b * kRowsPerBlock;
    const int rowEnd = std::min(rowBegin + kRowsPerBlock, window_.GetEndRow());
    for (int row = rowBegin; row < rowEnd; ++row) {
      const double* values = map_->Row(row - map_->GetStartRow()) + (colStart - map_->GetStartCol());
      const double v = (row - yRef_) * inverseScale;
      for (int c = 0; c < cols; ++c) {
        const double z = values[c];
        if (!DoubleWindow2D::IsDataValid(z)) continue;
        const double u = (colStart + c - xRef_) * inverseScale;
        const double f[kTerms] = {1.0, u, v, u * v};
        for (int i = 0; i < kTerms; ++i) {
          for (int j = i; j < kTerms; ++j)
            sums.normal[static_cast<std::size_t>(i * kTerms + j)] += f[i] * f[j];
          sums.rhs[static_cast<std::size_t>(i)] += f[i] * z;
        }
        ++sums.count;
      }
    }
  }
}

}  // namespace Quarn::Metrology::Analysis::Core
