#include "EffectTestSupport.h"

#include <unistd.h>

#include <cstdlib>

#include "foundation/KyoLog.h"

namespace {
// The world reads LV2_PATH once, on first use; set it before any test runs.
const bool kPathSet = [] {
  std::string path = std::string(SONTO_LV2_FIXTURE_PATH) + ":/usr/lib/lv2";
  setenv("LV2_PATH", path.c_str(), 1);
  return true;
}();
}  // namespace

namespace sonto::test {

bool haveMDAPlugins() { return access("/usr/lib/lv2/mda.lv2/manifest.ttl", R_OK) == 0; }

TestBufferList::TestBufferList(uint32_t channels, uint32_t frames)
    : m_list(KyoAudioBufferListCreate(channels, frames, false)), m_frames(frames) {
  KyoAudioBufferListSilence(m_list, 0, frames);
}

TestBufferList::~TestBufferList() { KyoAudioBufferListFree(m_list); }

float testSignal(uint32_t frame, uint32_t channel) {
  return (float)((frame % 200) + 1) / 256.0f * (channel % 2 ? -1.0f : 1.0f) + 0.125f * (float)channel;
}

void TestBufferList::fillSignal() {
  for (uint32_t c = 0; c < m_list->mNumberBuffers; ++c) {
    for (uint32_t f = 0; f < m_frames; ++f) channel(c)[f] = testSignal(f, c);
  }
}

KyoRenderInfo TestSignalSource::renderInfo() {
  KyoRenderInfo info;
  info.target = this;
  info.selector = kKyoRenderSelector;
  info.method = &TestSignalSource::render;
  return info;
}

int32_t TestSignalSource::render(void* target, uint32_t*, const KyoAudioTimeStamp*, uint32_t, uint32_t frames,
                                 AudioBufferList* data) {
  auto* self = static_cast<TestSignalSource*>(target);
  for (uint32_t c = 0; c < data->mNumberBuffers; ++c) {
    float* samples = KyoAudioBufferListChannel(data, c);
    for (uint32_t f = 0; f < frames; ++f) samples[f] = testSignal((uint32_t)(self->m_position + f), c);
  }
  self->m_position += frames;
  ++self->m_calls;
  return 0;
}

}  // namespace sonto::test
