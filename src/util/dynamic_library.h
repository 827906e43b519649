// Common base of the classes that load a closed library at run time. It owns
// one handle of the dynamic loader and resolves symbols from it; each derived
// class opens its own library and keeps its own table of entry points.
#pragma once

namespace Nvk {

class CXDynamicLibrary {
public:
    CXDynamicLibrary() = default;
    CXDynamicLibrary(const CXDynamicLibrary&) = delete;
    CXDynamicLibrary& operator=(const CXDynamicLibrary&) = delete;
    // Closes the library when one is loaded.
    virtual ~CXDynamicLibrary();

    // The address of `name` in the loaded library, which may be null for a
    // symbol whose value is null. Throws CXOtherException with
    // kErrSymbolResolve and the loader's text when the symbol is missing,
    // and also when no library is loaded or the name is null (the global
    // scope is never searched).
    void* GetSymbol(const char* name);

protected:
    // dlopen(name, RTLD_NOW), closing a handle already held first. Throws
    // CXOtherException with kErrLibraryLoad and the loader's text (empty when
    // it gives none) on failure; no handle is held then.
    void Open(const char* name);

    // dlclose the handle when one is held.
    void Close();

    bool IsLoaded() const { return m_hLibrary != nullptr; }

    void* m_hLibrary = nullptr;
};

}  // namespace Nvk
