#include "scanner/unit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

#include "calibration/calibration_header.h"
#include "print/rng.h"

namespace kr7sim {
namespace scanner {
namespace {

constexpr uint64_t kStreamDark = 0x4441524Bull;
constexpr uint64_t kStreamSerial = 0x53455249ull;
// The brightest raw pixel of the empty platen at the nominal dose stays
// below this, so that noise does not clip the flat field.
constexpr double kBrightestEmpty = 244.0;
constexpr size_t kImpressionCache = 4;

// Turns a frame in platen orientation upside down and, unless the host asked
// for the inverted polarity, inverts it: the polarity the API delivers.
void ToApiPolarity(uint8_t* p, int width, int height, bool invert) {
    const uint8_t mask = invert ? 0 : 0xFF;
    const size_t w = static_cast<size_t>(width);
    for (int y = 0; y < height / 2; ++y) {
        uint8_t* a = p + w * y;
        uint8_t* b = p + w * (height - 1 - y);
        for (size_t x = 0; x < w; ++x) {
            const uint8_t t = a[x];
            a[x] = static_cast<uint8_t>(b[x] ^ mask);
            b[x] = static_cast<uint8_t>(t ^ mask);
        }
    }
    if (height % 2 != 0) {
        uint8_t* m = p + w * (height / 2);
        for (size_t x = 0; x < w; ++x)
            m[x] = static_cast<uint8_t>(m[x] ^ mask);
    }
}

// Copies `image` centred into a width x height frame, cropping or padding
// with `fill`.
void Fit(const GreyImage& image, int width, int height, uint8_t fill, uint8_t* out) {
    std::memset(out, fill, static_cast<size_t>(width) * height);
    const int dx = (width - image.width) / 2, dy = (height - image.height) / 2;
    for (int y = 0; y < height; ++y) {
        const int sy = y - dy;
        if (sy < 0 || sy >= image.height)
            continue;
        const int x0 = std::max(0, dx), x1 = std::min(width, dx + image.width);
        if (x1 > x0) {
            std::memcpy(out + static_cast<size_t>(y) * width + x0,
                        image.pixels.data() + static_cast<size_t>(sy) * image.width + (x0 - dx),
                        static_cast<size_t>(x1 - x0));
        }
    }
}

std::string DefaultSerial(uint64_t seed) {
    char text[16];
    std::snprintf(text, sizeof text, "KR7%05u",
                  static_cast<unsigned>(HashWords(seed, kStreamSerial) % 100000));
    return text;
}

}  // namespace

Unit::Unit(const UnitConfig& config, std::shared_ptr<const Scenario> scenario, bool realtime,
           bool fixed_frame)
    : config_(config),
      scenario_(std::move(scenario)),
      realtime_(realtime),
      fixed_frame_(fixed_frame) {
    Rng rng(HashWords(config.seed, kStreamDark));
    dark_offset_ = rng.Uniform(4.0, 8.0);
    serial_ = config.serial.empty() ? DefaultSerial(config.seed) : config.serial;
    serial_.resize(8, ' ');
    ext_.assign(static_cast<size_t>(std::max(0, config.ext_memory_size)), 0xFF);
    if (config.calibration) {
        // The plug-in always asks for the long image; that is the size the
        // factory calibrated.
        int w = config.width, h = config.height;
        if (config.long_supported && config.long_width > 0) {
            w = config.long_width;
            h = config.long_height;
        }
        const std::vector<uint8_t> payload = Serialize(OpticsFor(w, h));
        unsigned char revision[17] = "KR7SIM CAL 1.0.0";
        const std::string description =
            "Virtual KR7 unit " + serial_ + ", factory calibration of the prism optics";
        Nvk::ClQV2CalibrationHeader header;
        header.PutCalibrationData(payload.data(), static_cast<unsigned>(payload.size()), revision,
                                  description.c_str());
        const auto& block = header.Buffer();
        std::copy_n(block.begin(), std::min(block.size(), ext_.size()), ext_.begin());
    }
}

const Optics& Unit::OpticsFor(int width, int height) {
    return GeometryFor(width, height).optics;
}

Unit::Geometry& Unit::GeometryFor(int width, int height) {
    auto found = geometry_.find({width, height});
    if (found != geometry_.end())
        return found->second;
    Geometry g;
    g.optics = MakeUnitOptics(width, height, config_.seed);
    const Optics& o = g.optics;
    const size_t n = static_cast<size_t>(width) * height;
    g.maps.illumination.resize(n);
    g.maps.source_x.resize(n);
    g.maps.source_y.resize(n);
    double brightest = 0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(y) * width + x;
            double px = 0, py = 0;
            UncorrectedToPlaten(o, x, y, px, py);
            const double f = Illumination(o, x, y);
            g.maps.source_x[i] = static_cast<float>(px);
            g.maps.source_y[i] = static_cast<float>(py);
            g.maps.illumination[i] = static_cast<float>(f);
            brightest = std::max(brightest, f);
        }
    }
    // The flat level is what the unit reads on its empty platen at the
    // nominal dose; lower it where the optics would otherwise clip.
    const double flat =
        std::min<double>(g.optics.flatLevel, std::floor(kBrightestEmpty / brightest));
    g.optics.flatLevel = static_cast<uint16_t>(flat);
    g.empty_level = flat - dark_offset_;
    return geometry_.emplace(std::make_pair(width, height), std::move(g)).first->second;
}

std::shared_ptr<const ScanEngine> Unit::EngineFor(int width, int height, int dirt) {
    Geometry& g = GeometryFor(width, height);
    auto& engine = g.engines[dirt];
    if (!engine) {
        SensorConfig sensor;
        sensor.unit_seed = config_.seed;
        sensor.width = width;
        sensor.height = height;
        sensor.offset_min = sensor.offset_max = dark_offset_;
        sensor.empty_level = g.empty_level;
        sensor.dirt_spots = dirt;
        engine = std::make_shared<const ScanEngine>(sensor, g.maps);
    }
    return engine;
}

bool Unit::FingerOn(const Scenario::State& state) const {
    if (state.segment->finger < 0 || state.segment->capture_error == FTR_ERROR_EMPTY_FRAME)
        return false;
    const ImpressionParams& p = scenario_->fingers()[size_t(state.segment->finger)].params;
    if (state.local < p.touch_frame || state.local >= p.lift_frame)
        return false;
    return p.kind != ImpressionKind::Rolled ||
           state.local - p.touch_frame <
               std::max<uint32_t>(1, p.press_frames) + std::max<uint32_t>(1, p.roll_frames) + 1;
}

std::shared_ptr<const Impression> Unit::ImpressionFor(const ScanEngine& engine,
                                                      const Scenario::State& state) {
    const int finger = state.segment->finger;
    for (const CachedImpression& c : impressions_) {
        if (c.width == engine.width() && c.height == engine.height() && c.cycle == state.cycle &&
            c.finger == finger)
            return c.impression;
    }
    ImpressionParams params = scenario_->fingers()[size_t(finger)].params;
    // A fresh placement each time the script comes round again.
    const uint64_t placement =
        state.cycle * scenario_->fingers().size() + static_cast<uint64_t>(finger);
    params.impression = static_cast<uint32_t>(HashWords(config_.seed, placement) & 0x0FFFFFFF);
    std::shared_ptr<const Impression> impression = engine.CreateImpression(params);
    if (impressions_.size() >= kImpressionCache)
        impressions_.erase(impressions_.begin());
    impressions_.push_back({engine.width(), engine.height(), state.cycle, finger, impression});
    return impression;
}

bool Unit::FrameSize(int& width, int& height) const {
    const bool long_image = (options_ & FTR_OPTIONS_RECEIVE_LONG_IMAGE) != 0 &&
                            config_.long_supported && config_.long_width > 0;
    width = long_image ? config_.long_width : config_.width;
    height = long_image ? config_.long_height : config_.height;
    return long_image;
}

uint32_t Unit::Reach(uint64_t epoch) {
    const Scenario::State state = scenario_->At(frame_);
    if (state.segment->unplugged) {
        ++frame_;
        return FTR_ERROR_DEVICE_NOT_FUNCTIONING;
    }
    return scenario_->UnplugsUpTo(frame_) != epoch ? FTR_ERROR_DEVICE_NOT_FUNCTIONING : 0;
}

bool Unit::Connected() {
    Lock lock(mutex_);
    return !scenario_->At(frame_).segment->unplugged;
}

uint32_t Unit::Open(uint64_t& epoch) {
    Lock lock(mutex_);
    if (scenario_->At(frame_).segment->unplugged) {
        ++frame_;
        return FTR_ERROR_NO_MORE_ITEMS;
    }
    epoch = scenario_->UnplugsUpTo(frame_);
    return 0;
}

uint32_t Unit::SetOptions(uint64_t epoch, uint32_t mask, uint32_t flags) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    if ((mask & ~kKnownOptions) != 0)
        return FTR_ERROR_NOT_SUPPORTED;
    if ((mask & flags & FTR_OPTIONS_RECEIVE_LONG_IMAGE) != 0 && !config_.long_supported)
        return FTR_ERROR_HARDWARE_INCOMPATIBLE;
    options_ = (options_ & ~mask) | (flags & mask);
    return 0;
}

uint32_t Unit::GetOptions(uint64_t epoch, uint32_t& flags) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    flags = options_;
    return 0;
}

uint32_t Unit::GetImageSize(uint64_t epoch, int& width, int& height) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    FrameSize(width, height);
    return 0;
}

std::string Unit::Note(uint64_t frame, const Scenario::State& state) const {
    char text[160];
    std::snprintf(text, sizeof text, "frame %llu t=%.2fs step %s", (unsigned long long)frame,
                  frame * kFramePeriodSeconds, state.segment->step);
    std::string note = text;
    if (state.segment->line > 0)
        note += " line " + std::to_string(state.segment->line);
    return note;
}

uint32_t Unit::TakeFrame(uint64_t epoch, Capture kind, int dose, uint8_t* buffer,
                         std::string* note) {
    Lock lock(mutex_);
    const uint64_t frame = frame_;
    const Scenario::State state = scenario_->At(frame);
    if (note != nullptr)
        *note = Note(frame, state);
    uint32_t error = Reach(epoch);
    if (error == 0)
        ++frame_;  // Reach already let the frame pass when unplugged
    const auto due = std::max(std::chrono::steady_clock::now(), next_due_);
    next_due_ = due + std::chrono::microseconds(static_cast<int64_t>(kFramePeriodSeconds * 1e6));
    const Segment& seg = *state.segment;
    if (error == 0 && kind == Capture::Finger) {
        if (seg.capture_error != 0) {
            error = seg.capture_error;
        } else if (FingerOn(state) && scenario_->fingers()[size_t(seg.finger)].fake &&
                   (options_ & FTR_OPTIONS_CHECK_FAKE_REPLICA) != 0) {
            error = FTR_ERROR_NO_FRAME;
        }
    }
    std::shared_ptr<const ScanEngine> engine;
    std::shared_ptr<const Impression> impression;
    int width = 0, height = 0;
    FrameSize(width, height);
    const bool invert_option = (options_ & FTR_OPTIONS_INVERT_IMAGE) != 0;
    if (error == 0 && fixed_frame_ && !fixed_.pixels.empty() && fixed_.width == width &&
        fixed_.height == height && fixed_.kind == kind && fixed_.dose == dose &&
        fixed_.invert == invert_option) {
        green_ = red_ = false;
        std::memcpy(buffer, fixed_.pixels.data(), fixed_.pixels.size());
        lock.unlock();
        if (realtime_)
            std::this_thread::sleep_until(due);
        return 0;
    }
    if (error == 0) {
        green_ = red_ = false;  // the capture drives the LEDs itself
        const int dirt = seg.dirt >= 0 ? seg.dirt : config_.dirt;
        engine = EngineFor(width, height, dirt);
        if (kind != Capture::Dark && seg.replay < 0 && FingerOn(state))
            impression = ImpressionFor(*engine, state);
    }
    lock.unlock();

    if (realtime_)
        std::this_thread::sleep_until(due);
    if (error != 0)
        return error;
    const int level = kind == Capture::Dark ? 0 : kind == Capture::Backlight ? kNominalDose : dose;
    if (seg.replay >= 0 && kind != Capture::Dark) {
        const ReplaySpec& replay = scenario_->replays()[size_t(seg.replay)];
        Replay(replay, frame - state.start, width, height, level, buffer);
        if (replay.raw)
            return 0;
    } else {
        FrameRequest request;
        request.dose = level;
        request.frame = impression
                            ? static_cast<uint32_t>(std::min<uint64_t>(state.local, UINT32_MAX - 1))
                            : static_cast<uint32_t>(frame);
        engine->Render(impression.get(), request, buffer);
    }
    ToApiPolarity(buffer, width, height, invert_option);
    if (fixed_frame_) {
        Lock relock(mutex_);
        fixed_.pixels.assign(buffer, buffer + static_cast<size_t>(width) * height);
        fixed_.width = width;
        fixed_.height = height;
        fixed_.dose = dose;
        fixed_.kind = kind;
        fixed_.invert = invert_option;
    }
    return 0;
}

void Unit::Replay(const ReplaySpec& replay, uint64_t index, int width, int height, int dose,
                  uint8_t* out) {
    const GreyImage& image = replay.frames[index % replay.frames.size()];
    if (replay.raw) {
        Fit(image, width, height, 0, out);
        return;
    }
    std::vector<uint8_t> platen(static_cast<size_t>(width) * height);
    Fit(image, width, height, 255, platen.data());
    Optics optics;
    double empty_level = 0;
    {
        Lock lock(mutex_);
        const Geometry& g = GeometryFor(width, height);
        optics = g.optics;
        empty_level = g.empty_level;
    }
    ApplyOptics(optics, platen.data(), size_t(width), out, size_t(width), true);
    const double scale = empty_level / 255.0 * dose / kNominalDose;
    uint8_t table[256];
    for (int v = 0; v < 256; ++v)
        table[v] =
            static_cast<uint8_t>(std::clamp(std::lround(v * scale + dark_offset_), 0L, 255L));
    for (size_t i = 0; i < platen.size(); ++i)
        out[i] = table[out[i]];
}

uint32_t Unit::IsFingerPresent(uint64_t epoch, bool& present, std::string* note) {
    Lock lock(mutex_);
    const uint64_t frame = frame_;
    const Scenario::State state = scenario_->At(frame);
    if (note != nullptr)
        *note = Note(frame, state);
    if (const uint32_t e = Reach(epoch))
        return e;
    ++frame_;
    present = FingerOn(state) || state.segment->replay >= 0;
    return present ? 0 : FTR_ERROR_EMPTY_FRAME;
}

uint32_t Unit::Save7Bytes(uint64_t epoch, const uint8_t* bytes) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    std::memcpy(control_, bytes, sizeof control_);
    return 0;
}

uint32_t Unit::Restore7Bytes(uint64_t epoch, uint8_t* bytes) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    std::memcpy(bytes, control_, sizeof control_);
    return 0;
}

uint32_t Unit::SetLeds(uint64_t epoch, uint8_t green, uint8_t red) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    green_ = green != 0;
    red_ = red != 0;
    return 0;
}

uint32_t Unit::GetLeds(uint64_t epoch, bool& green, bool& red) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    green = green_;
    red = red_;
    return 0;
}

uint32_t Unit::SaveSerialNumber(uint64_t epoch, const uint8_t* block) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    unsigned sum = 0;
    for (int i = 1; i <= 8; ++i)
        sum += block[i];
    if (block[0] != 0xBA || block[9] != (sum & 0xFF))
        return FTR_ERROR_INVALID_PARAMETER;
    serial_.assign(reinterpret_cast<const char*>(block + 1), 8);
    return 0;
}

uint32_t Unit::GetSerialNumber(uint64_t epoch, uint8_t* eight) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    std::memcpy(eight, serial_.data(), 8);
    return 0;
}

uint32_t Unit::GetExtMemorySize(uint64_t epoch, int& size) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    size = static_cast<int>(ext_.size());
    return 0;
}

// A transfer of `count` bytes at `offset` that stays inside the memory.
bool Unit::ExtRangeValid(const void* data, int offset, int count) const {
    return offset >= 0 && count >= 0 && size_t(offset) + size_t(count) <= ext_.size() &&
           (data != nullptr || count == 0);
}

uint32_t Unit::WriteExtMemory(uint64_t epoch, const uint8_t* data, int offset, int count) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    if (!ExtRangeValid(data, offset, count))
        return FTR_ERROR_INVALID_PARAMETER;
    if (count > 0)
        std::memcpy(ext_.data() + offset, data, size_t(count));
    return 0;
}

uint32_t Unit::ReadExtMemory(uint64_t epoch, uint8_t* data, int offset, int count) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    if (!ExtRangeValid(data, offset, count))
        return FTR_ERROR_INVALID_PARAMETER;
    if (count > 0)
        std::memcpy(data, ext_.data() + offset, size_t(count));
    return 0;
}

uint32_t Unit::GetVersion(uint64_t epoch, FTRSCAN_VERSION_INFO& info) {
    Lock lock(mutex_);
    if (const uint32_t e = Reach(epoch))
        return e;
    info.APIVersion = config_.api_version;
    info.HardwareVersion = config_.hardware_version;
    info.FirmwareVersion = config_.firmware_version;
    return 0;
}

}  // namespace scanner
}  // namespace kr7sim
