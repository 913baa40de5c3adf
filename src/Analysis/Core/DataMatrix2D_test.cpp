#include "Analysis/Core/DataMatrix2D.h"

#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Analysis/Core/DoubleMatrix2D.h"
#include "Analysis/Core/IntMatrix2D.h"

namespace Quarn::Metrology::Analysis::Core {
namespace {

// Section names must not collide between test processes running side by side.
std::string UniqueName(const char* stem) {
  return std::string(stem) + "." + std::to_string(getpid());
}

TEST(DataMatrix2DTest, ResizeIfNeededKeepsStorageAndFailuresAreRecorded) {
  DataMatrix2D<double> m(8, 8);
  double* storage = m.Data();
  const auto generation = m.GetGeneration();
  EXPECT_TRUE(m.ResizeIfNeeded(8, 8));
  EXPECT_EQ(m.Data(), storage);
  EXPECT_EQ(m.GetGeneration(), generation);
  EXPECT_TRUE(m.Resize(4, 16));
  EXPECT_EQ(m.Data(), storage) << "a reshape within the allocation re-lays out in place";

  EXPECT_FALSE(m.Resize(-1, 3));
  EXPECT_EQ(m.GetStatus().GetCode(), StatusCode::kNegativeDimension);
  EXPECT_EQ(m.GetRows(), 4) << "a failed resize leaves the matrix as it was";
  EXPECT_EQ(m.MaxAllocSize(), 0u);
}

TEST(DataMatrix2DTest, SharedSectionIsSeenThroughASecondMapping) {
  const std::string name = UniqueName("matrix.shared");
  DoubleMatrix2D writer;
  ASSERT_TRUE(writer.CreateSharedMemory(name, 4096)) << writer.GetStatus().GetPrintString();
  EXPECT_TRUE(writer.IsSharedMemory());
  EXPECT_EQ(writer.GetSharedName(), name);
  EXPECT_EQ(writer.MaxAllocSize(), 4096u - SharedMemorySection::kHeaderSize);
  ASSERT_TRUE(writer.Resize(5, 7, 6, 8));
  for (int i = 0; i < 48; ++i)
    writer.At(i) = 0.5 * i;

  DoubleMatrix2D reader;
  ASSERT_TRUE(reader.OpenSharedMemory(name)) << reader.GetStatus().GetPrintString();
  EXPECT_EQ(reader.GetMatrixWindow(), Window2D(5, 7, 6, 8)) << "the layout travels in the section";
  EXPECT_EQ(reader(2, 3), 0.5 * 19);

  reader(0, 0) = -1.0;
  EXPECT_EQ(writer(0, 0), -1.0) << "writes through one mapping are visible through the other";

  // Re-laid out through the writer: the reader sees it after refreshing its references.
  ASSERT_TRUE(writer.Resize(12, 4));
  EXPECT_TRUE(reader.UpdateSharedReferences());
  EXPECT_EQ(reader.GetMatrixWindow(), Window2D(5, 7, 12, 4)) << "Resize(rows, cols) keeps the origin";
}

TEST(DataMatrix2DTest, SharedSectionLimitsAndMismatches) {
  const std::string name = UniqueName("matrix.small");
  IntMatrix2D m;
  ASSERT_TRUE(m.CreateSharedMemory(name, SharedMemorySection::kHeaderSize + 100 * sizeof(int)));
  EXPECT_TRUE(m.Resize(10, 10));
  EXPECT_FALSE(m.Resize(10, 11));
  EXPECT_EQ(m.GetStatus().GetCode(), StatusCode::kSectionTooSmall);
  EXPECT_EQ(m.GetStatus().GetMessage(), "");
  EXPECT_FALSE(m.Resize(-2, 10));
  EXPECT_EQ(m.GetStatus().GetCode(), StatusCode::kNegativeDimension);
  EXPECT_FALSE(m.Resize(65536, 65536)) << "2^32 elements: still the section's limit that answers";
  EXPECT_EQ(m.GetStatus().GetCode(), StatusCode::kSectionTooSmall);

  // A header claiming more elements than the section holds is not trusted by any mapping.
  Status status;
  std::unique_ptr<SharedMemorySection> raw = SharedMemorySection::Open(name, sizeof(int), status);
  ASSERT_NE(raw, nullptr);
  raw->WriteLayout(SharedMatrixLayout{0, 0, 1000, 1000});
  IntMatrix2D corrupt;
  EXPECT_FALSE(corrupt.OpenSharedMemory(name));
  EXPECT_EQ(corrupt.GetStatus().GetCode(), StatusCode::kSectionTooSmall);
  EXPECT_FALSE(m.UpdateSharedReferences());
  EXPECT_EQ(m.GetCount(), 0);

  DoubleMatrix2D wrongType;
  EXPECT_FALSE(wrongType.OpenSharedMemory(name)) << "a section of ints is no double matrix";
  EXPECT_EQ(wrongType.GetStatus().GetCode(), StatusCode::kArgumentOutOfRange);

  DoubleMatrix2D missing;
  EXPECT_FALSE(missing.OpenSharedMemory(UniqueName("matrix.nonexistent")));
  EXPECT_EQ(missing.GetStatus().GetCode(), StatusCode::kCallFailed);

  DoubleMatrix2D tiny;
  EXPECT_FALSE(tiny.CreateSharedMemory(UniqueName("matrix.tiny"), 16));
  EXPECT_EQ(tiny.GetStatus().GetCode(), StatusCode::kSectionTooSmall);
  // A petabyte cannot be backed: refused at creation instead of a SIGBUS at the first write.
  EXPECT_FALSE(tiny.CreateSharedMemory(UniqueName("matrix.huge"), std::size_t{1} << 50));
  EXPECT_EQ(tiny.GetStatus().GetCode(), StatusCode::kAllocationFailed);
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core
