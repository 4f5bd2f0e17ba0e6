#include "foundation/KyoEnvironment.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>

#include "foundation/KyoLog.h"
#include "foundation/KyoStringUtilities.h"

namespace {
std::atomic<long> gLogLevel{0};
std::mutex& objectsMutex() {
  // Never destroyed: threads that outlive main may still ask.
  static std::mutex& m = *new std::mutex;
  return m;
}
std::map<std::string, std::any>& objects() {
  static auto& m = *new std::map<std::string, std::any>;
  return m;
}
}  // namespace

long KyoEnvironment::logLevel() { return gLogLevel.load(std::memory_order_relaxed); }
void KyoEnvironment::setLogLevel(long level) { gLogLevel.store(level, std::memory_order_relaxed); }

std::any KyoEnvironment::objectForKey(const std::string& key) {
  std::lock_guard<std::mutex> lock(objectsMutex());
  auto it = objects().find(key);
  return it == objects().end() ? std::any{} : it->second;
}

void KyoEnvironment::setObject(const std::any& object, const std::string& key) {
  std::lock_guard<std::mutex> lock(objectsMutex());
  if (!object.has_value())
    objects().erase(key);
  else
    objects()[key] = object;
}

namespace {
std::string dotted(const struct sockaddr* address) {
  if (address == nullptr || address->sa_family != AF_INET) return "0.0.0.0";
  const auto* in = reinterpret_cast<const struct sockaddr_in*>(address);
  return addressInDotNotation(ntohl(in->sin_addr.s_addr));
}
}  // namespace

std::vector<KyoIPAddress> KyoEnvironment::ipAddresses() {
  std::vector<KyoIPAddress> result;
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    KYO_LOG_STATUS(errno);
    return result;
  }
  for (struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    KyoIPAddress ip;
    ip.name = entry->ifa_name ? entry->ifa_name : "";
    ip.address = dotted(entry->ifa_addr);
    ip.netmask = dotted(entry->ifa_netmask);
    const uint32_t broadcast = addressFromDotNotation(ip.address) | ~addressFromDotNotation(ip.netmask);
    ip.broadcast = addressInDotNotation(broadcast);
    result.push_back(std::move(ip));
  }
  freeifaddrs(list);
  return result;
}
