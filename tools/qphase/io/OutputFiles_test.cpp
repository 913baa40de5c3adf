#include "OutputFiles.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ToolError.h"

namespace Quarn::Qphase {
namespace {

namespace fs = std::filesystem;

class OutputFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::path(::testing::TempDir()) /
           ("outputfiles_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) +
            "_" + std::to_string(getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string Path(const std::string& name) const { return (dir_ / name).string(); }
  static std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path dir_;
};

// The third of three renames fails: the first output's earlier file comes back, the second output,
// new in this run, goes, and the third keeps its earlier file. No temporary or spare name is left.
TEST_F(OutputFilesTest, AFailedRenamePutsBackWhatTheRunReplaced) {
  std::ofstream(Path("a.tif")) << "a before";
  std::ofstream(Path("c.tif")) << "c before";
  {
    OutputFiles outputs;
    WriteBytes(outputs.Stage(Path("a.tif"), "-o"), "a new");
    WriteBytes(outputs.Stage(Path("b.tif"), "--modulation"), "b new");
    WriteBytes(outputs.Stage(Path("c.tif"), "--png"), "c new");
    int renames = 0;
    outputs.SetRenameForTesting([&renames](const char* from, const char* to) {
      if (++renames == 3) {
        errno = EIO;
        return -1;
      }
      return std::rename(from, to);
    });
    try {
      outputs.Commit();
      FAIL() << "the failed rename must be reported";
    } catch (const ToolError& e) {
      EXPECT_EQ(e.GetExitStatus(), kExitUsage);
      EXPECT_NE(std::string(e.what()).find(Path("c.tif") + ": cannot be written"), std::string::npos)
          << e.what();
    }
  }
  EXPECT_EQ(Read(Path("a.tif")), "a before");
  EXPECT_EQ(Read(Path("c.tif")), "c before");
  EXPECT_EQ(Names(), (std::vector<std::string>{"a.tif", "c.tif"}));
}

// A committed run replaces earlier files and leaves no spare name; an uncommitted one leaves nothing.
TEST_F(OutputFilesTest, CommitReplacesAndAnAbandonedRunLeavesNothing) {
  std::ofstream(Path("a.tif")) << "a before";
  {
    OutputFiles outputs;
    WriteBytes(outputs.Stage(Path("a.tif")), "a new");
    WriteBytes(outputs.Stage(Path("b.tif")), "b new");
    outputs.Commit();
  }
  EXPECT_EQ(Read(Path("a.tif")), "a new");
  EXPECT_EQ(Names(), (std::vector<std::string>{"a.tif", "b.tif"}));
  {
    OutputFiles outputs;
    WriteBytes(outputs.Stage(Path("a.tif")), "never");
    WriteTarget unused = outputs.Stage(Path("c.tif"));
  }
  EXPECT_EQ(Read(Path("a.tif")), "a new");
  EXPECT_EQ(Names(), (std::vector<std::string>{"a.tif", "b.tif"}));
}

}  // namespace
}  // namespace Quarn::Qphase
