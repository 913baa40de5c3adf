#pragma once

#include <map>

#include "Analysis/Core/Status.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsRegionAssociations
//
// Which library the pixels of a search region are matched against: region id → library id. With
// no association every pixel is matched against every library.
class LsRegionAssociations {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsRegionAssociations";

  void Add(int regionId, int libraryId) { assocs_[regionId] = libraryId; }
  void Clear() { assocs_.clear(); }
  bool IsEmpty() const { return assocs_.empty(); }
  // The library of a region, or -1 when the region has none.
  int Find(int regionId) const {
    const auto it = assocs_.find(regionId);
    return it == assocs_.end() ? -1 : it->second;
  }

  Analysis::Core::Status& GetStatus() { return status_; }

 private:
  std::map<int, int> assocs_;
  Analysis::Core::Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
