#include "show/ShowTestSupport.h"

#include "foundation/KyoAlias.h"

void FakeCueSource::setAlias(std::shared_ptr<KyoAlias> alias) {
  ++m_state->aliasCount;
  m_state->aliasPath = alias ? alias->fullPath() : "";
}

FakeSourceFactory::FakeSourceFactory() {
  AudioCue::setSourceFactory([this] {
    made.push_back(std::make_shared<FakeSourceState>(*templateState));
    return std::make_unique<FakeCueSource>(made.back());
  });
}

FakeSourceFactory::~FakeSourceFactory() { AudioCue::setSourceFactory(nullptr); }

std::shared_ptr<CountingCue> countingCue(const std::string& name, const std::string& hotkey, int midiNote) {
  auto cue = std::make_shared<CountingCue>();
  cue->setName(name);
  cue->setHotkey(hotkey);
  if (midiNote >= 0) cue->setMidiNote(midiNote);
  return cue;
}
