#include "appliance/mailcore/lazy_library.h"

#include <dlfcn.h>
#include <syslog.h>

#include <map>
#include <string>

#include "platform/mailcore/error.h"

namespace ornic::larkpost::store {
namespace {

std::string OwnDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&OwnDirectory), &info) == 0 || info.dli_fname == nullptr) {
    return ".";
  }
  std::string path = info.dli_fname;
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

void* LazySymbol(const char* file_name, const char* symbol) {
  // Handles are never closed: code from them may still be on the stack of
  // a caller, and the process ends with the request anyway.
  static std::map<std::string, void*> handles;
  void*& handle = handles[file_name];
  if (handle == nullptr) {
    const std::string path = OwnDirectory() + "/" + file_name;
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      syslog(LOG_ERR, "core: cannot load %s: %s", path.c_str(), dlerror());
      throw Error(kErrorStorage);
    }
  }
  void* address = dlsym(handle, symbol);
  if (address == nullptr) {
    syslog(LOG_ERR, "core: %s has no %s", file_name, symbol);
    throw Error(kErrorStorage);
  }
  return address;
}

}  // namespace ornic::larkpost::store
