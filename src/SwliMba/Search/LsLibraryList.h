#pragma once

#include <memory>
#include <vector>

#include "Analysis/Core/Status.h"
#include "SwliMba/Search/LsLibrary.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

// LsLibraryList
//
// The libraries of a search, in the order they were added; a library's id is its position. The
// signals of all libraries form one run of indices, library l's block starting after the signals
// of libraries 0 … l-1 (`GetFirstSignalIndex`).
class LsLibraryList {
 public:
  static constexpr const char* kSource = "SwliMba\\Search\\LsLibraryList";

  int Size() const { return static_cast<int>(libraries_.size()); }
  LsLibrary& At(int i) { return *libraries_[static_cast<std::size_t>(i)]; }
  const LsLibrary& At(int i) const { return *libraries_[static_cast<std::size_t>(i)]; }
  void Add(std::unique_ptr<LsLibrary> library) { libraries_.push_back(std::move(library)); }
  void Remove(int i) { libraries_.erase(libraries_.begin() + i); }
  void Clear() { libraries_.clear(); }

  int GetTotalNumberOfSignals() const {
    int total = 0;
    for (const auto& library : libraries_)
      total += library->GetNumberOfSignals();
    return total;
  }
  int GetFirstSignalIndex(int i) const {
    int first = 0;
    for (int l = 0; l < i; ++l)
      first += libraries_[static_cast<std::size_t>(l)]->GetNumberOfSignals();
    return first;
  }

  Analysis::Core::Status& GetStatus() { return status_; }

 private:
  std::vector<std::unique_ptr<LsLibrary>> libraries_;
  Analysis::Core::Status status_{__LINE__, kSource};
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
