#pragma once
// Whatever can be read for frames: files, read-ahead streams, the slice player,
// devices. A reader fills a KyoReadFramesInfo so that the render path calls it
// through a plain function pointer, without dynamic dispatch.

#include <cstdint>

#include "audio/KyoAudioBufferList.h"

using KyoReadFramesMethod = uint32_t (*)(void* target, uint32_t frames, AudioBufferList* list, uint32_t offset);

struct KyoReadFramesInfo {
  void* target = nullptr;
  const char* selector = nullptr;  // always "readFrames:toAudioBufferList:atOffset:"
  KyoReadFramesMethod method = nullptr;
};

inline constexpr const char* kKyoReadFramesSelector = "readFrames:toAudioBufferList:atOffset:";

class KyoAudioReading {
 public:
  virtual ~KyoAudioReading() = default;
  virtual void registerReadFramesInfo(KyoReadFramesInfo* info) = 0;
  virtual uint32_t readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) = 0;
};

// Fills info for a concrete reader class T whose readFrames is non-virtual-callable.
template <class T>
void KyoRegisterReadFramesInfo(T* reader, KyoReadFramesInfo* info) {
  if (!info) return;
  info->target = reader;
  info->selector = kKyoReadFramesSelector;
  info->method = [](void* target, uint32_t frames, AudioBufferList* list, uint32_t offset) -> uint32_t {
    return static_cast<T*>(target)->T::readFrames(frames, list, offset);
  };
}
