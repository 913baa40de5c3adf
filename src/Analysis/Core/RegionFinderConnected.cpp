#include "Analysis/Core/RegionFinderConnected.h"

#include <algorithm>
#include <vector>

namespace Quarn::Metrology::Analysis::Core {

namespace {

// Union-find over provisional labels; the smaller root wins so labels stay in scan order.
int FindRoot(std::vector<int>& parent, int label) {
  while (parent[label] != label) {
    parent[label] = parent[parent[label]];
    label = parent[label];
  }
  return label;
}

void Unite(std::vector<int>& parent, int a, int b) {
  a = FindRoot(parent, a);
  b = FindRoot(parent, b);
  if (a < b) {
    parent[b] = a;
  } else if (b < a) {
    parent[a] = b;
  }
}

}  // namespace

bool RegionFinderConnected::MakeRegions(RegionIdMatrix2D& regionIds, Array<RegionInfo>& regions) {
  if (!input_) {
    status_ = Status(0, StatusCode::kNotSet, __LINE__, status_.GetFile(), "No input matrix set");
    return false;
  }
  const int rows = input_->GetRows();
  const int cols = input_->GetColumns();
  const std::int64_t count = input_->GetCount();

  // First pass: provisional labels, -1 for pixels outside every region.
  std::vector<int> labels(static_cast<std::size_t>(count), -1);
  std::vector<int> parent;
  const bool eight = connectivity_ == Connectivity::kEight;
  for (int r = 0; r < rows; ++r) {
    const int* in = input_->Row(r);
    int* label = labels.data() + static_cast<std::int64_t>(r) * cols;
    const int* above = r > 0 ? label - cols : nullptr;
    for (int c = 0; c < cols; ++c) {
      if (!IntWindow2D::IsDataValid(in[c])) continue;
      int current = -1;
      const auto join = [&](int neighbour) {
        if (neighbour < 0) return;
        if (current < 0) {
          current = neighbour;
        } else {
          Unite(parent, current, neighbour);
        }
      };
      if (c > 0) join(label[c - 1]);
      if (above) {
        join(above[c]);
        if (eight && c > 0) join(above[c - 1]);
        if (eight && c + 1 < cols) join(above[c + 1]);
      }
      if (current < 0) {
        current = static_cast<int>(parent.size());
        parent.push_back(current);
      }
      label[c] = current;
    }
  }

  // Final ids in order of first appearance in the scan.
  std::vector<int> finalId(parent.size(), -1);
  int regionCount = 0;
  for (std::size_t i = 0; i < parent.size(); ++i) {
    const int root = FindRoot(parent, static_cast<int>(i));
    if (finalId[static_cast<std::size_t>(root)] < 0) finalId[static_cast<std::size_t>(root)] = regionCount++;
    finalId[i] = finalId[static_cast<std::size_t>(root)];
  }

  const Window2D window = input_->GetMatrixWindow();
  const UnitManager units = input_->GetUnitManager();
  if (!regionIds.Resize(window)) {
    RecordCallFailure(status_, regionIds.GetStatus(), "regionIds.Resize", __LINE__);
    return false;
  }
  regionIds.ResetWindow();
  regionIds.SetUnitManager(units);
  if (!regions.Resize(regionCount)) {
    RecordCallFailure(status_, regions.GetStatus(), "regions.Resize", __LINE__);
    return false;
  }

  // Bounding boxes in matrix coordinates first, then shifted into the camera frame.
  std::vector<int> minRow(static_cast<std::size_t>(regionCount), rows), maxRow(static_cast<std::size_t>(regionCount), -1);
  std::vector<int> minCol(static_cast<std::size_t>(regionCount), cols), maxCol(static_cast<std::size_t>(regionCount), -1);
  std::vector<int> pixels(static_cast<std::size_t>(regionCount), 0);
  for (int r = 0; r < rows; ++r) {
    const int* label = labels.data() + static_cast<std::int64_t>(r) * cols;
    int* out = regionIds.Row(r);
    for (int c = 0; c < cols; ++c) {
      if (label[c] < 0) {
        out[c] = RegionIdMatrix2D::NoData();
        continue;
      }
      const int id = finalId[static_cast<std::size_t>(label[c])];
      const auto k = static_cast<std::size_t>(id);
      out[c] = id;
      ++pixels[k];
      minRow[k] = std::min(minRow[k], r);
      maxRow[k] = std::max(maxRow[k], r);
      minCol[k] = std::min(minCol[k], c);
      maxCol[k] = std::max(maxCol[k], c);
    }
  }
  for (int id = 0; id < regionCount; ++id) {
    const auto k = static_cast<std::size_t>(id);
    regions[id] = RegionInfo{id, pixels[k],
                             Window2D(window.GetStartRow() + minRow[k], window.GetStartCol() + minCol[k],
                                      maxRow[k] - minRow[k] + 1, maxCol[k] - minCol[k] + 1)};
  }
  return true;
}

}  // namespace Quarn::Metrology::Analysis::Core
