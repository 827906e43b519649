// Entry points of the scanner API stand-in, libQV2ScanAPI.so.
//
// Each entry point counts itself for fault injection, validates its
// arguments, forwards to the unit behind the handle, sets the calling
// thread's last error (0 on success) and writes one journal line.
//
// Build variants (same source, compile definitions):
//   KR7SIM_NO_EXTENDED   without the five extended entry points
//   KR7SIM_NO_GETIMAGE2  without ftrScanGetImage2, a broken base group
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "closed/ftrscan.h"
#include "scanner/config.h"

namespace kr7sim {
namespace scanner {
namespace {

struct Handle {
    Unit* unit = nullptr;
    uint64_t epoch = 0;
    unsigned id = 0;
};

struct Context {
    Context() {
        Configure(library);
        if (!library.error.empty()) {
            std::fprintf(stderr, "kr7sim scanner: %s\n", library.error.c_str());
            library.journal.Write("configuration error: " + library.error);
        } else if (!library.units.empty()) {
            base.store(library.units.front()->config().interface_number);
        }
    }

    Unit* UnitOn(int interface_number) const {
        for (const auto& unit : library.units) {
            if (unit->config().interface_number == interface_number)
                return unit.get();
        }
        return nullptr;
    }

    // Looks a handle up without ever dereferencing an unknown pointer.
    bool Find(FTRHANDLE h, Handle& out) {
        std::lock_guard<std::mutex> lock(handles_mutex);
        for (const auto& handle : handles) {
            if (handle.get() == h) {
                out = *handle;
                return true;
            }
        }
        return false;
    }

    Library library;
    std::atomic<int> base{0};
    std::mutex handles_mutex;
    std::vector<std::unique_ptr<Handle>> handles;
    unsigned next_handle = 1;
    std::atomic<int> threads{0};
};

Context& Ctx() {
    static Context context;
    return context;
}

thread_local uint32_t t_last_error = 0;
thread_local int t_thread = 0;

int ThreadNumber() {
    if (t_thread == 0)
        t_thread = Ctx().threads.fetch_add(1) + 1;
    return t_thread;
}

std::string NoArgs() {
    return std::string();
}

std::string Hex(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, v > 0xFFFF ? "0x%08" PRIX32 : "%" PRIu32, v);
    return text;
}

// One API call in progress.
class Call {
public:
    explicit Call(Entry entry)
        : entry_(entry), ctx_(Ctx()), fault_(ctx_.library.faults.OnCall(entry)) {}

    Context& ctx() { return ctx_; }
    bool journal() const { return ctx_.library.journal.enabled(); }
    uint32_t fault() const { return fault_; }
    std::string* note() { return journal() ? &note_ : nullptr; }

    // Argument text for the journal; only built when the journal is on.
    template <class F>
    void Args(F&& describe) {
        if (journal())
            args_ = describe();
    }

    // Resolves a handle; false (with `error` = 87) for an unknown one.
    bool Resolve(FTRHANDLE h, Handle& handle, uint32_t& error) {
        const bool found = h != nullptr && ctx_.Find(h, handle);
        handle_name_ = h == nullptr ? "null" : found ? "h" + std::to_string(handle.id) : "h?";
        error = found ? 0 : FTR_ERROR_INVALID_PARAMETER;
        return found;
    }
    const std::string& handle_name() const { return handle_name_; }

    // Finishes a call with a truth result.
    FTR_BOOL Done(uint32_t error) {
        t_last_error = error;
        Log(error == 0 ? "1" : "0", error);
        return error == 0 ? 1 : 0;
    }

    void Log(const std::string& result, uint32_t error) {
        if (!journal())
            return;
        std::string line = "t" + std::to_string(ThreadNumber()) + " " + EntryName(entry_) + "(" +
                           args_ + ") -> " + result;
        if (error != 0)
            line += " error " + Hex(error) + (error == fault_ ? " (injected)" : "");
        if (!note_.empty())
            line += " [" + note_ + "]";
        ctx_.library.journal.Write(line);
    }

private:
    Entry entry_;
    Context& ctx_;
    uint32_t fault_;
    std::string args_, note_, handle_name_;
};

// The shared shape of every call on an open device.
// `describe` gives the arguments after the handle, for the journal.
template <class D, class F>
FTR_BOOL OnDevice(Entry entry, FTRHANDLE h, D&& describe, F&& body) {
    Call call(entry);
    Handle handle;
    uint32_t error = 0;
    call.Resolve(h, handle, error);
    call.Args([&] { return call.handle_name() + describe(); });
    if (call.fault() != 0) {
        error = call.fault();
    } else if (error == 0) {
        error = body(call, *handle.unit, handle.epoch);
    }
    return call.Done(error);
}

bool DoseValid(int dose) {
    return dose >= 0 && dose <= kMaxDose;
}

FTR_BOOL TakeCapture(Entry entry, FTRHANDLE h, Capture kind, int dose, bool check, void* buffer) {
    return OnDevice(
        entry, h,
        [&] {
            return (check ? ", dose " + std::to_string(dose) : "") +
                   (buffer != nullptr ? ", buffer" : ", null");
        },
        [&](Call& call, Unit& unit, uint64_t epoch) -> uint32_t {
            if (buffer == nullptr || (check && !DoseValid(dose)))
                return FTR_ERROR_INVALID_PARAMETER;
            return unit.TakeFrame(epoch, kind, dose, static_cast<uint8_t*>(buffer), call.note());
        });
}

}  // namespace
}  // namespace scanner
}  // namespace kr7sim

using kr7sim::scanner::Call;
using kr7sim::scanner::Context;
using kr7sim::scanner::Entry;
using kr7sim::scanner::Handle;
using kr7sim::scanner::NoArgs;
using kr7sim::scanner::OnDevice;
using kr7sim::scanner::Unit;
namespace ks = kr7sim::scanner;

extern "C" {

FTRHANDLE ftrScanOpenDevice(void) {
    Call call(Entry::OpenDevice);
    Context& ctx = call.ctx();
    const int base = ctx.base.load();
    call.Args([&] { return "interface " + std::to_string(base); });
    uint32_t error = call.fault();
    Unit* unit = nullptr;
    uint64_t epoch = 0;
    if (error == 0 && !ctx.library.error.empty()) {
        error = FTR_ERROR_INVALID_PARAMETER;  // unusable configuration, see stderr
    } else if (error == 0) {
        unit = ctx.UnitOn(base);
        error = unit == nullptr ? FTR_ERROR_NO_MORE_ITEMS : unit->Open(epoch);
    }
    ks::t_last_error = error;
    if (error != 0) {
        call.Log("null", error);
        return nullptr;
    }
    std::unique_ptr<Handle> handle(new Handle{unit, epoch, 0});
    Handle* raw = handle.get();
    {
        std::lock_guard<std::mutex> lock(ctx.handles_mutex);
        handle->id = ctx.next_handle++;
        ctx.handles.push_back(std::move(handle));
    }
    call.Log("h" + std::to_string(raw->id), 0);
    return raw;
}

FTR_BOOL ftrScanCloseDevice(FTRHANDLE h) {
    Call call(Entry::CloseDevice);
    Handle handle;
    uint32_t error = 0;
    call.Resolve(h, handle, error);
    call.Args([&] { return call.handle_name(); });
    if (call.fault() != 0) {
        error = call.fault();
    } else if (error == 0) {
        Context& ctx = call.ctx();
        std::lock_guard<std::mutex> lock(ctx.handles_mutex);
        for (auto it = ctx.handles.begin(); it != ctx.handles.end(); ++it) {
            if (it->get() == h) {
                ctx.handles.erase(it);
                break;
            }
        }
    }
    return call.Done(error);
}

FTR_BOOL ftrScanSetOptions(FTRHANDLE h, uint32_t mask, uint32_t flags) {
    return OnDevice(
        Entry::SetOptions, h,
        [&] { return ", mask " + ks::Hex(mask) + ", flags " + ks::Hex(flags); },
        [&](Call&, Unit& unit, uint64_t epoch) { return unit.SetOptions(epoch, mask, flags); });
}

FTR_BOOL ftrScanGetOptions(FTRHANDLE h, uint32_t* flags) {
    return OnDevice(Entry::GetOptions, h, NoArgs, [&](Call&, Unit& unit, uint64_t epoch) {
        uint32_t value = 0;
        if (flags == nullptr)
            return FTR_ERROR_INVALID_PARAMETER;
        const uint32_t error = unit.GetOptions(epoch, value);
        if (error == 0)
            *flags = value;
        return error;
    });
}

FTR_BOOL ftrScanGetImageSize(FTRHANDLE h, FTRSCAN_IMAGE_SIZE* size) {
    return OnDevice(Entry::GetImageSize, h, NoArgs, [&](Call& call, Unit& unit, uint64_t epoch) {
        if (size == nullptr)
            return FTR_ERROR_INVALID_PARAMETER;
        int w = 0, hgt = 0;
        const uint32_t error = unit.GetImageSize(epoch, w, hgt);
        if (error == 0) {
            *size = FTRSCAN_IMAGE_SIZE{w, hgt, w * hgt};
            if (call.journal())
                *call.note() = std::to_string(w) + "x" + std::to_string(hgt);
        }
        return error;
    });
}

FTR_BOOL ftrScanGetFrame(FTRHANDLE h, void* buffer, FTRSCAN_FRAME_PARAMETERS*) {
    return ks::TakeCapture(Entry::GetFrame, h, ks::Capture::Finger, kr7sim::kNominalDose, false,
                           buffer);
}

FTR_BOOL ftrScanGetBacklightImage(FTRHANDLE h, void* buffer) {
    return ks::TakeCapture(Entry::GetBacklightImage, h, ks::Capture::Backlight, 0, false, buffer);
}

FTR_BOOL ftrScanGetDarkImage(FTRHANDLE h, void* buffer) {
    return ks::TakeCapture(Entry::GetDarkImage, h, ks::Capture::Dark, 0, false, buffer);
}

FTR_BOOL ftrScanGetImage(FTRHANDLE h, int dose, void* buffer) {
    return ks::TakeCapture(Entry::GetImage, h, ks::Capture::Finger, dose, true, buffer);
}

FTR_BOOL ftrScanGetImageByVariableDose(FTRHANDLE h, int dose, void* buffer) {
    return ks::TakeCapture(Entry::GetImageByVariableDose, h, ks::Capture::Finger, dose, true,
                           buffer);
}

#ifndef KR7SIM_NO_GETIMAGE2
FTR_BOOL ftrScanGetImage2(FTRHANDLE h, int dose, void* buffer) {
    return ks::TakeCapture(Entry::GetImage2, h, ks::Capture::Finger, dose, true, buffer);
}
#endif

FTR_BOOL ftrScanIsFingerPresent(FTRHANDLE h, FTRSCAN_FRAME_PARAMETERS*) {
    return OnDevice(Entry::IsFingerPresent, h, NoArgs, [&](Call& call, Unit& unit, uint64_t epoch) {
        bool present = false;
        return unit.IsFingerPresent(epoch, present, call.note());
    });
}

FTR_BOOL ftrScanSave7Bytes(FTRHANDLE h, void* bytes) {
    return OnDevice(Entry::Save7Bytes, h, NoArgs, [&](Call&, Unit& unit, uint64_t epoch) {
        return bytes == nullptr ? FTR_ERROR_INVALID_PARAMETER
                                : unit.Save7Bytes(epoch, static_cast<const uint8_t*>(bytes));
    });
}

FTR_BOOL ftrScanRestore7ControlBytes(FTRHANDLE h, void* bytes) {
    return OnDevice(Entry::Restore7ControlBytes, h, NoArgs, [&](Call&, Unit& unit, uint64_t epoch) {
        return bytes == nullptr ? FTR_ERROR_INVALID_PARAMETER
                                : unit.Restore7Bytes(epoch, static_cast<uint8_t*>(bytes));
    });
}

FTR_BOOL ftrScanGetDiodesStatus(FTRHANDLE h, FTR_BOOL* green, FTR_BOOL* red) {
    return OnDevice(Entry::GetDiodesStatus, h, NoArgs, [&](Call&, Unit& unit, uint64_t epoch) {
        if (green == nullptr || red == nullptr)
            return FTR_ERROR_INVALID_PARAMETER;
        bool g = false, r = false;
        const uint32_t error = unit.GetLeds(epoch, g, r);
        if (error == 0) {
            *green = g;
            *red = r;
        }
        return error;
    });
}

FTR_BOOL ftrScanSetDiodesStatus(FTRHANDLE h, uint8_t green, uint8_t red) {
    return OnDevice(
        Entry::SetDiodesStatus, h,
        [&] { return ", green " + std::to_string(green) + ", red " + std::to_string(red); },
        [&](Call&, Unit& unit, uint64_t epoch) { return unit.SetLeds(epoch, green, red); });
}

FTR_BOOL ftrScanGetInterfaces(FTRSCAN_INTERFACES_LIST* list) {
    Call call(Entry::GetInterfaces);
    uint32_t error = call.fault();
    std::string connected;
    if (error == 0 && list == nullptr)
        error = FTR_ERROR_INVALID_PARAMETER;
    if (error == 0) {
        for (int& status : list->InterfaceStatus)
            status = 1;
        for (const auto& unit : call.ctx().library.units) {
            if (unit->Connected()) {
                list->InterfaceStatus[unit->config().interface_number] = 0;
                connected += (connected.empty() ? "" : " ") +
                             std::to_string(unit->config().interface_number);
            }
        }
    }
    call.Args([&] { return list != nullptr ? "list" : "null"; });
    if (call.journal() && error == 0)
        *call.note() = "connected: " + (connected.empty() ? "none" : connected);
    return call.Done(error);
}

FTR_BOOL ftrSetBaseInterface(int number) {
    Call call(Entry::SetBaseInterface);
    call.Args([&] { return std::to_string(number); });
    uint32_t error = call.fault();
    if (error == 0) {
        Unit* unit = call.ctx().UnitOn(number);
        error = unit != nullptr && unit->Connected() ? 0 : FTR_ERROR_NO_MORE_ITEMS;
    }
    if (error == 0)
        call.ctx().base.store(number);
    return call.Done(error);
}

int ftrGetBaseInterfaceNumber(void) {
    Call call(Entry::GetBaseInterfaceNumber);
    const int number = call.fault() != 0 ? -1 : call.ctx().base.load();
    ks::t_last_error = call.fault();
    call.Log(std::to_string(number), call.fault());
    return number;
}

FTR_BOOL ftrScanSaveSerialNumber(FTRHANDLE h, void* block) {
    return OnDevice(Entry::SaveSerialNumber, h, NoArgs, [&](Call&, Unit& unit, uint64_t epoch) {
        return block == nullptr ? FTR_ERROR_INVALID_PARAMETER
                                : unit.SaveSerialNumber(epoch, static_cast<const uint8_t*>(block));
    });
}

uint32_t ftrScanGetLastError(void) {
    Call call(Entry::GetLastError);
    const uint32_t code = call.fault() != 0 ? call.fault() : ks::t_last_error;
    call.Log(ks::Hex(code), 0);
    return code;
}

void ftrScanSetLastError(uint32_t code) {
    Call call(Entry::SetLastError);
    call.Args([&] { return ks::Hex(code); });
    ks::t_last_error = call.fault() != 0 ? call.fault() : code;
    call.Log("void", 0);
}

#ifndef KR7SIM_NO_EXTENDED
FTR_BOOL ftrScanGetExtMemorySize(FTRHANDLE h, int* size) {
    return OnDevice(Entry::GetExtMemorySize, h, NoArgs,
                    [&](Call& call, Unit& unit, uint64_t epoch) {
                        if (size == nullptr)
                            return FTR_ERROR_INVALID_PARAMETER;
                        int value = 0;
                        const uint32_t error = unit.GetExtMemorySize(epoch, value);
                        if (error == 0) {
                            *size = value;
                            if (call.journal())
                                *call.note() = std::to_string(value) + " bytes";
                        }
                        return error;
                    });
}

FTR_BOOL ftrScanSaveExtMemory(FTRHANDLE h, void* data, int offset, int count) {
    return OnDevice(
        Entry::SaveExtMemory, h,
        [&] { return ", offset " + std::to_string(offset) + ", count " + std::to_string(count); },
        [&](Call&, Unit& unit, uint64_t epoch) {
            return unit.WriteExtMemory(epoch, static_cast<const uint8_t*>(data), offset, count);
        });
}

FTR_BOOL ftrScanRestoreExtMemory(FTRHANDLE h, void* data, int offset, int count) {
    return OnDevice(
        Entry::RestoreExtMemory, h,
        [&] { return ", offset " + std::to_string(offset) + ", count " + std::to_string(count); },
        [&](Call&, Unit& unit, uint64_t epoch) {
            return unit.ReadExtMemory(epoch, static_cast<uint8_t*>(data), offset, count);
        });
}

FTR_BOOL ftrScanGetSerialNumber(FTRHANDLE h, void* eight) {
    return OnDevice(Entry::GetSerialNumber, h, NoArgs, [&](Call& call, Unit& unit, uint64_t epoch) {
        if (eight == nullptr)
            return FTR_ERROR_INVALID_PARAMETER;
        const uint32_t error = unit.GetSerialNumber(epoch, static_cast<uint8_t*>(eight));
        if (error == 0 && call.journal())
            *call.note() = std::string(static_cast<const char*>(eight), 8);
        return error;
    });
}

FTR_BOOL ftrScanGetVersion(FTRHANDLE h, FTRSCAN_VERSION_INFO* info) {
    return OnDevice(Entry::GetVersion, h, NoArgs, [&](Call&, Unit& unit, uint64_t epoch) {
        // The caller states the record's size; anything smaller than the
        // record would be written past.
        if (info == nullptr || info->dwVersionInfoSize < sizeof(FTRSCAN_VERSION_INFO))
            return FTR_ERROR_INVALID_PARAMETER;
        return unit.GetVersion(epoch, *info);
    });
}
#endif

}  // extern "C"
