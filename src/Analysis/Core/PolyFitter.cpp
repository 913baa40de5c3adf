#include "Analysis/Core/PolyFitter.h"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <vector>

namespace Quarn::Metrology::Analysis::Core {

namespace {

constexpr const char* kSource = "analysis\\core\\PolyFitter";

// The monomials in scaled coordinates (u, v): 1, u, v, u^2, u v, v^2 and the power term u^2 + v^2.
// The first six are the `PolyTerm`s; the power term is reported for both squares.
constexpr int kConstant = 0, kX = 1, kY = 2, kXX = 3, kXY = 4, kYY = 5, kPowerTerm = 6;
constexpr int kMonomials = 7;
constexpr int kOrder[kMonomials] = {0, 1, 1, 2, 2, 2, 2};

// The monomials of a surface type; empty for an unknown type.
std::vector<int> BasisOf(int surfaceType) {
  switch (surfaceType) {
    case PolyFitter::kPiston:
      return {kConstant};
    case PolyFitter::kPlane:
      return {kConstant, kX, kY};
    case PolyFitter::kPower:
      return {kConstant, kX, kY, kPowerTerm};
    case PolyFitter::kCrossTerm:
      return {kConstant, kX, kY, kXY};
    case PolyFitter::kQuadratic:
      return {kConstant, kX, kY, kXX, kXY, kYY};
    default:
      return {};
  }
}

}  // namespace

PolyFitter::PolyFitter() : dispatcher_(this), status_(__LINE__, kSource) {}

PolyFitter::PolyFitter(const PolyFitter& other)
    : surfaceType_(other.surfaceType_),
      xRef_(other.xRef_),
      yRef_(other.yRef_),
      yAxisUp_(other.yAxisUp_),
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
  yAxisUp_ = other.yAxisUp_;
  allowMultiThreads_ = other.allowMultiThreads_;
  result_ = other.result_;
  dispatcher_ = other.dispatcher_;
  dispatcher_.SetObject(this);
  status_ = other.status_;
  return *this;
}

PolyFitter::~PolyFitter() = default;

bool PolyFitter::FitMatrix(const DoubleWindow2D& map) {
  const std::vector<int> basis = BasisOf(surfaceType_);
  if (basis.empty()) {
    status_ = Status(0, StatusCode::kArgumentOutOfRange, __LINE__, kSource,
                     "Unknown surface type " + std::to_string(surfaceType_));
    return false;
  }
  termCount_ = static_cast<int>(basis.size());
  std::copy(basis.begin(), basis.end(), basis_.begin());
  map_ = &map;
  window_ = map.GetWindow();
  result_ = PolyFitResult{};
  result_.surfaceType = surfaceType_;
  result_.ySignFlag = yAxisUp_ ? 1 : 0;

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

  Eigen::MatrixXd normal = Eigen::MatrixXd::Zero(termCount_, termCount_);
  Eigen::VectorXd rhs = Eigen::VectorXd::Zero(termCount_);
  for (const BlockSums& block : blocks) {
    for (int i = 0; i < termCount_; ++i) {
      for (int j = i; j < termCount_; ++j)
        normal(i, j) += block.normal[static_cast<std::size_t>(i * kMaxTerms + j)];
      rhs(i) += block.rhs[static_cast<std::size_t>(i)];
    }
    result_.pointCount += block.count;
  }
  for (int i = 0; i < termCount_; ++i) {
    for (int j = 0; j < i; ++j)
      normal(i, j) = normal(j, i);
  }
  const Eigen::ColPivHouseholderQR<Eigen::MatrixXd> qr(normal);
  if (result_.pointCount < termCount_ || qr.rank() < termCount_) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Solving the equation system failed");
    return false;
  }
  const Eigen::VectorXd solution = qr.solve(rhs);
  if (!solution.allFinite()) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Solving the equation system failed");
    return false;
  }
  for (int t = 0; t < termCount_; ++t) {
    const int monomial = basis_[static_cast<std::size_t>(t)];
    const double value = solution(t) / std::pow(scale_, kOrder[monomial]);
    if (monomial == kPowerTerm) {
      result_.coefficients[kXX] = value;
      result_.coefficients[kYY] = value;
    } else {
      result_.coefficients[static_cast<std::size_t>(monomial)] = value;
    }
  }
  return true;
}

void PolyFitter::SumBlocks(int first, int end) {
  const double ySign = yAxisUp_ ? -1.0 : 1.0;
  const double inverseScale = 1.0 / scale_;
  const int colStart = window_.GetStartCol();
  const int cols = window_.GetCols();
  for (int b = first; b < end; ++b) {
    BlockSums& sums = blocks_[b];
    const int rowBegin = window_.GetStartRow() + b * kRowsPerBlock;
    const int rowEnd = std::min(rowBegin + kRowsPerBlock, window_.GetEndRow());
    for (int row = rowBegin; row < rowEnd; ++row) {
      const double* values = map_->Row(row - map_->GetStartRow()) + (colStart - map_->GetStartCol());
      const double v = ySign * (row - yRef_) * inverseScale;
      for (int c = 0; c < cols; ++c) {
        const double z = values[c];
        if (!DoubleWindow2D::IsDataValid(z)) continue;
        const double u = (colStart + c - xRef_) * inverseScale;
        const double monomials[kMonomials] = {1.0, u, v, u * u, u * v, v * v, u * u + v * v};
        double f[kMaxTerms];
        for (int t = 0; t < termCount_; ++t)
          f[t] = monomials[basis_[static_cast<std::size_t>(t)]];
        for (int i = 0; i < termCount_; ++i) {
          for (int j = i; j < termCount_; ++j)
            sums.normal[static_cast<std::size_t>(i * kMaxTerms + j)] += f[i] * f[j];
          sums.rhs[static_cast<std::size_t>(i)] += f[i] * z;
        }
        ++sums.count;
      }
    }
  }
}

}  // namespace Quarn::Metrology::Analysis::Core
