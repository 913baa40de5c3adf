#include "OutputFiles.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CliTestFixture.h"
#include "ToolError.h"

namespace Quarn::Qphase {
namespace {

using OutputFilesTest = CliTestFixture;

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
      EXPECT_THAT(e.what(), HasSubstr(Path("c.tif") + ": cannot be written"));
    }
  }
  EXPECT_EQ(Slurp(Path("a.tif")), "a before");
  EXPECT_EQ(Slurp(Path("c.tif")), "c before");
  EXPECT_EQ(Files(), (std::vector<std::string>{"a.tif", "c.tif"}));
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
  EXPECT_EQ(Slurp(Path("a.tif")), "a new");
  EXPECT_EQ(Files(), (std::vector<std::string>{"a.tif", "b.tif"}));
  {
    OutputFiles outputs;
    WriteBytes(outputs.Stage(Path("a.tif")), "never");
    WriteTarget unused = outputs.Stage(Path("c.tif"));
  }
  EXPECT_EQ(Slurp(Path("a.tif")), "a new");
  EXPECT_EQ(Files(), (std::vector<std::string>{"a.tif", "b.tif"}));
}

}  // namespace
}  // namespace Quarn::Qphase
