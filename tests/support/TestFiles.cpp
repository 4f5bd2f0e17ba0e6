#include "support/TestFiles.h"

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace sonto::test {

namespace {
std::string& folder() {
  static std::string f;
  return f;
}
void removeFolder() {
  std::error_code ec;
  if (!folder().empty()) std::filesystem::remove_all(folder(), ec);
}
}  // namespace

std::string temporaryFolder() {
  static std::once_flag once;
  std::call_once(once, [] {
    const char* base = std::getenv("SONTO_TEST_TMP");
    std::string root = base && *base ? base : "/tmp";
    std::filesystem::create_directories(root);
    std::string pattern = root + "/sonto-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) folder() = buf.data();
    std::atexit(removeFolder);
  });
  return folder();
}

std::string temporaryPath(const std::string& name) { return temporaryFolder() + "/" + name; }

float rampSample(int64_t frame, uint32_t channel) {
  // Multiples of 2^-15 fit 16-bit PCM exactly; channels are offset so that a
  // channel mix-up shows.
  int64_t step = (frame + int64_t(channel) * 4099) % 16384;
  return float(step - 8192) / 32768.0f;
}

bool writeRampFile(const std::string& path, int format, double rate, uint32_t channels, int64_t frames) {
  SF_INFO info{};
  info.samplerate = int(rate);
  info.channels = int(channels);
  info.format = format;
  SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!f) return false;
  std::vector<float> block(4096 * channels);
  for (int64_t done = 0; done < frames;) {
    int64_t n = std::min<int64_t>(4096, frames - done);
    for (int64_t i = 0; i < n; ++i)
      for (uint32_t c = 0; c < channels; ++c) block[size_t(i * channels + c)] = rampSample(done + i, c);
    sf_writef_float(f, block.data(), n);
    done += n;
  }
  return sf_close(f) == 0;
}

bool makeAnsweredFifo(const std::string& path) {
  if (::mkfifo(path.c_str(), 0600) != 0) return false;
  // Waits in open() for the next reader, for as long as the FIFO and the process last.
  std::thread([path] {
    for (int fd; (fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC)) >= 0;) ::close(fd);
  }).detach();
  return true;
}

bool writeFloatWav(const std::string& path, double rate, const std::vector<std::vector<float>>& channels) {
  if (channels.empty()) return false;
  SF_INFO info{};
  info.samplerate = int(rate);
  info.channels = int(channels.size());
  info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
  SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!f) return false;
  size_t frames = channels[0].size();
  std::vector<float> inter(frames * channels.size());
  for (size_t i = 0; i < frames; ++i)
    for (size_t c = 0; c < channels.size(); ++c) inter[i * channels.size() + c] = channels[c][i];
  sf_writef_float(f, inter.data(), sf_count_t(frames));
  return sf_close(f) == 0;
}

int run(const std::string& command) {
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string sontoBinary() {
  char self[PATH_MAX] = {};
  const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return {};
  std::string path(self, size_t(n));
  path = path.substr(0, path.rfind('/'));
  path = path.substr(0, path.rfind('/')) + "/sonto";
  return ::access(path.c_str(), X_OK) == 0 ? path : std::string();
}

}  // namespace sonto::test
