#include "Analysis/Core/DebugChannel.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace Quarn::Metrology::Analysis::Core {

namespace {

struct Channel {
  std::mutex mutex;
  DebugSink sink;
  std::atomic<bool> hasSink{false};
  bool toStderr = false;

  Channel() {
    const char* env = std::getenv("QUARN_DEBUG");
    toStderr = env && *env && std::strcmp(env, "0") != 0;
  }
};

Channel& TheChannel() {
  static Channel channel;
  return channel;
}

}  // namespace

void SetDebugSink(DebugSink sink) {
  Channel& channel = TheChannel();
  std::lock_guard<std::mutex> lock(channel.mutex);
  channel.hasSink = static_cast<bool>(sink);
  channel.sink = std::move(sink);
}

bool IsDebugEnabled() {
  Channel& channel = TheChannel();
  return channel.hasSink.load(std::memory_order_relaxed) || channel.toStderr;
}

void debug_printf(const char* format, ...) {
  if (!IsDebugEnabled()) return;
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, args);
    text.resize(static_cast<std::size_t>(length));
  }
  va_end(args);

  Channel& channel = TheChannel();
  std::lock_guard<std::mutex> lock(channel.mutex);
  if (channel.sink) {
    channel.sink(text);
  } else if (channel.toStderr) {
    std::fputs(text.c_str(), stderr);
  }
}

}  // namespace Quarn::Metrology::Analysis::Core
