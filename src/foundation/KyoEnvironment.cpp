#include "foundation/KyoEnvironment.h"

#include <atomic>
#include <map>
#include <mutex>

namespace {
std::atomic<long> gLogLevel{0};
std::mutex gObjectsMutex;
std::map<std::string, std::any>& objects() {
  static std::map<std::string, std::any> m;
  return m;
}
}  // namespace

long KyoEnvironment::logLevel() { return gLogLevel.load(std::memory_order_relaxed); }
void KyoEnvironment::setLogLevel(long level) { gLogLevel.store(level, std::memory_order_relaxed); }

std::any KyoEnvironment::objectForKey(const std::string& key) {
  std::lock_guard<std::mutex> lock(gObjectsMutex);
  auto it = objects().find(key);
  return it == objects().end() ? std::any{} : it->second;
}

void KyoEnvironment::setObject(const std::any& object, const std::string& key) {
  std::lock_guard<std::mutex> lock(gObjectsMutex);
  if (!object.has_value())
    objects().erase(key);
  else
    objects()[key] = object;
}
