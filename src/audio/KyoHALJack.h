#pragma once

#include "audio/KyoHALBackend.h"

class KyoHALJack : public KyoHALBackend {
 public:
  const char* name() const override { return "jack"; }
  std::vector<KyoHALDeviceProperties> scan(const std::vector<std::string>& uidsInUse) override { return {}; }
  std::unique_ptr<KyoHALStream> start(const KyoHALDeviceProperties& device, const KyoHALStreamParameters& parameters,
                                      int32_t& status) override {
    status = kKyoHALUnsupportedError;
    return nullptr;
  }
};
