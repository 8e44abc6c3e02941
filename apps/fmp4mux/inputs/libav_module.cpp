#include "apps/fmp4mux/inputs/libav_module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <mutex>
#include <stdexcept>

// Defined when the module is linked in; else looked up in the module loaded.
extern "C" fmp4mux::LibavModule* fmp4muxLibavModule() __attribute__((weak));

namespace fmp4mux {

namespace {
std::mutex g_mutex;
LibavModule* g_module = nullptr;
int g_verbosity = 0;

// The module file beside the running executable.
std::string modulePath() {
    std::string self(4096, '\0');
    const ssize_t n = ::readlink("/proc/self/exe", self.data(), self.size() - 1);
    if (n <= 0) return "libfmp4mux_libav.so";
    self.resize(static_cast<std::size_t>(n));
    const std::size_t slash = self.rfind('/');
    return (slash == std::string::npos ? std::string() : self.substr(0, slash + 1)) + "libfmp4mux_libav.so";
}

LibavModule* load() {
    if (fmp4muxLibavModule != nullptr) return fmp4muxLibavModule();
    const std::string path = modulePath();
    // Kept loaded for the rest of the run: its inputs and their threads live until the end.
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = ::dlerror();
        throw std::runtime_error("cannot load the libavformat module " + path + ": " + (why ? why : "unknown error"));
    }
    using Entry = LibavModule* (*)();
    const auto entry = reinterpret_cast<Entry>(::dlsym(handle, "fmp4muxLibavModule"));
    if (entry == nullptr) throw std::runtime_error(path + " is not fmp4mux's libavformat module");
    return entry();
}
}  // namespace

LibavModule& libav() {
    std::lock_guard lock(g_mutex);
    if (g_module == nullptr) {
        g_module = load();
        g_module->setVerbosity(g_verbosity);
    }
    return *g_module;
}

void setLibavVerbosity(int verbosity) {
    std::lock_guard lock(g_mutex);
    g_verbosity = verbosity;
    if (g_module != nullptr) g_module->setVerbosity(verbosity);
}

}  // namespace fmp4mux
