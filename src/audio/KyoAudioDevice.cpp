// The catalogue side of KyoAudioDevice: finding devices, reading their properties,
// and hearing about changes on the device layer's listener thread.

#include "audio/KyoAudioDevice.h"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"

namespace {

std::atomic<KyoAudioDeviceClassDelegate*> gClassDelegate{nullptr};

// The platform has no aggregate devices; the callers learn it once from the log.
void logNoAggregatesOnce() {
  static std::once_flag once;
  std::call_once(once, [] { KyoLog("Aggregate devices aren't available on this platform; the request does nothing."); });
}

// One listener on the system object for the life of the process, installed on first use.
void installSystemListener() {
  static std::once_flag once;
  std::call_once(once, [] {
    gClassDelegate.store(nullptr);
    KyoHAL::shared().addListener([](KyoAudioObjectID object, uint32_t selector) {
      if (object != kKyoAudioObjectSystemObject) return;
      KyoAudioDeviceClassDelegate* delegate = gClassDelegate.load();
      const char* name = nullptr;
      switch (selector) {
        case kKyoPropertyDevices:
          if (delegate) delegate->audioHardwareDeviceListDidChange();
          name = kKyoAudioHardwareDeviceListDidChangeNotification;
          break;
        case kKyoPropertyDefaultInput:
          if (delegate) delegate->audioHardwareDefaultInputDeviceDidChange();
          name = kKyoAudioHardwareDefaultInputDeviceDidChangeNotification;
          break;
        case kKyoPropertyDefaultOutput:
          if (delegate) delegate->audioHardwareDefaultOutputDeviceDidChange();
          name = kKyoAudioHardwareDefaultOutputDeviceDidChangeNotification;
          break;
        case kKyoPropertyDefaultSystemOutput:
          if (delegate) delegate->audioHardwareDefaultSystemOutputDeviceDidChange();
          name = kKyoAudioHardwareDefaultSystemOutputDeviceDidChangeNotification;
          break;
        default:
          return;
      }
      KyoNotificationCenter::defaultCenter().postNotification(name);
    });
  });
}

}  // namespace

// --- Class ---

KyoAudioDeviceClassDelegate* KyoAudioDevice::delegateOfClass() {
  installSystemListener();
  return gClassDelegate.load();
}

void KyoAudioDevice::setDelegateOfClass(KyoAudioDeviceClassDelegate* delegate) {
  installSystemListener();
  gClassDelegate.store(delegate);
}

std::vector<std::shared_ptr<KyoAudioDevice>> KyoAudioDevice::allDevices() {
  std::vector<std::shared_ptr<KyoAudioDevice>> devices;
  for (KyoAudioObjectID id : KyoHAL::shared().allDevices())
    if (auto device = deviceWithID(id)) devices.push_back(std::move(device));
  return devices;
}

std::vector<std::shared_ptr<KyoAudioDevice>> KyoAudioDevice::devicesWithInputsAndOutputs() {
  std::vector<std::shared_ptr<KyoAudioDevice>> devices;
  for (auto& device : allDevices())
    if (device->inputChannels() > 0 && device->outputChannels() > 0) devices.push_back(device);
  return devices;
}

std::shared_ptr<KyoAudioDevice> KyoAudioDevice::defaultInputDevice() {
  KyoAudioObjectID id = KyoHAL::shared().defaultInputDevice();
  return id ? deviceWithID(id) : nullptr;
}

std::shared_ptr<KyoAudioDevice> KyoAudioDevice::defaultOutputDevice() {
  KyoAudioObjectID id = KyoHAL::shared().defaultOutputDevice();
  if (!id) {
    KYO_LOG_STATUS(kKyoHALBadDeviceError);
    return nullptr;
  }
  return deviceWithID(id);
}

std::shared_ptr<KyoAudioDevice> KyoAudioDevice::deviceWithID(KyoAudioObjectID deviceID) {
  if (deviceID == 0) return nullptr;
  installSystemListener();
  std::shared_ptr<KyoAudioDevice> device(new KyoAudioDevice(deviceID));
  if (!device->install()) return nullptr;
  return device;
}

std::shared_ptr<KyoAudioDevice> KyoAudioDevice::deviceWithUID(const std::string& uid) {
  KyoAudioObjectID id = KyoHAL::shared().deviceWithUID(uid);
  if (!id) {
    KYO_LOG_STATUS_DETAIL(kKyoHALBadDeviceError, "no device with UID " + uid);
    return nullptr;
  }
  auto device = deviceWithID(id);
  if (!device || device->deviceUID() != uid) return nullptr;
  return device;
}

std::shared_ptr<KyoAudioDevice> KyoAudioDevice::deviceWithName(const std::string& name) {
  for (auto& device : allDevices())
    if (device->name() == name) return device;
  return nullptr;
}

std::shared_ptr<KyoAudioDevice> KyoAudioDevice::createAggregateNamed(const std::string& name,
                                                                    const std::vector<std::string>&) {
  if (name.empty()) return nullptr;
  logNoAggregatesOnce();
  return nullptr;
}

// --- Life ---

KyoAudioDevice::KyoAudioDevice(KyoAudioObjectID deviceID) : m_deviceID(deviceID) {}

// One listener on the device layer for this device's 'livn', 'over' and 'nsrt'; it
// posts the property notification, which this object observes for itself.
bool KyoAudioDevice::install() {
  std::weak_ptr<KyoAudioDevice> weak = weak_from_this();
  const KyoAudioObjectID id = m_deviceID;
  m_listenerToken = KyoHAL::shared().addListener([weak, id](KyoAudioObjectID object, uint32_t selector) {
    if (object != id) return;
    if (selector != kKyoPropertyDeviceIsAlive && selector != kKyoPropertyProcessorOverload &&
        selector != kKyoPropertyNominalSampleRate)
      return;
    auto self = weak.lock();
    if (!self) return;
    KyoUserInfo info;
    info["AudioObjectID"] = uint32_t(object);
    info["PropertySelector"] = uint32_t(selector);
    info["PropertyScope"] = uint32_t(kKyoScopeGlobal);
    info["PropertyElement"] = uint32_t(0);
    KyoNotificationCenter::defaultCenter().postNotification(kKyoAudioDevicePropertyDidChangeNotification, self.get(),
                                                            std::move(info));
  });
  if (m_listenerToken == 0) {
    KYO_LOG_STATUS(kKyoHALIllegalOperationError);
    return false;
  }
  m_observerToken = KyoNotificationCenter::defaultCenter().addObserver(
      kKyoAudioDevicePropertyDidChangeNotification,
      [this](const KyoNotification& n) {
        const uint32_t* object = n.userInfoValue<uint32_t>("AudioObjectID");
        const uint32_t* selector = n.userInfoValue<uint32_t>("PropertySelector");
        if (object && selector) _deviceChangedNotification(*object, *selector);
      },
      this);
  return true;
}

KyoAudioDevice::~KyoAudioDevice() {
  if (m_listenerToken) KyoHAL::shared().removeListener(m_listenerToken);
  if (m_observerToken) KyoNotificationCenter::defaultCenter().removeObserver(m_observerToken);
  close();
}

// Listener thread.
void KyoAudioDevice::_deviceChangedNotification(uint32_t objectID, uint32_t selector) {
  if (objectID != m_deviceID) return;
  KyoAudioDeviceDelegate* d = delegate();
  switch (selector) {
    case kKyoPropertyProcessorOverload:
      if (d) d->audioDeviceDidOverload(this);
      break;
    case kKyoPropertyNominalSampleRate:
      if (d) d->audioDeviceNominalSampleRateDidChange(this);
      break;
    case kKyoPropertyDeviceIsAlive:
      // Any 'livn' news counts as death.
      m_died.store(true);
      if (isOpen()) close();
      if (d) d->audioDeviceDidDie(this);
      break;
    default:
      break;
  }
}

// --- Properties ---

bool KyoAudioDevice::readProperties(KyoHALDeviceProperties& out, const char* function, int line) const {
  int32_t status = KyoHAL::shared().properties(m_deviceID, out);
  if (status != kKyoHALNoError) {
    KyoLogStatus(status, function, line);
    return false;
  }
  return true;
}

std::string KyoAudioDevice::_stringForProperty(uint32_t selector) const {
  KyoHALDeviceProperties p;
  if (!readProperties(p, __PRETTY_FUNCTION__, __LINE__)) return {};
  std::string value;
  if (selector == KyoFourCC("uid "))
    value = p.uid;
  else if (selector == KyoFourCC("muid"))
    value = p.modelUID;
  else if (selector == KyoFourCC("lnam"))
    value = p.name;
  else if (selector == KyoFourCC("lmak"))
    value = p.manufacturer;
  else {
    KYO_LOG_STATUS(kKyoHALUnknownPropertyError);
    return {};
  }
  if (value.empty()) KYO_LOG_STATUS_DETAIL(kKyoHALUnknownPropertyError, "empty " + KyoFourCharString(selector));
  return value;
}

uint32_t KyoAudioDevice::_unsignedIntForProperty(uint32_t selector) const {
  KyoHALDeviceProperties p;
  if (!readProperties(p, __PRETTY_FUNCTION__, __LINE__)) return 0;
  if (selector == KyoFourCC("clkd")) return p.clockDomain;
  if (selector == KyoFourCC("bsiz")) return p.bufferSizeInFrames * uint32_t(sizeof(float));
  if (selector == KyoFourCC("fsiz")) return p.bufferSizeInFrames;
  // Our backends deliver fixed cycles: the largest variable size is the size.
  if (selector == KyoFourCC("vfsz")) return p.bufferSizeInFrames;
  KYO_LOG_STATUS(kKyoHALUnknownPropertyError);
  return 0;
}

double KyoAudioDevice::_doubleForProperty(uint32_t selector) const {
  KyoHALDeviceProperties p;
  if (!readProperties(p, __PRETTY_FUNCTION__, __LINE__)) return 0.0;
  if (selector == KyoFourCC("nsrt")) return p.nominalSampleRate;
  KYO_LOG_STATUS(kKyoHALUnknownPropertyError);
  return 0.0;
}

std::string KyoAudioDevice::deviceUID() const { return _stringForProperty(KyoFourCC("uid ")); }
std::string KyoAudioDevice::deviceModelUID() const { return _stringForProperty(KyoFourCC("muid")); }
std::string KyoAudioDevice::name() const { return _stringForProperty(KyoFourCC("lnam")); }
std::string KyoAudioDevice::manufacturer() const { return _stringForProperty(KyoFourCC("lmak")); }
double KyoAudioDevice::nominalSampleRate() const { return _doubleForProperty(KyoFourCC("nsrt")); }
uint32_t KyoAudioDevice::clockDomain() const { return _unsignedIntForProperty(KyoFourCC("clkd")); }
uint32_t KyoAudioDevice::bufferSize() const { return _unsignedIntForProperty(KyoFourCC("bsiz")); }
uint32_t KyoAudioDevice::bufferSizeInFrames() const { return _unsignedIntForProperty(KyoFourCC("fsiz")); }
uint32_t KyoAudioDevice::maxVariableBufferSizeInFrames() const { return _unsignedIntForProperty(KyoFourCC("vfsz")); }

uint32_t KyoAudioDevice::inputChannels() const {
  KyoHALDeviceProperties p;
  return readProperties(p, __PRETTY_FUNCTION__, __LINE__) ? p.inputChannels : 0;
}

uint32_t KyoAudioDevice::outputChannels() const {
  KyoHALDeviceProperties p;
  return readProperties(p, __PRETTY_FUNCTION__, __LINE__) ? p.outputChannels : 0;
}

KyoAudioStreamDescription KyoAudioDevice::inputStreamDescription() const {
  KyoHALDeviceProperties p;
  if (!readProperties(p, __PRETTY_FUNCTION__, __LINE__)) return KyoAudioStreamDescription();
  return KyoAudioStreamDescription(p.nominalSampleRate, p.inputChannels);
}

KyoAudioStreamDescription KyoAudioDevice::outputStreamDescription() const {
  KyoHALDeviceProperties p;
  if (!readProperties(p, __PRETTY_FUNCTION__, __LINE__)) return KyoAudioStreamDescription();
  return KyoAudioStreamDescription(p.nominalSampleRate, p.outputChannels);
}

uint32_t KyoAudioDevice::minBufferSizeInFrames() const {
  KyoHALDeviceProperties p;
  return readProperties(p, __PRETTY_FUNCTION__, __LINE__) ? p.minBufferSizeInFrames : 0;
}

uint32_t KyoAudioDevice::maxBufferSizeInFrames() const {
  KyoHALDeviceProperties p;
  return readProperties(p, __PRETTY_FUNCTION__, __LINE__) ? p.maxBufferSizeInFrames : 0;
}

void KyoAudioDevice::setBufferSizeInFrames(uint32_t frames) {
  int32_t status = KyoHAL::shared().setBufferSizeInFrames(m_deviceID, frames);
  if (status != kKyoHALNoError) KYO_LOG_STATUS(status);
}

std::optional<std::vector<std::string>> KyoAudioDevice::fullSubDeviceList() const { return std::nullopt; }

void KyoAudioDevice::setFullSubDeviceList(const std::vector<std::string>&) { logNoAggregatesOnce(); }

// Never an aggregate here, so the device stays as it is.
void KyoAudioDevice::destroyAggregate() {}
