#include "EffectTestSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "foundation/KyoLog.h"
#include "support/TestFiles.h"

namespace {

// The gtest filter this process was started with, from its command line; empty
// when it runs every test.
std::string gtestFilter() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  std::string argument;
  while (std::getline(in, argument, '\0')) {
    if (argument.rfind("--gtest_filter=", 0) == 0) return argument.substr(15);
  }
  return {};
}

// The world reads LV2_PATH once, on first use; set it before any test runs. The
// installed plugins come through a folder of links that leaves out LSP's bundle:
// reading its hundreds of plugin descriptions costs seconds of CPU in every test
// process (and far more under the sanitizers). The catalogue-wide test, a run of
// the whole binary, and SONTO_TEST_ALL_PLUGINS=1 see everything.
const bool kPathSet = [] {
  const std::string filter = gtestFilter();
  const char* all = std::getenv("SONTO_TEST_ALL_PLUGINS");
  const bool everything = filter.empty() || filter.find("EveryCatalogued") != std::string::npos ||
                          (all && std::string(all) == "1");
  std::string installed = "/usr/lib/lv2";
  if (!everything) {
    installed = sonto::test::temporaryPath("lv2-installed");
    std::error_code ignored;
    std::filesystem::create_directories(installed, ignored);
    for (const auto& bundle : std::filesystem::directory_iterator("/usr/lib/lv2", ignored)) {
      if (bundle.path().filename() == "lsp-plugins.lv2") continue;
      std::filesystem::create_directory_symlink(bundle.path(), installed / bundle.path().filename(), ignored);
    }
  }
  const std::string path = std::string(SONTO_LV2_FIXTURE_PATH) + ":" + installed;
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

void expectScaledSignal(TestBufferList& out, uint64_t start, float factor, float tolerance) {
  for (uint32_t c = 0; c < out.list()->mNumberBuffers; ++c) {
    for (uint32_t f = 0; f < out.frames(); ++f) {
      const float expected = testSignal((uint32_t)(start + f), c) * factor;
      const float sample = out.channel(c)[f];
      if (tolerance == kExactly) {
        ASSERT_EQ(sample, expected) << "channel " << c << " frame " << f;
      } else if (tolerance == 0.0f) {
        ASSERT_FLOAT_EQ(sample, expected) << "channel " << c << " frame " << f;
      } else {
        ASSERT_NEAR(sample, expected, tolerance) << "channel " << c << " frame " << f;
      }
    }
  }
}

std::shared_ptr<KyoEffect> readyMixer(std::shared_ptr<KyoEffect> mixer, uint32_t inputs, uint32_t outputs,
                                      bool initialize) {
  if (!mixer || !mixer->open()) return nullptr;
  EXPECT_TRUE(mixer->setInputStreamFormat(KyoAudioStreamDescription(48000.0, inputs)));
  EXPECT_TRUE(mixer->setOutputStreamFormat(KyoAudioStreamDescription(48000.0, outputs)));
  EXPECT_TRUE(!initialize || mixer->initialize());
  return mixer;
}

Rendering renderCycles(KyoEffect& effect, uint32_t channels, uint32_t frames, int cycles) {
  TestBufferList out(channels, frames);
  Rendering result;
  // Reserved before the watch, so that only the effect could allocate.
  result.samples.reserve(size_t(cycles) * channels * frames);
  result.allocations = allocationsOnRenderThread([&] {
    for (int cycle = 0; cycle < cycles; ++cycle) {
      uint32_t flags = 0;
      const int32_t status = effect.render(&flags, nullptr, 0, frames, out.list());
      if (status != 0 && result.status == 0) result.status = status;
      for (uint32_t c = 0; c < channels; ++c)
        result.samples.insert(result.samples.end(), out.channel(c), out.channel(c) + frames);
    }
  });
  return result;
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
