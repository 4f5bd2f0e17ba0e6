#include "show/AudioCue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QMimeData>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "effects/KyoEffect.h"
#include "foundation/KyoAlias.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "show/SontoArchive.h"

namespace {

// Set once at start by the application (or a test), before cues are made.
AudioCueSourceFactory& sourceFactory() {
  static AudioCueSourceFactory factory;
  return factory;
}

QString qs(const std::string& s) { return QString::fromStdString(s); }

QJsonArray rgbaArray(const KyoRGBA& c) { return SontoArchive::colorArray(c.red, c.green, c.blue, c.alpha); }

std::optional<KyoRGBA> rgbaFromArray(const QJsonValue& value) {
  const auto c = SontoArchive::colorFromValue(value);
  if (!c) return std::nullopt;
  return KyoRGBA{(*c)[0], (*c)[1], (*c)[2], (*c)[3]};
}

using SontoArchive::dataFromValue;
using SontoArchive::dataObject;

QJsonObject effectPropertiesArchive(const KyoEffectProperties& p) {
  QJsonObject o;
  o.insert("class", qs(p.className));
  o.insert("component", dataObject(QByteArray(reinterpret_cast<const char*>(p.component.data()),
                                              static_cast<qsizetype>(p.component.size()))));
  o.insert("manufacturer", qs(p.manufacturer));
  o.insert("name", qs(p.name));
  o.insert("displayName", qs(p.displayName));
  if (p.enabled) o.insert("enabled", *p.enabled);
  if (p.editorIsOpen) o.insert("editorIsOpen", *p.editorIsOpen);
  if (p.lastEditorFrame) o.insert("lastEditorFrame", qs(*p.lastEditorFrame));
  if (p.settings) o.insert("settings", qs(*p.settings));
  return o;
}

KyoEffectProperties effectPropertiesFromArchive(const QJsonObject& o) {
  KyoEffectProperties p;
  if (o.value("class").isString()) p.className = o.value("class").toString().toStdString();
  if (auto component = dataFromValue(o.value("component"))) p.component.assign(component->begin(), component->end());
  p.manufacturer = o.value("manufacturer").toString().toStdString();
  p.name = o.value("name").toString().toStdString();
  p.displayName = o.value("displayName").toString().toStdString();
  if (o.value("enabled").isBool()) p.enabled = o.value("enabled").toBool();
  if (o.value("editorIsOpen").isBool()) p.editorIsOpen = o.value("editorIsOpen").toBool();
  if (o.value("lastEditorFrame").isString()) p.lastEditorFrame = o.value("lastEditorFrame").toString().toStdString();
  if (o.value("settings").isString()) p.settings = o.value("settings").toString().toStdString();
  return p;
}

}  // namespace

void AudioCue::setSourceFactory(AudioCueSourceFactory factory) { sourceFactory() = std::move(factory); }

std::unique_ptr<AudioCueSource> AudioCue::makeSource() {
  const AudioCueSourceFactory& factory = sourceFactory();
  return factory ? factory() : nullptr;
}

AudioCue::AudioCue() : m_effects(std::make_shared<EffectArray>()) {
  // Solo and termination: every cue hard-stops on this, whoever sends it.
  m_hardStopObserver = KyoScopedObserver(KyoNotificationCenter::defaultCenter(), kHardStopNotification,
                                         [this](const KyoNotification&) { hardStop(); });
}

AudioCue::~AudioCue() {
  m_hardStopObserver.reset();
  // No sound outlives its cue.
  if (m_audioSource) m_audioSource->hardStop();
  if (m_progressTimer) KyoCurrentClock().stopTimer(m_progressTimer);
}

std::shared_ptr<AudioCue> AudioCue::createWithFile(const std::string& path, std::shared_ptr<KyoAudioDevice> device) {
  auto cue = std::make_shared<AudioCue>();
  cue->m_file = path;
  cue->setName(std::filesystem::path(path).stem().string());
  cue->m_volume = 1.0f;
  cue->m_audioDevice = device;
  cue->m_audioSource = makeSource();
  if (AudioCueSource* source = cue->m_audioSource.get()) {
    source->setDevice(device);
    source->setAlias(KyoAlias::aliasWithPath(path));
    source->setDefaultVolumes();
    // A mono file's one channel also goes to the second output.
    if (source->fileChannels() == 1) source->setCrosspointVolume(1.0f, 0, 1);
    source->goToTime(0.0);
    cue->m_endTime = source->fileLengthInSeconds();
  }
  cue->m_startTime = 0.0;
  cue->updateSlices();
  return cue;
}

void AudioCue::updateFile(const std::string& path) {
  setFile(path);
  if (m_audioSource) {
    m_audioSource->setAlias(KyoAlias::aliasWithPath(path));
    m_audioSource->setCrosspointVolume(m_audioSource->fileChannels() == 1 ? 1.0f : 0.0f, 0, 1);
  }
  updateSlices();
}

void AudioCue::updateSlices() {
  if (!m_audioSource) return;
  m_audioSource->setSlice(m_startTime, m_endTime, m_loops ? -1 : 1);
  m_audioSource->goToTime(0.0);
}

bool AudioCue::isBroken() const {
  return !m_audioSource || !m_audioSource->isValid() || !m_audioSource->sharedDevice();
}

std::string AudioCue::brokenExplanation() const {
  if (!m_audioSource || !m_audioSource->isValid()) return "Invalid audio file.";
  if (!m_audioSource->sharedDevice()) return "No audio device. Please select one.";
  return {};
}

std::string AudioCue::description() const {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  return std::string("<AudioCue: ") + address + "> Cue: " + name();
}

std::string AudioCue::parseHotkey(const std::string& text) {
  const QString trimmed = QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())).trimmed();
  if (trimmed.isEmpty()) return {};
  const QString upper = trimmed.toUpper();
  // One character as the user sees it: a surrogate pair stays whole.
  const qsizetype length = upper.at(0).isHighSurrogate() && upper.size() > 1 ? 2 : 1;
  return upper.left(length).toStdString();
}

int AudioCue::parseMidiNote(long long value) { return static_cast<int>(std::clamp<long long>(value, 0, 127)); }

// Fields. Each setter tells its observers, as the cells and the inspector follow them.

void AudioCue::setFile(const std::string& file) {
  m_file = file;
  emit fileChanged();
}

void AudioCue::setDocumentPath(const std::string& documentPath) {
  m_documentPath = documentPath;
  emit documentPathChanged();
}

void AudioCue::setProgress(float progress) {
  m_progress = progress;
  emit progressChanged();
}

void AudioCue::setVolumeValue(float volume) {
  m_volume = volume;
  emit volumeChanged();
}

void AudioCue::setLoopsValue(bool loops) {
  m_loops = loops;
  emit loopsChanged();
}

void AudioCue::setHold(bool hold) {
  m_hold = hold;
  emit holdChanged();
}

void AudioCue::setSolo(bool solo) {
  m_solo = solo;
  emit soloChanged();
}

void AudioCue::setDucking(bool ducking) {
  m_ducking = ducking;
  emit duckingChanged();
}

void AudioCue::setPaused(bool paused) {
  m_paused = paused;
  emit pausedChanged();
}

void AudioCue::setPlaying(bool playing) {
  m_playing = playing;
  emit playingChanged();
}

void AudioCue::setDead(bool dead) {
  m_dead = dead;
  emit deadChanged();
}

void AudioCue::setSaved(bool saved) {
  m_saved = saved;
  emit savedChanged();
}

void AudioCue::setDoPanic(bool doPanic) {
  m_doPanic = doPanic;
  emit doPanicChanged();
}

void AudioCue::setColor(const SontoColor& color) {
  m_color = color;
  emit colorChanged();
}

void AudioCue::setHotkey(const std::string& hotkey) {
  if (hotkey == m_hotkey) return;
  m_hotkey = parseHotkey(hotkey);
  emit hotkeyChanged();
}

void AudioCue::setEffects(std::shared_ptr<EffectArray> effects) {
  m_effects = effects ? std::move(effects) : std::make_shared<EffectArray>();
  emit effectsChanged();
}

void AudioCue::setStartTimeValue(double seconds) {
  m_startTime = seconds;
  emit startTimeChanged();
}

void AudioCue::setEndTimeValue(double seconds) {
  m_endTime = seconds;
  emit endTimeChanged();
}

void AudioCue::setDeviceChannelValue(long channel) {
  m_deviceChannel = channel <= 0 ? 1 : channel;
  emit deviceChannelChanged();
}

// MIDI trigger.

void AudioCue::setMidiTrigger(const QByteArray& trigger) {
  m_midiTrigger = trigger;
  emit midiNoteChanged();
}

QByteArray AudioCue::editableTrigger() const {
  QByteArray trigger = m_midiTrigger;
  if (trigger.size() < 3) {
    const QByteArray start("\x90\x00\x00", 3);
    trigger.append(start.mid(trigger.size()));
  }
  return trigger;
}

std::optional<int> AudioCue::midiNote() const {
  if (m_midiTrigger.size() < 2) return std::nullopt;
  return static_cast<uint8_t>(m_midiTrigger[1]);
}

void AudioCue::setMidiNote(int note) {
  if (note < 0 || note > 127) return;
  QByteArray trigger = editableTrigger();
  trigger[1] = static_cast<char>(note);
  setMidiTrigger(trigger);
}

void AudioCue::setMidiTriggerFrom(const SontoMIDIMessage& message) {
  QByteArray trigger = editableTrigger();
  trigger[1] = static_cast<char>(message.dataByte1);
  setMidiTrigger(trigger);
}

int AudioCue::midiTriggerCommand() const {
  if (m_midiTrigger.isEmpty()) return 0;
  switch (static_cast<uint8_t>(m_midiTrigger[0])) {
    case 144:
      return 1;
    case 160:
      return 2;
    case 176:
      return 3;
    case 192:
      return 4;
    case 208:
      return 5;
    default:
      return 0;
  }
}

void AudioCue::setMidiTriggerCommand(int command) {
  if (command < 0 || command > 5) return;
  QByteArray trigger = editableTrigger();
  trigger[0] = static_cast<char>((command * 16) ^ 128);
  setMidiTrigger(trigger);
}

int AudioCue::midiTriggerByte2() const { return m_midiTrigger.size() < 3 ? 0 : static_cast<uint8_t>(m_midiTrigger[2]); }

void AudioCue::setMidiTriggerByte2(int value) {
  // 128 is let through on purpose, one beyond a data byte.
  if (value < 0 || value > 128) return;
  QByteArray trigger = editableTrigger();
  trigger[2] = static_cast<char>(value);
  setMidiTrigger(trigger);
}

// Only the note counts; the channel filter has run before, and status is compared
// without the channel.
bool AudioCue::matchesForMIDIDown(const SontoMIDIMessage& message) const {
  const auto note = midiNote();
  return note && message.dataByte1 == *note && message.status() == SontoMIDIMessage::kNoteOn && message.dataByte2 != 0;
}

bool AudioCue::matchesForMIDIUp(const SontoMIDIMessage& message) const {
  const auto note = midiNote();
  if (!note || message.dataByte1 != *note) return false;
  return message.status() == SontoMIDIMessage::kNoteOff ||
         (message.status() == SontoMIDIMessage::kNoteOn && message.dataByte2 == 0);
}

void AudioCue::handleMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {
  for (const SontoMIDIMessage& message : messages) {
    if (matchesForMIDIDown(message)) {
      triggerDown();
    } else if (matchesForMIDIUp(message)) {
      triggerUp();
    }
  }
}

// Copying: the copy shares the effects array; its source does not hold them until
// the effects are brought up to date. Flagged, saved and the channel stay behind.

std::shared_ptr<Cue> AudioCue::copy() const { return copyAudioCue(); }

std::shared_ptr<AudioCue> AudioCue::copyAudioCue() const {
  auto cue = createWithFile(m_file, m_audioSource ? m_audioSource->sharedDevice() : nullptr);
  cue->setName(name());
  cue->setDocumentPath(m_documentPath);
  cue->setHotkey(m_hotkey);
  cue->setVolumeValue(m_volume);
  cue->setHold(m_hold);
  cue->setLoopsValue(m_loops);
  cue->setSolo(m_solo);
  cue->setDucking(m_ducking);
  cue->setDead(m_dead);
  cue->setStartTimeValue(m_startTime);
  cue->setEndTimeValue(m_endTime);
  cue->setColor(m_color);
  cue->setMidiTrigger(m_midiTrigger);
  cue->setEffects(m_effects);
  return cue;
}

// Archive.

QJsonObject AudioCue::archive() const {
  QJsonObject o;
  o.insert("$class", kArchiveClassName);
  o.insert("file", qs(m_file));
  o.insert("name", qs(name()));
  o.insert("documentPath", qs(m_documentPath));
  o.insert("hotkey", qs(m_hotkey));
  o.insert("volume", static_cast<double>(m_volume));  // a float widens exactly
  o.insert("hold", m_hold);
  o.insert("loops", m_loops);
  o.insert("solo", m_solo);
  o.insert("ducking", m_ducking);
  o.insert("dead", m_dead.load());
  QJsonObject color;
  color.insert("$class", "SontoColor");
  color.insert("name", qs(m_color.name()));
  color.insert("startColor", rgbaArray(m_color.startColor()));
  color.insert("endColor", rgbaArray(m_color.endColor()));
  o.insert("color", color);
  if (!m_midiTrigger.isNull()) o.insert("midiTrigger", dataObject(m_midiTrigger));
  o.insert("startTime", m_startTime);
  o.insert("endTime", m_endTime);
  o.insert("flagged", flagged());
  QJsonArray effects;
  for (const auto& effect : *m_effects) {
    if (effect) effects.append(effectPropertiesArchive(effect->properties()));
  }
  o.insert("effects", effects);
  return o;
}

std::shared_ptr<AudioCue> AudioCue::createWithArchive(const QJsonObject& o, std::vector<std::string>* notes) {
  auto cue = std::make_shared<AudioCue>();
  auto string = [&](const char* key, std::string fallback = {}) {
    const QJsonValue v = o.value(key);
    return v.isString() ? v.toString().toStdString() : fallback;
  };
  auto boolean = [&](const char* key) { return o.value(key).toBool(false); };
  auto number = [&](const char* key, double fallback) {
    const QJsonValue v = o.value(key);
    return v.isDouble() ? v.toDouble() : fallback;
  };

  cue->m_file = string("file");
  cue->m_audioSource = makeSource();  // no alias until the reader gives the real path
  cue->setName(string("name"));
  cue->m_documentPath = string("documentPath");
  KYO_LOG_AT(3, "initializing %s", cue->description().c_str());
  const std::string label = cue->name().empty() ? std::filesystem::path(cue->m_file).filename().string() : cue->name();
  cue->m_volume = SontoArchive::boundedLevel(number("volume", 0.0), "The volume of the cue \"" + label + "\"", notes);
  cue->m_hotkey = string("hotkey");
  cue->m_hold = boolean("hold");
  cue->m_loops = boolean("loops");
  cue->m_solo = boolean("solo");
  cue->m_ducking = boolean("ducking");
  cue->m_dead = boolean("dead");
  const QJsonObject color = o.value("color").toObject();
  const auto start = rgbaFromArray(color.value("startColor"));
  const auto end = rgbaFromArray(color.value("endColor"));
  if (color.value("name").isString() && start && end) {
    cue->m_color = SontoColor::decodedColor(color.value("name").toString().toStdString(), *start, *end);
  }
  if (auto trigger = dataFromValue(o.value("midiTrigger"))) cue->m_midiTrigger = *trigger;
  cue->m_startTime = number("startTime", 0.0);
  cue->m_endTime = number("endTime", 0.0);
  cue->setFlagged(boolean("flagged"));
  for (const QJsonValue& value : o.value("effects").toArray()) {
    if (!value.isObject()) continue;
    if (auto effect = KyoEffect::effectWithProperties(effectPropertiesFromArchive(value.toObject()), nullptr)) {
      cue->addEffect(effect);
    }
  }
  cue->updateSlices();
  cue->m_saved = true;
  return cue;
}

// Clipboard.

std::unique_ptr<QMimeData> AudioCue::mimeData() const {
  auto data = std::make_unique<QMimeData>();
  data->setData(kPasteboardType, QJsonDocument(archive()).toJson(QJsonDocument::Compact));
  return data;
}

std::shared_ptr<AudioCue> AudioCue::fromMimeData(const QMimeData& data) {
  if (!data.hasFormat(kPasteboardType)) return nullptr;
  QJsonParseError error{};
  const QJsonDocument document = QJsonDocument::fromJson(data.data(kPasteboardType), &error);
  if (error.error != QJsonParseError::NoError || !document.isObject()) {
    KyoLog("Cannot read a cue from the clipboard: %s", error.errorString().toUtf8().constData());
    return nullptr;
  }
  const QJsonObject archive = document.object();
  if (archive.value("$class").toString() != kArchiveClassName) {
    KyoLog("Cannot read a cue from the clipboard: not a cue");
    return nullptr;
  }
  return createWithArchive(archive);
}

void AudioCue::setIndexOnMimeData(QMimeData& data, unsigned long index) {
  QJsonObject object;
  object.insert("index", static_cast<qint64>(index));
  data.setData(kIndexPasteboardType, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

std::optional<unsigned long> AudioCue::indexFromMimeData(const QMimeData& data) {
  if (!data.hasFormat(kIndexPasteboardType)) return std::nullopt;
  const QJsonDocument document = QJsonDocument::fromJson(data.data(kIndexPasteboardType));
  const QJsonValue index = document.object().value("index");
  if (!index.isDouble() || index.toDouble() < 0 || index.toDouble() != std::floor(index.toDouble())) {
    return std::nullopt;
  }
  return static_cast<unsigned long>(index.toDouble());
}
