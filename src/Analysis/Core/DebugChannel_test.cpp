#include "Analysis/Core/DebugChannel.h"

#include <string>

#include <gtest/gtest.h>

namespace Quarn::Metrology::Analysis::Core {
namespace {

TEST(DebugChannelTest, SinkReceivesFormattedTextAndRemovingItSilencesTheChannel) {
  std::string received;
  SetDebugSink([&received](const std::string& text) { received += text; });
  EXPECT_TRUE(IsDebugEnabled());
  debug_printf("\tPhaseGenerator Initialize(%d): %g ms\n", 2, 1.5);
  debug_printf("Processing row %d\n", 17);
  EXPECT_EQ(received, "\tPhaseGenerator Initialize(2): 1.5 ms\nProcessing row 17\n");

  SetDebugSink({});
  received.clear();
  debug_printf("lost %d\n", 1);
  EXPECT_EQ(received, "");
}

}  // namespace
}  // namespace Quarn::Metrology::Analysis::Core
