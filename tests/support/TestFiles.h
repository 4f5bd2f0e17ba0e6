#pragma once
// Files made at test time: a private temporary folder per test binary, and audio
// files whose samples encode their own frame number, so that a read can be
// checked sample by sample.

#include <cstdint>
#include <string>
#include <vector>

namespace sonto::test {

// A fresh folder under $SONTO_TEST_TMP (or /tmp), removed at exit.
std::string temporaryFolder();
std::string temporaryPath(const std::string& name);

// The ramp value of frame f on channel c: distinct per frame and channel, exact in
// 16-bit, 24-bit and float formats. Period is 2^14 frames.
float rampSample(int64_t frame, uint32_t channel);

// Writes a ramp with libsndfile; format is a libsndfile SF_FORMAT_* combination.
// Answers false when libsndfile cannot write it.
bool writeRampFile(const std::string& path, int format, double rate, uint32_t channels, int64_t frames);

// Writes the given non-interleaved float channels as a 32-bit float WAV.
bool writeFloatWav(const std::string& path, double rate, const std::vector<std::vector<float>>& channels);

// A FIFO whose every opening for reading meets a writer that closes at once, so
// that code which should never open it reads nothing instead of hanging the test.
bool makeAnsweredFifo(const std::string& path);

// Runs a shell command; answers its exit status.
int run(const std::string& command);

// The whole text of a file; empty when it cannot be read.
std::string readText(const std::string& path);

// The sonto binary in the build folder, one above the test binaries; empty when it
// is not built.
std::string sontoBinary();

}  // namespace sonto::test
