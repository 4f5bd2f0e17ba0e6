#pragma once
// Whatever can be pulled for audio (sources, sends, effect units), and the records
// with which the render thread calls it: a plain function pointer and a target, filled
// once off the render thread, so that a cycle does no lookup and no virtual dispatch.

#include <cstdint>
#include <memory>
#include <string>

#include "audio/KyoAudioBufferList.h"

// Busses per device and per send, and logical channels per bus.
inline constexpr uint32_t kKyoBusCount = 500;
inline constexpr uint32_t kKyoLogicalChannels = 48;

struct KyoAudioTimeStamp {
  double mSampleTime = 0;  // frames since the device started
  uint64_t mHostTime = 0;  // nanoseconds of the monotonic clock, 0 when unknown
  uint32_t mFlags = 0;
};

// Render action flags, in and out, as a render callback sees them.
inline constexpr uint32_t kKyoRenderAction_PreRender = 1u << 2;
inline constexpr uint32_t kKyoRenderAction_PostRender = 1u << 3;
// Out: every buffer of the output is silence. Without kKyoRenderAction_MarkSilentChannels
// the buffers hold zeros as well; with it they may hold anything.
inline constexpr uint32_t kKyoRenderAction_OutputIsSilence = 1u << 4;
inline constexpr uint32_t kKyoRenderAction_PostRenderError = 1u << 8;
// In: the caller accepts silence marks. A callee that sees it may, instead of zeroing
// a channel, set that buffer's mDataByteSize to 0 (KyoMarkChannelSilent); the caller
// then skips the channel and resets the sizes before its next call. A callee that
// ignores the bit writes every channel, which is always correct. Pass the bit on to
// your own inputs only if you honour the marks on what they give back.
inline constexpr uint32_t kKyoRenderAction_MarkSilentChannels = 1u << 16;

inline void KyoMarkChannelSilent(AudioBuffer& buffer) { buffer.mDataByteSize = 0; }
inline bool KyoIsChannelMarkedSilent(const AudioBuffer& buffer) { return buffer.mDataByteSize == 0; }

// The shape of every render entry: the target in front, then the action flags, the
// time stamp, the bus number, the frame count and the buffers to fill. 0 is success.
using KyoRenderMethod = int32_t (*)(void* target, uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp,
                                    uint32_t busNumber, uint32_t frames, AudioBufferList* ioData);

inline constexpr const char* kKyoRenderSelector = "render:timeStamp:busNumber:numberFrames:data:";

// The way from a callback to a method. No target: nothing is there.
struct KyoRenderInfo {
  void* target = nullptr;
  const char* selector = nullptr;
  KyoRenderMethod method = nullptr;

  int32_t call(uint32_t* flags, const KyoAudioTimeStamp* timeStamp, uint32_t bus, uint32_t frames,
               AudioBufferList* data) const {
    return method(target, flags, timeStamp, bus, frames, data);
  }
};

// One entry per bus; an entry without target is a free bus.
struct KyoRenderInfoList {
  uint32_t count = 0;
  KyoRenderInfo infos[kKyoBusCount];
};

// A queued call for the render thread: a node of a singly linked list. A node with no
// method is the empty tail. The method must be tiny (a flag write): it runs on the
// render thread inside the device's render lock.
using KyoActionMethod = void (*)(void* target);

struct KyoActionInfo {
  void* target = nullptr;
  const char* selector = nullptr;
  KyoActionMethod method = nullptr;
  KyoActionInfo* next = nullptr;
};

class KyoAudioRendering {
 public:
  virtual ~KyoAudioRendering() = default;
  // Fills info with this object and its render entry; nothing for a null info.
  virtual void registerRenderInfo(KyoRenderInfo* info) = 0;
  virtual int32_t render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                         uint32_t frames, AudioBufferList* ioData) = 0;
};

// Fills info for a concrete class T, calling T::render without virtual dispatch.
template <class T>
void KyoRegisterRenderInfo(T* renderer, KyoRenderInfo* info) {
  if (!info) return;
  info->target = renderer;
  info->selector = kKyoRenderSelector;
  info->method = [](void* target, uint32_t* flags, const KyoAudioTimeStamp* ts, uint32_t bus, uint32_t frames,
                    AudioBufferList* data) -> int32_t {
    return static_cast<T*>(target)->T::render(flags, ts, bus, frames, data);
  };
}

// Fills info for another render entry of T than render() (a final render, a device's
// callback): KyoRegisterRenderEntry<&T::_finalRender>(this, info, "its selector").
template <auto Entry, class T>
void KyoRegisterRenderEntry(T* target, KyoRenderInfo* info, const char* selector) {
  if (!info) return;
  info->target = target;
  info->selector = selector;
  info->method = [](void* object, uint32_t* flags, const KyoAudioTimeStamp* ts, uint32_t bus, uint32_t frames,
                    AudioBufferList* data) -> int32_t {
    return (static_cast<T*>(object)->*Entry)(flags, ts, bus, frames, data);
  };
}

// An action that calls a member function without argument:
// KyoActionTrampoline<&KyoAudioSource::_play> is a KyoActionMethod.
template <class>
struct KyoMemberClass;
template <class C, class R>
struct KyoMemberClass<R (C::*)()> {
  using type = C;
};
template <class C, class R>
struct KyoMemberClass<R (C::*)() noexcept> {
  using type = C;
};

template <auto Member>
void KyoActionTrampoline(void* target) {
  using C = typename KyoMemberClass<decltype(Member)>::type;
  (static_cast<C*>(target)->*Member)();
}

class KyoAudioDevice;
class KyoAudioSending;

// Anything that a device or a send can carry on a bus. description() names it in log lines.
class KyoAudioAttachable : public KyoAudioRendering {
 public:
  virtual KyoAudioDevice* device() const = 0;
  // The send that the object plays through, or nothing.
  virtual std::shared_ptr<KyoAudioSending> send() const { return nullptr; }
  virtual std::string description() const = 0;
};

// What a send offers to the device: busses of its own for sources, while it takes one
// bus of the device. Its own send() answers nothing.
class KyoAudioSending : public KyoAudioAttachable {
 public:
  virtual bool _attachAudio(const std::shared_ptr<KyoAudioAttachable>& audio) = 0;
  virtual void _detachAudio(KyoAudioAttachable* audio) = 0;
  virtual bool hasAudioAttached() const = 0;
};
