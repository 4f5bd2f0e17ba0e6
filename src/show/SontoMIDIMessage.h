#pragma once
// One short MIDI message as the inputs hand them over in batches: only note on and
// note off reach the show.

#include <cstdint>
#include <vector>

#include "audio/KyoMIDIInput.h"

struct SontoMIDIMessage {
  static constexpr uint8_t kNoteOff = 0x80;
  static constexpr uint8_t kNoteOn = 0x90;

  uint8_t statusByte = 0;  // with the channel in its low four bits
  uint8_t dataByte1 = 0;   // the note
  uint8_t dataByte2 = 0;   // the velocity

  // The message type without the channel.
  uint8_t status() const { return statusByte & 0xF0; }
  // 1 to 16.
  int channel() const { return (statusByte & 0x0F) + 1; }

  static SontoMIDIMessage noteOn(uint8_t note, uint8_t velocity, int channel = 1) {
    return {static_cast<uint8_t>(kNoteOn | ((channel - 1) & 0x0F)), note, velocity};
  }
  static SontoMIDIMessage noteOff(uint8_t note, uint8_t velocity = 0, int channel = 1) {
    return {static_cast<uint8_t>(kNoteOff | ((channel - 1) & 0x0F)), note, velocity};
  }

  // The same bytes as the MIDI input hands them over.
  static SontoMIDIMessage from(const KyoMIDIMessage& message) { return {message.status, message.data1, message.data2}; }
  static std::vector<SontoMIDIMessage> from(const KyoMIDIMessages& batch) {
    std::vector<SontoMIDIMessage> messages;
    messages.reserve(batch.size());
    for (const KyoMIDIMessage& message : batch) messages.push_back(from(message));
    return messages;
  }
};
