#include "show/Workspace.h"

#include <QFileInfo>
#include <QPointer>
#include <QString>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <system_error>

#include "audio/KyoAudioDevice.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

namespace fs = std::filesystem;

namespace {
// Untitled workspaces are numbered in the order they were made in this process.
std::atomic<int> g_workspacesMade{0};
}  // namespace

Workspace::Workspace() : Workspace(nullptr) {}

Workspace::Workspace(std::shared_ptr<KyoAudioDevice> device) : m_logger(std::make_shared<SontoLogger>()) {
  m_untitledNumber = ++g_workspacesMade;
  if (!device) device = KyoAudioDevice::defaultOutputDevice();
  if (device && !device->isOpen()) {
    device->setClientName(clientName());
    device->open();
  }
  m_audioDevice = std::move(device);
  if (!m_audioDevice) KyoLog("Workspace has no output device.");
  makeTmpFolder();
  // Each closed group is an edit done; undo and redo walk the count back and forth,
  // so undoing to the saved state clears the mark again.
  connect(&m_undoManager, &SontoUndoManager::didCloseUndoGroup, this, [this] { updateChangeCount(ChangeType::Done); });
  connect(&m_undoManager, &SontoUndoManager::didUndoChange, this, [this] { updateChangeCount(ChangeType::Undone); });
  connect(&m_undoManager, &SontoUndoManager::didRedoChange, this, [this] { updateChangeCount(ChangeType::Redone); });
}

Workspace::~Workspace() {
  m_undoManager.removeAllActions();
  m_undoManager.disableUndoRegistration();
  // Carts may outlive the workspace in other hands (a save in progress); they must
  // not sound on, nor call back into a workspace that is gone.
  for (const auto& cart : m_carts) {
    cart->hardStopCues();
    if (cart->workspace() == this) cart->setWorkspace(nullptr);
  }
  m_carts.clear();
}

void Workspace::close() {
  if (m_tmpPath.empty()) return;
  std::error_code error;
  fs::remove_all(m_tmpPath, error);
  if (error) KyoLog("Failed to clean up tmp dir on close: %s", error.message().c_str());
}

std::string Workspace::cacheDir() {
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  // A relative value is invalid by the XDG rules and is ignored.
  if (xdg && xdg[0] == '/') return (fs::path(xdg) / "Sonto").string();
  const char* home = std::getenv("HOME");
  if (home && home[0] != '\0') return (fs::path(home) / ".cache" / "Sonto").string();
  return {};
}

void Workspace::makeTmpFolder() {
  const std::string cache = cacheDir();
  if (cache.empty()) {
    KyoLog("Failed to create temporary directory at %s: %s", "(no cache folder)", "HOME is not set");
    return;
  }
  std::random_device random;
  const unsigned number = static_cast<unsigned>(random() % 1000000u);
  m_tmpPath = (fs::path(cache) / ("sonto-" + std::to_string(number))).string();
  std::error_code error;
  fs::create_directories(m_tmpPath, error);
  if (error) KyoLog("Failed to create temporary directory at %s: %s", m_tmpPath.c_str(), error.message().c_str());
}

// --- Carts ---

template <typename F>
void Workspace::forEachCart(F f) {
  // A copy: a cue's work may add or remove carts under the loop.
  const std::vector<std::shared_ptr<Cart>> carts = m_carts;
  for (const auto& cart : carts) f(*cart);
}

void Workspace::addCart(std::shared_ptr<Cart> cart) {
  if (!cart) return;
  cart->setWorkspace(this);
  m_carts.push_back(std::move(cart));
  emit cartsChanged();
}

std::shared_ptr<Cart> Workspace::removeCart(const Cart* cart) {
  for (auto it = m_carts.begin(); it != m_carts.end(); ++it) {
    if (it->get() != cart) continue;
    std::shared_ptr<Cart> removed = *it;
    removed->setWorkspace(nullptr);
    m_carts.erase(it);
    emit cartsChanged();
    return removed;
  }
  return nullptr;
}

void Workspace::swapCartAtIndex(size_t index, size_t otherIndex) {
  if (index >= m_carts.size() || otherIndex >= m_carts.size()) {
    KyoLog("Cannot swap carts %zu and %zu of %zu.", index, otherIndex, m_carts.size());
    return;
  }
  std::swap(m_carts[index], m_carts[otherIndex]);
  emit cartsChanged();
}

void Workspace::setCarts(std::vector<std::shared_ptr<Cart>> carts) {
  for (const auto& old : m_carts) {
    old->hardStopCues();
    if (old->workspace() == this) old->setWorkspace(nullptr);
  }
  m_carts.clear();
  for (auto& cart : carts) {
    if (!cart) continue;
    cart->setWorkspace(this);
    for (const auto& [key, cue] : cart->cues()) {
      cue->setCart(cart.get());
      cue->setAudioDevice(m_audioDevice);
    }
    m_carts.push_back(std::move(cart));
  }
  emit cartsChanged();
}

void Workspace::addFirstCartIfNeeded(bool hasFile) {
  if (hasFile || !m_carts.empty() || m_createdFromDrag) return;
  auto cart = std::make_shared<Cart>();
  cart->setName(kFirstCartName);
  addCart(std::move(cart));
}

void Workspace::setLogger(std::shared_ptr<SontoLogger> logger) {
  if (logger) m_logger = std::move(logger);
}

// --- Device and routing ---

void Workspace::setAudioDevice(std::shared_ptr<KyoAudioDevice> device) {
  if (!device || device == m_audioDevice) return;
  m_audioDevice = std::move(device);
  emit audioDeviceChanged();
}

bool Workspace::changeOutputDevice(std::shared_ptr<KyoAudioDevice> device, long channel) {
  if (!device) return false;
  if (m_audioDevice && m_audioDevice != device) m_audioDevice->close();
  device->setClientName(clientName());
  if (!device->open()) {
    KyoLog("Could not open output device %s.", device->name().c_str());
    return false;
  }
  device->setMasterVolume(m_ducked ? m_duckedVolume : m_masterVolume);
  setAudioDevice(device);
  setDeviceChannel(channel);
  for (const auto& cart : m_carts) cart->updateCuesWithAudioDevice(m_audioDevice);
  return true;
}

void Workspace::setDeviceChannel(long channel) {
  m_deviceChannel = channel > 0 ? channel : 1;
  routeOutputs(m_audioDevice.get(), m_deviceChannel);
  emit deviceChannelChanged();
}

void Workspace::routeOutputs(KyoAudioDevice* device, long channel) {
  if (!device) return;
  if (channel < 1) channel = 1;
  device->setSilentCrosspoints();
  const long outputs = static_cast<long>(device->outputChannels());
  // Rows and columns are 1-based: logical output i + 1 to physical channel channel + i.
  for (long i = 0; channel + i <= outputs; ++i) {
    device->setVolume(1.0f, static_cast<uint32_t>(i + 1), static_cast<uint32_t>(channel + i));
  }
}

// --- Master level ---

float Workspace::masterVolume() const {
  if (m_audioDevice && m_audioDevice->isOpen()) return m_audioDevice->masterVolume();
  return m_ducked ? m_duckedVolume : m_masterVolume;
}

void Workspace::setMasterVolume(float volume) {
  // The inverse goes through this same operation, so it edits whichever level is in
  // force when it runs, not the one that was edited.
  float& level = m_ducked ? m_duckedVolume : m_masterVolume;
  setPreviousVolume(level);
  const float previous = m_previousVolume;
  m_undoManager.registerUndo(this, [this, previous] { setMasterVolume(previous); });
  if (!m_undoManager.isUndoing()) {
    m_undoManager.setActionName(m_ducked ? kDuckingVolumeChangeActionName : kVolumeChangeActionName);
  }
  level = volume;
  applyMasterVolumeToDevice();
  emit masterVolumeChanged();
}

void Workspace::applyMasterVolumeToDevice() {
  if (m_audioDevice) m_audioDevice->setMasterVolume(m_ducked ? m_duckedVolume : m_masterVolume);
}

void Workspace::duck() {
  if (m_audioDevice) m_audioDevice->fadeToMasterVolume(m_duckedVolume, kDuckFadeSeconds);
  setDucked(true);
}

void Workspace::unduck() {
  if (m_audioDevice) m_audioDevice->fadeToMasterVolume(m_masterVolume, kDuckFadeSeconds);
  setDucked(false);
}

void Workspace::setDucked(bool ducked) {
  m_ducked = ducked;
  emit duckedChanged();
}

// --- Transport ---

void Workspace::setPaused(bool paused) {
  m_paused = paused;
  emit pausedChanged();
}

void Workspace::pauseAll() {
  setPaused(true);
  if (m_audioDevice) m_audioDevice->startSyncedActions();
  forEachCart([](Cart& cart) { cart.pauseCues(); });
  if (m_audioDevice) m_audioDevice->endSyncedActions();
}

void Workspace::resumeAll() {
  setPaused(false);
  if (m_audioDevice) m_audioDevice->startSyncedActions();
  forEachCart([](Cart& cart) { cart.resumeCues(); });
  if (m_audioDevice) m_audioDevice->endSyncedActions();
}

void Workspace::stopAll() {
  setPaused(false);
  if (m_audioDevice) m_audioDevice->startSyncedActions();
  forEachCart([](Cart& cart) { cart.stopCues(); });
  if (m_audioDevice) m_audioDevice->endSyncedActions();
}

void Workspace::hardStopAll() {
  setPaused(false);
  forEachCart([](Cart& cart) { cart.hardStopCues(); });
}

void Workspace::panic() {
  forEachCart([](Cart& cart) { cart.panicCues(); });
  setPaused(false);
}

void Workspace::processMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {
  std::vector<SontoMIDIMessage> kept;
  kept.reserve(messages.size());
  const long channel = m_settings.midiChannel();
  for (const SontoMIDIMessage& message : messages) {
    if (channel == 0 || message.channel() == channel) kept.push_back(message);
  }
  if (kept.empty()) return;
  if (m_audioDevice) m_audioDevice->startSyncedActions();
  forEachCart([&kept](Cart& cart) { cart.processMIDIMessages(kept); });
  if (m_audioDevice) m_audioDevice->endSyncedActions();
}

void Workspace::setLocked(bool locked) {
  m_locked = locked;
  emit lockedChanged();
}

// --- Temporary folder and imports ---

std::string Workspace::copyFileIntoTmp(const std::string& sourcePath) {
  const fs::path source(sourcePath);
  const fs::path folder(m_tmpPath);
  const std::string stem = source.stem().string();
  const std::string extension = source.extension().string();
  fs::path target = folder / source.filename();
  std::error_code error;
  // A dangling link in the folder takes its name as well as a file does.
  for (int i = 1; fs::exists(fs::symlink_status(target, error)); ++i) {
    if (i > kMaxImportNameTries) {
      KyoLog("Cannot seem to find a filename that does not exist while importing media: %s", sourcePath.c_str());
      return {};
    }
    target = folder / (stem + "-" + std::to_string(i) + extension);
  }

  // Follow the chain of links by hand, so that a loop is seen instead of failing
  // somewhere deep in the copy.
  fs::path resolved = source;
  std::set<fs::path> seen{resolved.lexically_normal()};
  for (;;) {
    const fs::file_status status = fs::symlink_status(resolved, error);
    if (error || !fs::exists(status)) {
      KyoLog("Failed to copy %s when importing: %s", sourcePath.c_str(),
             error ? error.message().c_str() : "No such file or directory");
      return {};
    }
    if (!fs::is_symlink(status)) break;
    fs::path destination = fs::read_symlink(resolved, error);
    if (error) {
      KyoLog("Failed to copy %s when importing: %s", sourcePath.c_str(), error.message().c_str());
      return {};
    }
    if (destination.is_relative()) destination = resolved.parent_path() / destination;
    resolved = destination.lexically_normal();
    if (!seen.insert(resolved).second) {
      KyoLog("Failed to copy %s when importing: %s", sourcePath.c_str(), "Too many levels of symbolic links");
      return {};
    }
  }

  if (!fs::copy_file(resolved, target, fs::copy_options::none, error)) {
    KyoLog("Failed to copy %s when importing: %s", sourcePath.c_str(),
           error ? error.message().c_str() : "not a regular file");
    return {};
  }
  return target.string();
}

bool Workspace::containsMediaFile(const std::string& path) const {
  const QString candidate = QString::fromStdString(path);
  const auto startsWith = [&candidate](const std::string& prefix) {
    return !prefix.empty() && candidate.startsWith(QString::fromStdString(prefix), Qt::CaseInsensitive);
  };
  return startsWith(m_filePath) || startsWith(m_tmpPath);
}

// --- The document ---

void Workspace::setFileURL(const QUrl& url) {
  WorkspaceFile::setFileURL(url, m_carts);
  std::string path = url.isLocalFile() ? url.toLocalFile().toStdString() : std::string();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  m_filePath = path;
  if (url == m_fileURL) return;
  m_fileURL = url;
  emit fileURLChanged();
}

std::string Workspace::clientName(const QUrl& url) const {
  if (url.isEmpty()) return "Sonto " + displayName().toStdString();
  QString name = QFileInfo(url.toLocalFile()).fileName();
  const QString extension = QStringLiteral(".") + QString::fromLatin1(WorkspaceFile::kExtension);
  if (name.endsWith(extension, Qt::CaseInsensitive) && name.size() > extension.size()) name.chop(extension.size());
  return "Sonto " + name.toStdString();
}

QString Workspace::displayName() const {
  if (!m_fileURL.isEmpty()) {
    // From the path, whose trailing slashes are gone.
    QString name = QFileInfo(QString::fromStdString(m_filePath)).fileName();
    const QString extension = QStringLiteral(".") + QString::fromLatin1(WorkspaceFile::kExtension);
    if (name.endsWith(extension, Qt::CaseInsensitive) && name.size() > extension.size()) name.chop(extension.size());
    return name;
  }
  const QString untitled = QString::fromLatin1(kUntitledName);
  return m_untitledNumber <= 1 ? untitled : untitled + QStringLiteral(" %1").arg(m_untitledNumber);
}

void Workspace::updateChangeCount(ChangeType change) {
  const bool wasEdited = isDocumentEdited();
  switch (change) {
    case ChangeType::Done:
    case ChangeType::Redone:
      ++m_changeCount;
      break;
    case ChangeType::Undone:
      --m_changeCount;
      break;
    case ChangeType::Cleared:
      m_changeCount = 0;
      break;
  }
  if (wasEdited != isDocumentEdited()) emit documentEditedChanged();
}

bool Workspace::readFromURL(const QUrl& url, SavingError* error) {
  // Everything that can fail happens in the read, before the workspace is touched.
  WorkspaceDocument document;
  if (!WorkspaceFile::readPackage(url, document, error)) return false;
  // The device's client takes the show's name (a JACK patchbay finds it by that):
  // opened again under it, before any cue of the show is on it. Only JACK names its
  // clients; other devices are left open as they are.
  const std::string name = clientName(url);
  if (m_audioDevice && m_audioDevice->isOpen() && m_audioDevice->clientName() != name &&
      m_audioDevice->deviceUID().rfind("jack:", 0) == 0) {
    m_audioDevice->setClientName(name);
    m_audioDevice->open();
  }
  setUndoRegistrationEnabled(false);
  WorkspaceFile::applyDocument(*this, std::move(document));
  setUndoRegistrationEnabled(true);
  didRead(url);
  return true;
}

bool Workspace::revertToSaved(SavingError* error) {
  if (m_fileURL.isEmpty()) {
    const std::string message = "Error - failed to read document data from (untitled): the show was never saved";
    KyoLog("%s", message.c_str());
    if (error) {
      error->code = 1;
      error->message = message;
    }
    return false;
  }
  return readFromURL(m_fileURL, error);
}

void Workspace::didRead(const QUrl& url) {
  // The inverses held so far act on carts and levels that are gone.
  m_undoManager.removeAllActions();
  setFileURL(url);
  updateChangeCount(ChangeType::Cleared);
}

std::shared_ptr<WorkspaceDocument> Workspace::makeDocument() const {
  auto d = std::make_shared<WorkspaceDocument>();
  d->version = SONTO_VERSION_STRING;
  if (m_audioDevice && !m_audioDevice->died()) {
    // An offline device (a renderer's, a build tool's) is never listed, so its UID
    // would find nothing after a restart: the show then opens on the default.
    const std::string uid = m_audioDevice->deviceUID();
    if (!uid.empty() && uid.rfind("offline:", 0) != 0) d->audioDeviceUID = uid;
  }
  d->deviceChannel = m_deviceChannel;
  d->carts = m_carts;
  d->locked = m_locked;
  d->ducked = m_ducked;
  d->masterVolume = m_masterVolume;
  d->duckedVolume = m_duckedVolume;
  d->settings = m_settings.state();
  d->logger = m_logger;
  return d;
}

void Workspace::saveToURL(const QUrl& url, std::function<void(bool ok, const SavingError& error)> completion) {
  PendingSave save{url, std::move(completion)};
  // Two saves of one show at once would race for the same cues and package.
  if (m_saving) {
    m_pendingSaves.push_back(std::move(save));
    return;
  }
  startSave(std::move(save));
}

void Workspace::startSave(PendingSave save) {
  m_saving = true;
  auto document = makeDocument();
  // The main thread is held until the document data is built, so this is the count
  // of the edits that the file holds.
  const long changesSaved = m_changeCount;
  QPointer<Workspace> self(this);
  const QUrl url = save.url;
  auto completion = std::move(save.completion);
  WorkspaceFile::saveInBackground(url, document, [self, url, changesSaved, completion](bool ok,
                                                                                       const SavingError& error) {
    if (self) {
      self->m_saving = false;
      if (ok) self->didSave(url, changesSaved);
    }
    if (completion) completion(ok, error);
    if (self && !self->m_saving && !self->m_pendingSaves.empty()) {
      PendingSave next = std::move(self->m_pendingSaves.front());
      self->m_pendingSaves.erase(self->m_pendingSaves.begin());
      self->startSave(std::move(next));
    }
  });
}

bool Workspace::writeToURL(const QUrl& url, SavingError* error) {
  auto document = makeDocument();
  const long changesSaved = m_changeCount;
  SavingError failure;
  if (!WorkspaceFile::writePackage(url, *document, &failure)) {
    if (error) *error = failure;
    return false;
  }
  didSave(url, changesSaved);
  return true;
}

void Workspace::didSave(const QUrl& url, long changesSaved) {
  setFileURL(url);
  // Edits made while the media were collected are not in the file and stay marked.
  const bool wasEdited = isDocumentEdited();
  m_changeCount -= changesSaved;
  if (wasEdited != isDocumentEdited()) emit documentEditedChanged();
}

// --- Reading, step by step ---

void Workspace::setUndoRegistrationEnabled(bool enabled) {
  if (enabled) {
    m_undoManager.enableUndoRegistration();
  } else {
    m_undoManager.disableUndoRegistration();
  }
}

std::string Workspace::audioDeviceUID() const { return m_audioDevice ? m_audioDevice->deviceUID() : std::string(); }

bool Workspace::bindAudioDeviceWithUID(const std::string& uid) {
  auto device = KyoAudioDevice::deviceWithUID(uid);
  if (!device) return false;
  device->setClientName(m_audioDevice ? m_audioDevice->clientName() : clientName());
  if (!device->open()) return false;
  setAudioDevice(std::move(device));
  return true;
}

void Workspace::setSettingsState(const QJsonObject& state) {
  m_settings.setState(state);
  emit settingsChanged();
}

void Workspace::didReadFromDisk() {
  setReadFromDisk(true);
  applyMasterVolumeToDevice();
}
