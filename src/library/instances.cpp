#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>

#include "device/file_searcher.h"
#include "library/tagger_factories.h"
#include "zeptick/library.h"

namespace zeptick {

namespace {

struct RefCountZeptick {
  Zeptick* real = nullptr;
  ZeptickVirtual* virtual_tagger = nullptr;
  uint64_t count = 0;
};

struct Registry {
  std::mutex instances_mutex;
  std::map<ZeptickBase*, RefCountZeptick> instances;
  Zeptick* default_tagger = nullptr;
};

// Never destroyed: taggers may be freed from static destructors of user code.
Registry& registry() {
  static auto* instance = new Registry();
  return *instance;
}

std::atomic<int> channel_number_scheme{ZT_CHANNEL_NUMBER_SCHEME_AUTO};

void destroyEntry(const RefCountZeptick& entry) {
  if ((entry.real == nullptr) == (entry.virtual_tagger == nullptr)) {
    throw std::runtime_error("instance must point to a real XOR or virtual zeptick");
  }
  if (entry.real != nullptr) {
    detail::TaggerDeleter::destroy(entry.real);
  } else {
    detail::TaggerDeleter::destroy(entry.virtual_tagger);
  }
}

}  // namespace

namespace detail {

TaggerFactories& taggerFactories() {
  static auto* factories = new TaggerFactories(defaultTaggerFactories());
  return *factories;
}

}  // namespace detail

std::string getVersion() { return "2.7.0"; }

Zeptick* createZeptick(const std::string& serial) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.instances_mutex);
  if (serial.empty() && reg.default_tagger != nullptr) {
    ++reg.instances.at(reg.default_tagger).count;
    return reg.default_tagger;
  }
  if (!serial.empty()) {
    for (auto& [base, entry] : reg.instances) {
      if (entry.real != nullptr && entry.real->getSerial() == serial) {
        ++entry.count;
        return entry.real;
      }
    }
  }
  // A constructor that throws leaves the registry as it was.
  Zeptick* tagger = detail::taggerFactories().hardware(serial);
  reg.instances[tagger] = RefCountZeptick{tagger, nullptr, 1};
  if (serial.empty()) reg.default_tagger = tagger;
  return tagger;
}

ZeptickVirtual* createZeptickVirtual() {
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.instances_mutex);
  ZeptickVirtual* tagger = detail::taggerFactories().replay();
  reg.instances[tagger] = RefCountZeptick{nullptr, tagger, 1};
  return tagger;
}

bool freeZeptick(ZeptickBase* tagger) {
  if (tagger == nullptr) return false;
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.instances_mutex);
  const bool is_default =
      reg.default_tagger != nullptr && static_cast<ZeptickBase*>(reg.default_tagger) == tagger;
  auto found = reg.instances.find(tagger);
  if (found == reg.instances.end()) return false;
  if (--found->second.count != 0) return false;
  destroyEntry(found->second);
  reg.instances.erase(found);
  if (is_default) reg.default_tagger = nullptr;
  return true;
}

void freeAllZeptick() {
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.instances_mutex);
  for (const auto& [base, entry] : reg.instances) destroyEntry(entry);
  reg.instances.clear();
  reg.default_tagger = nullptr;
}

std::vector<std::string> scanZeptick() { return detail::taggerFactories().scan(); }

std::string getZeptickModel(const std::string& serial) {
  return detail::taggerFactories().model(serial);
}

void setCustomBitFileName(const std::string& name) { device::setCustomFirmwareFile(name); }

void setZeptickChannelNumberScheme(int scheme) { channel_number_scheme.store(scheme); }

int getZeptickChannelNumberScheme() { return channel_number_scheme.load(); }

bool hasZeptickVirtualLicense() { return true; }

}  // namespace zeptick
