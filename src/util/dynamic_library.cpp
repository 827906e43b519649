#include "util/dynamic_library.h"

#include <dlfcn.h>

#include "base/errors.h"

namespace Nvk {

namespace {
const char* LoaderText() {
    const char* text = dlerror();
    return text != nullptr ? text : "";
}
}  // namespace

CXDynamicLibrary::~CXDynamicLibrary() {
    Close();
}

void CXDynamicLibrary::Close() {
    if (m_hLibrary != nullptr) {
        dlclose(m_hLibrary);
        m_hLibrary = nullptr;
    }
}

void CXDynamicLibrary::Open(const char* name) {
    Close();
    dlerror();
    // A null name would hand back the main program instead of a library.
    if (name == nullptr) {
        throw CXOtherException("no library name given", kErrLibraryLoad);
    }
    m_hLibrary = dlopen(name, RTLD_NOW);
    if (m_hLibrary == nullptr) {
        throw CXOtherException(LoaderText(), kErrLibraryLoad);
    }
}

void* CXDynamicLibrary::GetSymbol(const char* name) {
    // dlsym with a null handle would search the global scope, and a stale
    // error from an earlier call would be taken for this one's.
    if (m_hLibrary == nullptr) {
        throw CXOtherException("no library is loaded", kErrSymbolResolve);
    }
    if (name == nullptr) {
        throw CXOtherException("no symbol name given", kErrSymbolResolve);
    }
    dlerror();
    void* address = dlsym(m_hLibrary, name);
    const char* text = dlerror();
    if (text != nullptr) {
        throw CXOtherException(text, kErrSymbolResolve);
    }
    return address;
}

}  // namespace Nvk
