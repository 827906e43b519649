#include "util/logging_client.h"

#include <dlfcn.h>

#include <memory>

#include "base/errors.h"

namespace Nvk {
namespace utilities {

std::atomic<ClLoggingFacilityClient*> ClLoggingFacilityClient::m_fpLogInstance{nullptr};
std::atomic<ClLoggingFacilityClient::LogFn> ClLoggingFacilityClient::m_fpLog{nullptr};
std::atomic<ClLoggingFacilityClient::FlushFn> ClLoggingFacilityClient::m_fpFlush{nullptr};

ClLoggingFacilityClient::ClLoggingFacilityClient() {
    try {
        Initialize();
    } catch (...) {
        Close();
        throw;
    }
}

ClLoggingFacilityClient::~ClLoggingFacilityClient() {
    Close();
}

void ClLoggingFacilityClient::Initialize() {
    Open("libnorvaklf.so");
    // Each entry is stored as soon as it resolves: a library without
    // NvkLFFlush leaves m_fpLog set, but no instance, so it is never called.
    m_fpLog.store(reinterpret_cast<LogFn>(GetSymbol("NvkLFLog")));
    m_fpFlush.store(reinterpret_cast<FlushFn>(GetSymbol("NvkLFFlush")));
}

void ClLoggingFacilityClient::Create() {
    if (m_fpLogInstance.load() != nullptr) {
        return;
    }
    std::unique_ptr<ClLoggingFacilityClient> client(new ClLoggingFacilityClient());
    m_fpLogInstance.store(client.release(), std::memory_order_release);
}

void ClLoggingFacilityClient::Destroy() {
    ClLoggingFacilityClient* client = m_fpLogInstance.exchange(nullptr);
    delete client;
}

void ClLoggingFacilityClient::Log(NvkLFLogLevels, const char*, ...) {}

}  // namespace utilities
}  // namespace Nvk
